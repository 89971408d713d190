// "controler_config/OVController.json" as discovery reads it, for a known model and for the
// first model the bytes name. A layout is taken within the limits or not at all, and a layout
// that passes goes on the wire intact.
#include "FuzzSupport.h"
#include "devices/LedLayout.h"
#include "devices/ModelDefaults.h"
#include "devices/OVController.h"

#include <QJsonDocument>
#include <QJsonObject>

namespace {

void check(const QByteArray& bytes, const QString& model)
{
    const ModelDefaults defaults = ModelDefaults::parse(bytes, model);
    const QString what = model + QStringLiteral(": ") + QString::fromUtf8(bytes.left(200));
    if (!defaults.parsed) {
        FUZZ_EXPECT(!defaults.parseError.isEmpty() && defaults.nbLeds == 0 && defaults.lines.isEmpty(), what);
        return;
    }
    if (!defaults.layoutInRange) {
        // Refused: nothing of it kept, and the value named.
        FUZZ_EXPECT(defaults.nbLeds == 0 && defaults.lines.isEmpty() && !defaults.layoutProblem.isEmpty(),
                    what);
        return;
    }
    FUZZ_EXPECT(
        defaults.nbLeds <= LedLayout::maxLeds && uint32_t(defaults.lines.size()) <= LedLayout::maxLeds, what);
    for (uint32_t line : defaults.lines) {
        FUZZ_EXPECT(line <= LedLayout::maxLeds, what);
    }
    if (!LedLayout::problem(defaults.nbLeds, defaults.lines).isEmpty()) {
        return; // not described: the strip dialog asks
    }
    QVector<QVector<OV_RGB>> colors;
    for (uint32_t line : defaults.lines) {
        colors.append(QVector<OV_RGB>(int(line), OV_RGB{1, 2, 3}));
    }
    const QByteArray frame =
        OVController::encodeFrame(OVController::frameHeaderFor(defaults.nbLeds), defaults.nbLeds, colors);
    FUZZ_EXPECT(frame.size() == 6 + 3 * int(defaults.nbLeds), what);
    FUZZ_EXPECT((uint8_t(frame.at(4)) << 8 | uint8_t(frame.at(5))) == int(defaults.nbLeds), what);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray bytes(reinterpret_cast<const char*>(data), int(size));
    check(bytes, QStringLiteral("OV5512"));
    const QJsonObject object = QJsonDocument::fromJson(bytes).object();
    if (!object.isEmpty()) {
        check(bytes, object.begin().key());
    }
    return 0;
}
