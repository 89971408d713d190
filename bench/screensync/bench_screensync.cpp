// Screen sync figures on a private Xvfb at 1920x1080x24: the cost of a grab in both capture
// modes, the X server's CPU while capturing, the latency from a repaint to the strip, the
// pipeline's cost per frame, the time from a drop in the layout editor to the strip, and the
// resident memory of three strips over a minute, and the CPU averaging against OpenCV's area resize.
// Arguments pick sections: "a d f" runs those; --wayland runs the portal path's figures instead.
#include "DeviceRig.h"
#include "PrivateXServer.h"
#include "ScreenPainter.h"
#include "WaylandBench.h"
#include "effects/EffectsManager.h"
#include "effects/InternalEffectFactory.h"
#include "effects/panels/AbsWorkerWidget.h"
#include "effects/panels/EffectPanelMaker.h"
#include "effects/screensync/FullScreenMode.h"
#include "effects/screensync/panels/LEDItem.h"
#include "effects/screensync/panels/ScreenSyncEditScene.h"
#include "effects/screensync/panels/ScreenSyncEditView.h"
#include "service/config/ConfigurationManager.h"
#include "service/screen/AreaAverager.h"
#include "service/screen/DeskCaptureOption.h"
#include "service/screen/DeskDuplManager.h"
#include "service/screen/x11/DeskCaptureBackendX11.h"
#include "service/screen/x11/DeskFrameGrabberX11.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QMouseEvent>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QThread>
#include <QTimer>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <memory>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

namespace {

const QSize screen(1920, 1080);

double threadCpuUs()
{
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return double(t.tv_sec) * 1e6 + double(t.tv_nsec) / 1e3;
}

double quantile(std::vector<double> v, double q)
{
    std::sort(v.begin(), v.end());
    return v.empty() ? 0.0 : v[std::min(v.size() - 1, size_t(q * double(v.size())))];
}

void wait(int ms)
{
    QElapsedTimer clock;
    clock.start();
    while (clock.elapsed() < ms) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
    }
}

template <typename Done> bool waitFor(Done done, int ms)
{
    QElapsedTimer clock;
    clock.start();
    while (!done() && clock.elapsed() < ms) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 1);
    }
    return done();
}

qint64 steadyNs()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// Mode 0 redoes only what was drawn since the last frame: an unchanged screen costs a round trip,
// a screen changed everywhere the full passes. Mode 1 reads everything each time.
void grabCost(const QString& display, ScreenPainter& painter)
{
    std::printf("(a) one grab, 1920x1080 to 120x67, 300 frames\n");
    std::unique_ptr<DeskFrameGrabberX11> grabber(DeskFrameGrabberX11::open(display));
    for (int mode : {0, 1}) {
        std::printf("    mode %d (%s)\n", mode, qPrintable(grabber->technique(mode)));
        for (bool changed : {false, true}) {
            std::vector<double> wall;
            std::vector<double> cpu;
            QImage frame;
            for (int i = 0; i < 310; ++i) {
                if (changed) { // drawn and confirmed before the clock starts
                    painter.paint(QRect(QPoint(), screen),
                                  {{QRect(QPoint(), screen), i % 2 ? Qt::red : Qt::blue}});
                }
                QElapsedTimer clock;
                const double c0 = threadCpuUs();
                clock.start();
                grabber->grab(QRect(QPoint(), screen), QSize(120, 67), mode, &frame);
                if (i >= 10) {
                    wall.push_back(double(clock.nsecsElapsed()) / 1e3);
                    cpu.push_back(threadCpuUs() - c0);
                }
            }
            std::printf(
                "      %s: wall median %.0f us, p95 %.0f us; thread CPU median %.0f us, p95 %.0f us\n",
                changed ? "screen changed everywhere before each grab" : "screen unchanged",
                quantile(wall, 0.5), quantile(wall, 0.95), quantile(cpu, 0.5), quantile(cpu, 0.95));
        }
    }
    painter.paint(QRect(QPoint(), screen), ScreenPainter::pictureA(screen));
}

