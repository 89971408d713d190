// Music mode 1's fragments ("effects/dynamicMusic/<model>.json", or the stored configuration):
// the first two bytes give the strip's LED count, the third a level, the rest is the JSON. Every
// fragment taken lies on the strip with a band of more than 10 Hz and values the panel can set,
// and its bar has one colour per LED whatever the level.
#include "FuzzSupport.h"
#include "devices/LedLayout.h"
#include "effects/music/MusicMode1.h"

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
    const uint32_t nbLeds = input.number(LedLayout::maxLeds + 1);
    // The level a bar is drawn at is bounded to the scale before it gets there.
    const double level = input.byte() * 80.0 / 255.0;
    const QByteArray bytes = input.rest();
    const QJsonObject config = QJsonDocument::fromJson(bytes).object();

    const QHash<QString, Fragment> fragments = MusicMode1::readFragments(config, nbLeds);
    const int lastEnd = int(qMin(nbLeds, LedLayout::maxLeds));
    const QString what = QStringLiteral("%1 LEDs: ").arg(nbLeds) + QString::fromUtf8(bytes.left(200));
    FUZZ_EXPECT(fragments.size() <= config.value(QStringLiteral("fragments")).toObject().size(), what);
    MusicMode1 mode(EffectWorkerOptions{});
    for (auto it = fragments.cbegin(); it != fragments.cend(); ++it) {
        Fragment fragment = it.value();
        FUZZ_EXPECT(fragment.beginIndex >= 0 && fragment.beginIndex < fragment.endIndex &&
                        fragment.endIndex <= lastEnd,
                    what);
        FUZZ_EXPECT(fragment.maxFrequency - fragment.minFrequency > 10.0 && fragment.minFrequency >= 0.0 &&
                        fragment.maxFrequency <= MusicMode1::kMaxFrequency,
                    what);
        FUZZ_EXPECT(fragment.dbEnhance >= -80.0 && fragment.dbEnhance <= 80.0, what);
        FUZZ_EXPECT(fragment.mulEnhance >= MusicMode1::kMinStrength &&
                        fragment.mulEnhance <= MusicMode1::kMaxStrength,
                    what);
        const double smoothed = MusicMode1::fallSmooth(fragment.recentLevels, level);
        const QVector<OV_RGB> bar = mode.barColors(it.key(), fragment, smoothed);
        FUZZ_EXPECT(bar.size() == fragment.endIndex - fragment.beginIndex, what);
    }
    return 0;
}
