// An effect group file (a "*.json" of the folder "effects"): every group read has an id, in the
// order of the file, and a file that is no group file gives none.
#include "FuzzSupport.h"
#include "effects/EffectsManager.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzzApplication();
    FuzzLog::install();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray bytes(reinterpret_cast<const char*>(data), int(size));
    const QVector<EffectGroup> groups = EffectsManager::readGroupFile(bytes, QStringLiteral("fuzz.json"));
    const QJsonArray entries =
        QJsonDocument::fromJson(bytes).object().value(QStringLiteral("groups")).toArray();
    const QString what = QString::fromUtf8(bytes.left(300));
    FUZZ_EXPECT(groups.size() <= entries.size(), what);
    int at = 0;
    for (const EffectGroup& group : groups) {
        FUZZ_EXPECT(!group.id.isEmpty() && group.icon.isNull() && group.effects.isEmpty(), what);
        // Each group is the next entry of the file with an id.
        while (at < entries.size() &&
               entries.at(at).toObject().value(QStringLiteral("id")).toString().isEmpty()) {
            ++at;
        }
        FUZZ_EXPECT(at < entries.size() &&
                        entries.at(at).toObject().value(QStringLiteral("id")).toString() == group.id,
                    what);
        ++at;
    }
    return 0;
}