// Mode 1's averaging, and any path that averages whole frames on the CPU: AreaAverager's integer
// boxes against OpenCV's area resize, on one thread as a capture thread runs it, on noise (the
// worst case for their difference, which is printed in steps of 1/255).
void cpuAveraging()
{
    std::printf("(g) averaging a monitor to 120x67 on the CPU, 32-bit pixels, one thread, 50 runs\n");
    cv::setNumThreads(0);
    QRandomGenerator random(17);
    for (const QSize size : {QSize(1920, 1080), QSize(3840, 2160)}) {
        QImage picture(size, QImage::Format_RGB32);
        for (int y = 0; y < size.height(); ++y) {
            random.fillRange(reinterpret_cast<quint32*>(picture.scanLine(y)), size.width());
        }
        const AreaAverager::PixelLayout layout; // the server's 24-bit depth: x, red, green, blue
        QImage ours(120, 67, QImage::Format_RGBA8888);
        const cv::Mat source(size.height(), size.width(), CV_8UC4, picture.bits(),
                             size_t(picture.bytesPerLine()));
        cv::Mat theirs;
        std::vector<double> oursUs;
        std::vector<double> theirsUs;
        for (int i = 0; i < 50; ++i) {
            QElapsedTimer clock;
            clock.start();
            AreaAverager::average(picture.constBits(), size.width(), size.height(), picture.bytesPerLine(),
                                  layout, &ours);
            oursUs.push_back(double(clock.nsecsElapsed()) / 1e3);
            clock.restart();
            cv::resize(source, theirs, cv::Size(120, 67), 0, 0, cv::INTER_AREA);
            theirsUs.push_back(double(clock.nsecsElapsed()) / 1e3);
        }
        int most = 0;
        int beyondOne = 0;
        for (int y = 0; y < 67; ++y) {
            for (int x = 0; x < 120; ++x) {
                const uint8_t* bgra = theirs.ptr<uint8_t>(y) + x * 4;
                const QColor c = ours.pixelColor(x, y);
                const int d = std::max({std::abs(c.red() - bgra[2]), std::abs(c.green() - bgra[1]),
                                        std::abs(c.blue() - bgra[0])});
                most = std::max(most, d);
                beyondOne += d > 1;
            }
        }
        std::printf(
            "    %dx%d: AreaAverager median %.0f us, p95 %.0f us; cv::resize INTER_AREA median %.0f us, "
            "p95 %.0f us; largest difference %d, pixels differing by more than 1: %d of 8040\n",
            size.width(), size.height(), quantile(oursUs, 0.5), quantile(oursUs, 0.95),
            quantile(theirsUs, 0.5), quantile(theirsUs, 0.95), most, beyondOne);
    }
}

