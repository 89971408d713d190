// A model's full-screen LED map ("controler_config/<model>.json", or the user's stored "map"):
// the first two bytes give the strip's LED count, the rest is the map's JSON. Whatever it holds,
// every LED of the strip lands on a screen of a size the editor can set.
#include "FuzzSupport.h"
#include "devices/LedLayout.h"
#include "effects/screensync/FullScreenMode.h"

#include <QJsonDocument>
#include <QJsonObject>

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    FuzzLog::install();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzInput input(data, size);
    const uint32_t nbLeds = input.number(4000);
    const QByteArray bytes = input.rest();
    const QJsonObject object = QJsonDocument::fromJson(bytes).object();

    QVector<QPoint> map;
    int width = -1;
    int height = -1;
    FullScreenMode::makeDefaultMap(nbLeds, map, width, height);
    FullScreenMode::applyMap(object, QStringLiteral("OV5512:41424344"), map, width, height);

    const QString what = QStringLiteral("%1 LEDs: ").arg(nbLeds) + QString::fromUtf8(bytes.left(200));
    FUZZ_EXPECT(map.size() == int(nbLeds), what);
    FUZZ_EXPECT(width >= FullScreenMode::minScreenWidth && width <= FullScreenMode::maxScreenWidth, what);
    FUZZ_EXPECT(height >= FullScreenMode::minScreenHeight && height <= FullScreenMode::maxScreenHeight, what);
    for (const QPoint& point : map) {
        FUZZ_EXPECT(point.x() >= 0 && point.x() < width && point.y() >= 0 && point.y() < height, what);
    }
    return 0;
}
