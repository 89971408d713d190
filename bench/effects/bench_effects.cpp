// Prints the cost of one tick, in microseconds, of the animated colour effects at 60, 300 and
// 1000 LEDs. Target: at most 50 us per tick at 300 LEDs in a Release build.
#include "ColorMap.h"
#include "ConfigurationManager.h"
#include "FlowingEffect.h"
#include "MoodShadow.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QImage>
#include <QTemporaryDir>
#include <QTextStream>

#include <cstdio>
#include <functional>

namespace {

ControlOptions strip(uint32_t leds)
{
    ControlOptions options;
    options.id = QStringLiteral("bench:%1").arg(leds);
    options.model = QStringLiteral("bench");
    options.nbLeds = leds;
    // Three lines, as a strip round a desk would have.
    const uint32_t third = leds / 3;
    options.lines = {third, third, leds - 2 * third};
    return options;
}

// Runs the tick long enough for a stable figure and returns microseconds per tick.
double measure(const std::function<void()>& tick)
{
    for (int i = 0; i < 200; ++i) {
        tick();
    }
    int rounds = 0;
    QElapsedTimer clock;
    clock.start();
    while (clock.elapsed() < 500) {
        for (int i = 0; i < 100; ++i) {
            tick();
        }
        rounds += 100;
    }
    return clock.nsecsElapsed() / 1000.0 / rounds;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    // Keep the benchmark's store and pictures away from the user's.
    QTemporaryDir home;
    qputenv("XDG_CONFIG_HOME", home.path().toUtf8());

    const QString colorful = QCoreApplication::applicationDirPath() + "/effects/colorful";
    const QString picture = colorful + "/ColorMap_3.png";
    if (!QFile::exists(picture)) {
        QDir().mkpath(colorful);
        QImage image(256, 300, QImage::Format_RGB32);
        image.fill(Qt::darkCyan);
        image.save(picture);
    }

    EffectWorkerOptions mapRecord;
    mapRecord.id = QStringLiteral("com.orvanta.colorful.ColorMap_3");
    EffectWorkerOptions moodRecord;
    moodRecord.id = QStringLiteral("com.orvanta.colorful.moodShadow");

    std::printf("%-14s %8s %12s\n", "effect", "LEDs", "us/tick");
    for (uint32_t leds : {60u, 300u, 1000u}) {
        const ControlOptions options = strip(leds);

        FlowingEffect flowing;
        flowing.load(options);
        const double flowingUs = measure([&] { QMetaObject::invokeMethod(&flowing, "update"); });
        std::printf("%-14s %8u %12.2f\n", "FlowingEffect", leds, flowingUs);

        ColorMap map(mapRecord);
        map.load(options);
        const double mapUs = measure([&] { map.tick(0.033); });
        std::printf("%-14s %8u %12.2f\n", "ColorMap", leds, mapUs);

        MoodShadow mood(moodRecord);
        mood.load(options);
        mood.setRange(0.5);
        mood.setSpeed(0.5);
        const double moodUs = measure([&] { mood.tick(0.033); });
        std::printf("%-14s %8u %12.2f\n", "MoodShadow", leds, moodUs);
    }
    return 0;
}