// The server's share of one core over 10 s, less what the painting alone costs it.
void serverCpu(PrivateXServer& server, DeskDuplManager& registry, ScreenPainter& painter)
{
    std::printf(
        "(b) X server CPU over 10 s, one listener at 30 frames a second; the scenes are repainted at 30 "
        "Hz, their painting alone subtracted\n");
    const auto source = registry.capturer(0);
    struct Scene
    {
        const char* name;
        QRect area; // repainted 30 times a second; empty: a still screen
    };
    const Scene scenes[] = {{"still screen", QRect()},
                            {"a 640x360 video", QRect(640, 360, 640, 360)},
                            {"the whole screen changing", QRect(QPoint(), screen)}};
    for (const Scene& scene : scenes) {
        QTimer repaint;
        int phase = 0;
        QObject::connect(&repaint, &QTimer::timeout, [&] {
            ++phase;
            painter.paint(scene.area,
                          {{QRect(QPoint(), scene.area.size()), phase % 2 ? Qt::yellow : Qt::cyan}});
        });
        if (!scene.area.isEmpty()) {
            repaint.start(33);
        }
        double busy[3] = {0, 0, 0}; // painting only, mode 0, mode 1
        double rate[3] = {0, 0, 0};
        for (int mode : {-1, 0, 1}) {
            QObject receiver;
            int frames = 0;
            if (mode >= 0) {
                registry.option()->setCurMode(mode);
                QObject::connect(source.data(), &IDeskCapture::frameTick, &receiver, [&frames] { ++frames; });
            }
            wait(500);
            frames = 0;
            const double before = server.cpuSeconds();
            wait(10000);
            busy[mode + 1] = (server.cpuSeconds() - before) / 10.0 * 100.0;
            rate[mode + 1] = frames / 10.0;
        }
        repaint.stop();
        const double m0 = std::max(0.0, busy[1] - busy[0]);
        const double m1 = std::max(0.0, busy[2] - busy[0]);
        std::printf(
            "    %s: no listener %.2f %%; capture in mode 0 %.2f %% (%.1f fps), mode 1 %.2f %% (%.1f fps); "
            "mode 0 / mode 1: %.2f\n",
            scene.name, busy[0], m0, rate[1], m1, rate[2], m1 > 0 ? m0 / m1 : 0.0);
    }
    painter.paint(QRect(QPoint(), screen), ScreenPainter::pictureA(screen));
}

// A 72-LED strip on full screen's model lines, keeping no frames.
bool startStrip(DeviceRig& rig)
{
    ControlOptions options = DeviceRig::defaultOptions(72);
    options.lines = {18, 36, 18};
    if (!rig.start(options)) {
        std::printf("    no virtual device\n");
        return false;
    }
    rig.device.setKeepFrames(false);
    return true;
}

void latency(ScreenPainter& painter)
{
    std::printf("(c) repaint confirmed by the server to the first device frame with its colour, mode 0, 50 "
                "changes\n");
    EffectsManager effects;
    DeviceRig rig;
    if (!startStrip(rig)) {
        return;
    }
    effects.bind(rig.controller, QStringLiteral("com.orvanta.screenSync.fullScreen"));
    std::vector<double> ms;
    const QColor colours[2] = {QColor(255, 0, 0), QColor(0, 0, 255)};
    for (int i = 0; i < 52; ++i) {
        const QColor c = colours[i % 2];
        wait(100 + QRandomGenerator::global()->bounded(34)); // a random phase against the capture
        painter.paint(QRect(QPoint(), screen), {{QRect(QPoint(), screen), c}});
        const qint64 confirmed = steadyNs();
        auto shows = [&] {
            const auto leds = rig.device.lastColors();
            return !leds.isEmpty() && leds[30].r == c.red() && leds[30].b == c.blue() &&
                   rig.device.lastFrameTimeNs() >= confirmed;
        };
        if (waitFor(shows, 2000) && i >= 2) {
            ms.push_back(double(rig.device.lastFrameTimeNs() - confirmed) / 1e6);
        }
    }
    std::printf("    median %.1f ms, p95 %.1f ms (%zu changes seen)\n", quantile(ms, 0.5), quantile(ms, 0.95),
                ms.size());
    effects.unbind(rig.controller->controlOptions().id);
}

