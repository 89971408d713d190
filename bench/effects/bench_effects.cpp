// Prints the cost of one tick, in microseconds, of the animated colour effects at 60, 300 and
// 1000 LEDs. Target: at most 50 us per tick at 300 LEDs in a Release build.
// Then, for effects on a virtual strip, 1000 option changes in 2 s through the effect's panel,
// each one written through the store: the largest gap between the strip's frames. Target: under
// 2 frame periods, since no change waits on the disk.
#include "VirtualLedDevice.h"
#include "devices/OVController.h"
#include "devices/OVSerialPort.h"
#include "effects/EffectsManager.h"
#include "effects/colorful/ColorMap.h"
#include "effects/colorful/FlowingEffect.h"
#include "effects/colorful/MoodShadow.h"
#include "effects/panels/AbsWorkerWidget.h"
#include "effects/panels/EffectPanelMaker.h"
#include "service/config/ConfigurationManager.h"

#include <QAbstractSlider>
#include <QApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QImage>
#include <QMutex>
#include <QSpinBox>
#include <QTemporaryDir>
#include <QTextStream>
#include <QThread>
#include <QTimer>

#include <algorithm>
#include <atomic>
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

std::atomic<int> writes{0};

// Quiet but for warnings; counts the store's writes.
void countWrites(QtMsgType type, const QMessageLogContext&, const QString& message)
{
    if (message.startsWith(QLatin1String("[ConfigurationManager] Saved"))) {
        ++writes;
    }
    if (type != QtDebugMsg && type != QtInfoMsg && !message.startsWith(QLatin1String("[[loop]]"))) {
        std::fprintf(stderr, "%s\n", qPrintable(message));
    }
}

// `changes` option changes spread over `spanMs` through the panel's control, on a strip of 120
// LEDs; prints the largest gap between the strip's frames while they were made.
void changeThroughPanel(const QString& effectId, const char* control, int low, int high, double periodMs)
{
    constexpr int changes = 1000;
    constexpr int spanMs = 2000;
    // The strip reads on a thread of its own, as a real device would, so that what it measures
    // is when frames arrive, not when the program's thread had time to look.
    QThread deviceThread;
    deviceThread.start();
    VirtualLedDevice device;
    device.moveToThread(&deviceThread);
    QMetaObject::invokeMethod(
        &device, [&] { device.open(); }, Qt::BlockingQueuedConnection);
    ControlOptions options;
    options.model = QStringLiteral("OV5512");
    options.id = QStringLiteral("OV5512:BENCH");
    options.nbLeds = 120;
    options.lines = {40, 40, 40};
    options.brightness = 1.0f;
    options.portName = device.slavePath();
    auto* port = new OVSerialPort();
    port->open(device.slavePath());
    QSharedPointer<OVController> controller(new OVController(options, port), &QObject::deleteLater);
    controller->updateFrameHeader();

    EffectsManager manager;
    manager.bind(controller, effectId);
    manager.activeOperate(options.id, effectId);
    QWidget* panel = manager.workerOptions(effectId).optionWidget;
    // No control named: the effect runs untouched for the same time.
    auto* slider = *control ? panel->findChild<QAbstractSlider*>(QLatin1String(control)) : nullptr;
    auto* box = *control ? panel->findChild<QSpinBox*>(QLatin1String(control)) : nullptr;

    QMutex frameMutex;
    QVector<qint64> frameNs;
    QObject::connect(
        &device, &VirtualLedDevice::frameReceived, &device,
        [&] {
            QMutexLocker locker(&frameMutex);
            frameNs.append(device.lastFrameTimeNs());
        },
        Qt::DirectConnection);
    QElapsedTimer settle;
    settle.start();
    while (settle.elapsed() < 500) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
    }
    const int writesBefore = writes;
    frameMutex.lock();
    const int firstFrame = frameNs.size();
    frameMutex.unlock();
    int made = 0;
    QElapsedTimer clock;
    clock.start();
    QTimer pace;
    pace.setTimerType(Qt::PreciseTimer);
    pace.setInterval(1);
    QObject::connect(&pace, &QTimer::timeout, [&] {
        // As many as are due by now, so that a late timer doesn't stretch the span.
        const qint64 due = std::min<qint64>(changes, clock.elapsed() * changes / spanMs + 1);
        for (; made < due; ++made) {
            const int value = made % 2 ? high : low;
            if (slider) {
                slider->setValue(value);
            } else if (box) {
                box->setValue(value);
            }
        }
    });
    pace.start();
    while (made < changes) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
    }
    pace.stop();
    const double seconds = clock.nsecsElapsed() / 1e9;
    QMutexLocker locker(&frameMutex);
    const int lastFrame = frameNs.size();
    qint64 largest = 0;
    for (int i = firstFrame + 1; i < lastFrame; ++i) {
        largest = std::max(largest, frameNs.at(i) - frameNs.at(i - 1));
    }
    locker.unlock();
    manager.unbind(options.id);
    ConfigurationManager::instance()->flush();
    QMetaObject::invokeMethod(
        &device, [&] { device.close(); }, Qt::BlockingQueuedConnection);
    deviceThread.quit();
    deviceThread.wait();
    const QString name = slider || box ? effectId : effectId + QStringLiteral(" (untouched)");
    std::printf("%-50s %7d %7.2f %7d %8.1f %8.1f %6.2f %7d\n", qPrintable(name), slider || box ? made : 0,
                seconds, lastFrame - firstFrame, largest / 1e6, periodMs, largest / 1e6 / periodMs,
                writes - writesBefore);
}

} // namespace

int main(int argc, char** argv)
{
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) {
        qputenv("QT_QPA_PLATFORM", "offscreen"); // the panels need widgets, not a screen
    }
    QApplication app(argc, argv);
    EffectPanelMaker::install();
    qInstallMessageHandler(countWrites);
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

    // The untouched rows are the machine's own jitter, to read the others against.
    std::printf("\n%-50s %7s %7s %7s %8s %8s %6s %7s\n", "option changes through the panel", "changes", "s",
                "frames", "gap ms", "period", "ratio", "writes");
    changeThroughPanel(QStringLiteral("com.orvanta.singleColor.singleColor1"), "", 0, 0, 40.0);
    changeThroughPanel(QStringLiteral("com.orvanta.singleColor.singleColor1"), "Rbox", 0, 255, 40.0);
    changeThroughPanel(QStringLiteral("com.orvanta.colorful.ColorMap_3"), "", 0, 0, 33.0);
    changeThroughPanel(QStringLiteral("com.orvanta.colorful.ColorMap_3"), "speedSlider", 0, 200, 33.0);
    changeThroughPanel(QStringLiteral("com.orvanta.colorful.moodShadow"), "speedSlider", 10, 90, 33.0);
    changeThroughPanel(QStringLiteral("com.orvanta.colorful.moodShadow"), "rangeSlider", 100, 900, 33.0);
    return 0;
}
