// The mood shadow's straps: "effects/colorStraps.json" or the stored shared list under
// "colorStrapList", with a device's own values under "strapConfigs"; the first two bytes give the
// strip's LED count. Every strap comes out with a uuid of its own and values the panel can set,
// the list going back to the store carries those uuids, and a strap's picture is never wider than
// two strips nor narrower than its stops.
#include "FuzzSupport.h"
#include "devices/LedLayout.h"
#include "effects/colorful/MoodShadow.h"

#include <QJsonDocument>
#include <QSet>
#include <QUuid>

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    FuzzLog::install();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzInput input(data, size);
    const uint32_t nbLeds = input.number(LedLayout::maxLeds);
    const QByteArray bytes = input.rest();
    const QJsonObject document = QJsonDocument::fromJson(bytes).object();
    QJsonArray list = document.value(QStringLiteral("colorStrapList")).toArray();
    const QString what = QStringLiteral("%1 LEDs: ").arg(nbLeds) + QString::fromUtf8(bytes.left(200));

    bool renamed = false;
    QVector<ColorStrap> straps = MoodShadow::readStrapList(list, &renamed);
    MoodShadow::applyDeviceValues(straps, document.value(QStringLiteral("strapConfigs")).toObject());
    FUZZ_EXPECT(straps.size() == list.size(), what);
    QSet<QString> seen;
    for (int i = 0; i < straps.size(); ++i) {
        const ColorStrap& strap = straps.at(i);
        FUZZ_EXPECT(!QUuid(strap.uuid).isNull() && !seen.contains(strap.uuid), what);
        seen.insert(strap.uuid);
        FUZZ_EXPECT(list.at(i).toObject().value(QStringLiteral("uuid")).toString() == strap.uuid, what);
        FUZZ_EXPECT(strap.speed >= 0.0 && strap.speed <= MoodShadow::kMaxSpeed, what);
        FUZZ_EXPECT(strap.range >= MoodShadow::kMinRange && strap.range <= MoodShadow::kMaxRange, what);
        FUZZ_EXPECT(strap.endsColor.isValid(), what);
        for (const QGradientStop& stop : strap.keyColors) {
            FUZZ_EXPECT(stop.first >= 0.0 && stop.first <= 1.0 && stop.second.isValid(), what);
        }
        const int width = MoodShadow::imageWidth(strap, nbLeds);
        FUZZ_EXPECT(width >= strap.keyColors.size() + 2 &&
                        int64_t(width) <= qMax<int64_t>(2 * int64_t(nbLeds), strap.keyColors.size() + 2),
                    what);
    }
    // A list that needed no new uuid is handed back as it came.
    FUZZ_EXPECT(renamed || list == document.value(QStringLiteral("colorStrapList")).toArray(), what);
    return 0;
}