void pipelineCost()
{
    std::printf("(d) pipeline per frame (blur, map, saturate, colours) at 300 LEDs, 300 frames\n");
    InternalEffectFactory factory;
    ControlOptions options;
    options.id = QStringLiteral("BENCH:1");
    options.model = QStringLiteral("BENCH");
    options.nbLeds = 300;
    options.lines = {300};
    QImage frame(120, 67, QImage::Format_RGBA8888);
    for (int y = 0; y < 67; ++y) {
        for (int x = 0; x < 120; ++x) {
            frame.setPixel(x, y, qRgba(x * 2, y * 3, (x + y) % 256, 255));
        }
    }
    for (const char* id : {"fullScreen", "cinemaScreen", "topHalfScreen"}) {
        for (float blur : {0.0f, 0.5f, 1.0f}) {
            QSharedPointer<AbsScreenSync> worker(
                qobject_cast<AbsScreenSync*>(factory.create(QStringLiteral("com.orvanta.screenSync.") + id)),
                &QObject::deleteLater);
            worker->load(options);
            worker->setBlurStrength(blur);
            worker->setSaturationStrength(0.2f);
            std::vector<double> us;
            for (int i = 0; i < 310; ++i) {
                QElapsedTimer clock;
                clock.start();
                worker->frameInput(frame);
                if (i >= 10) {
                    us.push_back(double(clock.nsecsElapsed()) / 1e3);
                }
            }
            std::printf("    %-14s blur %.1f: median %.0f us, p95 %.0f us\n", id, double(blur),
                        quantile(us, 0.5), quantile(us, 0.95));
        }
    }
}

void sendMouse(QWidget* target, QEvent::Type type, QPoint at, Qt::MouseButton button, Qt::MouseButtons held)
{
    QMouseEvent event(type, at, target->mapToGlobal(at), button, held, Qt::NoModifier);
    QApplication::sendEvent(target, &event);
}

void editorDrop(ScreenPainter& painter)
{
    std::printf("(e) layout editor: a drag's release to the first device frame with the LED's new colour, 50 "
                "drags between a red and a blue half\n");
    painter.paint(QRect(QPoint(), screen),
                  {{QRect(0, 0, screen.width() / 2, screen.height()), Qt::red},
                   {QRect(screen.width() / 2, 0, screen.width() / 2, screen.height()), Qt::blue}});
    EffectsManager effects;
    DeviceRig rig;
    if (!startStrip(rig)) {
        return;
    }
    const QString effect = QStringLiteral("com.orvanta.screenSync.fullScreen");
    effects.bind(rig.controller, effect);
    const QString id = rig.controller->controlOptions().id;
    effects.activeOperate(id, effect);
    AbsWorkerWidget* panel = effects.workerOptions(effect).extraOptionWidget;
    auto* view = panel ? panel->findChild<ScreenSyncEditView*>() : nullptr;
    if (!view) {
        std::printf("    no layout editor\n");
        return;
    }
    panel->resize(700, 500);
    panel->show();
    wait(500);
    ScreenSyncEditScene* scene = view->editScene();
    const double cellWidth = scene->sceneRect().width() / 120;
    const double cellHeight = scene->sceneRect().height() / 67;
    const QPointF spots[2] = {QPointF(30.5 * cellWidth, 33.5 * cellHeight),
                              QPointF(90.5 * cellWidth, 33.5 * cellHeight)};
    const QColor colours[2] = {Qt::red, Qt::blue};
    // The squares overlap their neighbours on the edge: the one dragged is the one on top, as for
    // a user; from then on it sits alone in the middle.
    QPoint from = view->mapFromScene(scene->leds().first()->sceneBoundingRect().center());
    std::vector<double> ms;
    for (int i = 0; i < 52; ++i) {
        wait(100 + QRandomGenerator::global()->bounded(34)); // a random phase against the capture
        auto* item = dynamic_cast<LEDItem*>(view->itemAt(from));
        if (!item) {
            std::printf("    no square under the pointer\n");
            return;
        }
        const int index = item->id;
        const QPoint to = view->mapFromScene(spots[i % 2]);
        QWidget* port = view->viewport();
        sendMouse(port, QEvent::MouseButtonPress, from, Qt::LeftButton, Qt::LeftButton);
        sendMouse(port, QEvent::MouseMove, to, Qt::NoButton, Qt::LeftButton);
        const qint64 released = steadyNs();
        sendMouse(port, QEvent::MouseButtonRelease, to, Qt::LeftButton, Qt::NoButton);
        from = to;
        const QColor c = colours[i % 2];
        auto shows = [&] {
            const auto leds = rig.device.lastColors();
            return leds.size() > index && leds[index].r == c.red() && leds[index].b == c.blue() &&
                   rig.device.lastFrameTimeNs() >= released;
        };
        if (waitFor(shows, 2000) && i >= 2) {
            ms.push_back(double(rig.device.lastFrameTimeNs() - released) / 1e6);
        }
    }
    const double period = rig.device.frameRate() > 0 ? 1000.0 / rig.device.frameRate() : 0.0;
    std::printf("    capture period %.1f ms; median %.1f ms (%.2f periods), p95 %.1f ms (%.2f periods); %zu "
                "drops seen\n",
                period, quantile(ms, 0.5), period > 0 ? quantile(ms, 0.5) / period : 0.0, quantile(ms, 0.95),
                period > 0 ? quantile(ms, 0.95) / period : 0.0, ms.size());
    panel->hide();
    effects.unbind(id);
}

qint64 residentKb()
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly)) {
        return -1;
    }
    for (const QByteArray& line : status.readAll().split('\n')) {
        if (line.startsWith("VmRSS:")) {
            return line.mid(6).trimmed().split(' ').first().toLongLong();
        }
    }
    return -1;
}

// Resident memory over `seconds` while the whole screen changes at 30 Hz, after 5 s of warm-up,
// with the colour sets `processed` counts.
void measureResident(ScreenPainter& painter, int seconds, const std::atomic<int>& processed, int workers)
{
    QTimer repaint;
    int phase = 0;
    QObject::connect(&repaint, &QTimer::timeout, [&] {
        ++phase;
        painter.paint(QRect(QPoint(), screen),
                      {{QRect(QPoint(), screen), QColor::fromHsv(phase * 7 % 360, 255, 255)}});
    });
    repaint.start(33);
    int captured = 0;
    QObject receiver;
    QObject::connect(DeskDuplManager::instance()->capturer(0).data(), &IDeskCapture::frameTick, &receiver,
                     [&captured] { ++captured; });
    wait(5000);
    const qint64 start = residentKb();
    const int startProcessed = processed.load();
    captured = 0;
    qint64 peak = start;
    for (int s = 0; s < seconds; ++s) {
        wait(1000);
        peak = std::max(peak, residentKb());
    }
    const qint64 end = residentKb();
    const int sets = processed.load() - startProcessed;
    std::printf(
        "      resident %.1f MB at the start, %.1f MB at the end: growth %+.2f MB (peak %+.2f MB); %d "
        "frames captured, %.1f colour sets a worker a second\n",
        start / 1024.0, end / 1024.0, (end - start) / 1024.0, (peak - start) / 1024.0, captured,
        sets / double(workers) / seconds);
}

// Three workers at blur 1.0: the work thread keeps the newest frame of each source, so a pipeline
// slower than the capture skips frames and memory stays flat.
void memoryFlat(ScreenPainter& painter, int seconds)
{
    std::printf(
        "(f) resident memory of 3 screen workers at blur 1.0, the screen repainted at 30 Hz, %d s after "
        "5 s of warm-up\n",
        seconds);
    const QString full = QStringLiteral("com.orvanta.screenSync.fullScreen");
    std::atomic<int> processed{0};
    const auto count = [&processed](const IEffectWorkerPtr& worker) {
        QObject::connect(
            worker.data(), qOverload<QVector<QVector<OV_RGB>>>(&IEffectWorker::updateColors), worker.data(),
            [&processed] { ++processed; }, Qt::DirectConnection);
    };
    {
        std::printf("    3 strips of 72 LEDs on full screen, each on a virtual device\n");
        EffectsManager effects;
        DeviceRig rigs[3];
        for (int i = 0; i < 3; ++i) {
            ControlOptions options = DeviceRig::defaultOptions(72);
            options.lines = {18, 36, 18};
            options.id = QStringLiteral("OV5512:MEMORY%1").arg(i);
            if (!rigs[i].start(options)) {
                std::printf("    no virtual device\n");
                return;
            }
            rigs[i].device.setKeepFrames(false);
            ConfigurationManager::instance()->setEffectVariant(full, options.id,
                                                               QStringLiteral("blurStrength"), 1.0);
            count(effects.bind(rigs[i].controller, full));
        }
        measureResident(painter, seconds, processed, 3);
        for (DeviceRig& rig : rigs) {
            effects.unbind(rig.controller->controlOptions().id);
        }
    }
    {
        // A slower machine: the work thread is taken 25 ms of every 33 by other work.
        std::printf(
            "    3 top bands of 65535 LEDs with no device, the work thread busy 25 ms of every 33 ms: a "
            "pipeline slower than the capture\n");
        const QString top = QStringLiteral("com.orvanta.screenSync.topHalfScreen");
        InternalEffectFactory factory;
        QVector<IEffectWorkerPtr> workers;
        for (int i = 0; i < 3; ++i) {
            ControlOptions options;
            options.id = QStringLiteral("BENCH:SLOW%1").arg(i);
            options.model = QStringLiteral("BENCH");
            options.nbLeds = 65535;
            options.lines = {65535};
            ConfigurationManager::instance()->setEffectVariant(top, options.id,
                                                               QStringLiteral("blurStrength"), 1.0);
            workers.append(IEffectWorkerPtr(factory.create(top), &QObject::deleteLater));
            count(workers.last());
            workers.last()->load(options);
        }
        auto* busy = new QTimer;
        busy->setInterval(33);
        busy->moveToThread(AbsScreenSync::currentWorkThread());
        QObject::connect(busy, &QTimer::timeout, busy, [] { QThread::msleep(25); });
        QMetaObject::invokeMethod(busy, qOverload<>(&QTimer::start));
        measureResident(painter, seconds, processed, 3);
        QMetaObject::invokeMethod(busy, &QObject::deleteLater);
    }
}

} // namespace

int main(int argc, char** argv)
{
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QTemporaryDir home; // the editor's drags are stored: never in the user's own settings
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(home.filePath(QStringLiteral("config"))));
    QApplication app(argc, argv);
    EffectPanelMaker::install();
    qSetMessagePattern(QStringLiteral("%{if-warning}%{message}%{endif}%{if-critical}%{message}%{endif}"));
    if (app.arguments().contains(QStringLiteral("--wayland")) ||
        app.arguments().contains(QStringLiteral("--x11-row"))) {
        return waylandBench(app.arguments());
    }
    PrivateXServer server;
    if (!server.start()) {
        std::printf("no X server: %s\n", qPrintable(server.errorString()));
        return 1;
    }
    qputenv("DISPLAY", server.display().toLocal8Bit());
    ScreenPainter painter;
    painter.open(server.display());
    painter.paint(QRect(QPoint(), screen), ScreenPainter::pictureA(screen));

    // Sections by letter; none given: all of them.
    QStringList sections = app.arguments().mid(1);
    if (sections.isEmpty()) {
        sections = QStringList{"a", "b", "c", "d", "e", "f", "g"};
    }
    if (sections.contains("a")) {
        grabCost(server.display(), painter);
    }
    DeskDuplManager* registry = DeskDuplManager::instance();
    if (sections.contains("b")) {
        serverCpu(server, *registry, painter);
    }
    registry->option()->setCurMode(0);
    if (sections.contains("c")) {
        latency(painter);
    }
    if (sections.contains("d")) {
        pipelineCost();
    }
    if (sections.contains("e")) {
        editorDrop(painter);
    }
    if (sections.contains("f")) {
        memoryFlat(painter, 60);
    }
    if (sections.contains("g")) {
        cpuAveraging();
    }
    registry->shutdown();
    return 0;
}
