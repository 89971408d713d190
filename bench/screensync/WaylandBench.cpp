#include "WaylandBench.h"

#include "DeviceRig.h"
#include "PrivatePipeWire.h"
#include "PrivateXServer.h"
#include "ScreenPainter.h"
#include "effects/EffectsManager.h"
#include "service/screen/DeskCaptureOption.h"
#include "service/screen/DeskDuplManager.h"
#include "service/screen/x11/DeskFrameGrabberX11.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QMap>
#include <QProcess>
#include <QRandomGenerator>
#include <QTimer>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include <unistd.h>

namespace {

const QSize screen(1920, 1080);
const QRect whole(QPoint(), screen);
constexpr double kPeriodMs = 1000.0 / 30;

struct Durations
{
    int sceneSeconds = 60;
    int memorySeconds = 300;
    int memoryStep = 30;
};

qint64 steadyNs()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

double quantile(std::vector<double> v, double q)
{
    std::sort(v.begin(), v.end());
    return v.empty() ? 0.0 : v[std::min(v.size() - 1, size_t(q * double(v.size())))];
}

// Runs the event loop until done() holds or ms pass. It sleeps between events and looks at done()
// every 2 ms: a loop that polls would cost this process a core and spoil its CPU figures.
template <typename Done> bool spinUntil(Done done, int ms)
{
    QEventLoop loop;
    QElapsedTimer clock;
    clock.start();
    QTimer look;
    QObject::connect(&look, &QTimer::timeout, &loop, [&] {
        if (done() || clock.elapsed() >= ms) {
            loop.quit();
        }
    });
    look.start(2);
    if (!done()) {
        loop.exec();
    }
    return done();
}

void spin(int ms)
{
    QEventLoop loop;
    QTimer::singleShot(ms, &loop, &QEventLoop::quit);
    loop.exec();
}

QByteArray readProc(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// The fields of /proc/<pid>/stat after the name, which may hold spaces: [0] is the state.
QList<QByteArray> statFields(const QByteArray& stat)
{
    const int close = stat.lastIndexOf(')');
    return close < 0 ? QList<QByteArray>() : stat.mid(close + 2).split(' ');
}

double cpuSeconds(qint64 pid)
{
    const QList<QByteArray> fields = statFields(readProc(QStringLiteral("/proc/%1/stat").arg(pid)));
    if (fields.size() < 13) {
        return 0.0;
    }
    return double(fields[11].toLongLong() + fields[12].toLongLong()) / double(sysconf(_SC_CLK_TCK));
}

qint64 residentKb(qint64 pid)
{
    for (const QByteArray& line : readProc(QStringLiteral("/proc/%1/status").arg(pid)).split('\n')) {
        if (line.startsWith("VmRSS:")) {
            return line.mid(6).trimmed().split(' ').first().toLongLong();
        }
    }
    return -1;
}

// This process's children (the servers it started) by name, their CPU seconds summed.
QMap<QString, double> childrenCpu()
{
    QMap<QString, double> out;
    const QByteArray self = QByteArray::number(qint64(getpid()));
    for (const QString& entry : QDir(QStringLiteral("/proc")).entryList(QDir::Dirs)) {
        bool number = false;
        const qint64 pid = entry.toLongLong(&number);
        if (!number) {
            continue;
        }
        const QByteArray stat = readProc(QStringLiteral("/proc/%1/stat").arg(pid));
        const QList<QByteArray> fields = statFields(stat);
        if (fields.size() > 1 && fields[1] == self) {
            const int open = stat.indexOf('(');
            const QString name = QString::fromUtf8(stat.mid(open + 1, stat.lastIndexOf(')') - open - 1));
            out[name] += cpuSeconds(pid);
        }
    }
    return out;
}

// The id of this process's thread of that name (as the kernel keeps it, 15 bytes), or 0.
qint64 threadNamed(const QByteArray& name)
{
    for (const QString& entry : QDir(QStringLiteral("/proc/self/task")).entryList(QDir::Dirs)) {
        if (readProc(QStringLiteral("/proc/self/task/%1/comm").arg(entry)).trimmed() == name.left(15)) {
            return entry.toLongLong();
        }
    }
    return 0;
}

// A thread's time on a CPU so far, in ns (exact for a thread that sleeps).
qint64 threadRuntimeNs(qint64 tid)
{
    return readProc(QStringLiteral("/proc/self/task/%1/schedstat").arg(tid)).split(' ').first().toLongLong();
}

// What the screen shows, on either path.
class BenchScreen
{
public:
    virtual ~BenchScreen() = default;
    virtual const char* label() const = 0;
    virtual void still(const QColor& colour) = 0;
    virtual void movingBar() = 0;    // a 640x360 bar moving across the middle
    virtual void wholeChanges() = 0; // every pixel a new colour every frame
    // The whole screen in colour, once; shownNs() is when it went out (0 until known).
    virtual void show(const QColor& colour) = 0;
    virtual qint64 shownNs() const = 0;
};

// The portal simulator as a program of its own, so that its CPU and memory are apart from ours.
class PortalScreen : public BenchScreen
{
public:
    bool start(const PrivatePipeWire& session)
    {
        QObject::connect(&simulator, &QProcess::readyReadStandardOutput, [this] { read(); });
        simulator.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        simulator.start(QStringLiteral(ORVANTA_PORTALSIM),
                        {QStringLiteral("--bus"), session.busAddress(), QStringLiteral("--pipewire"),
                         session.socketPath(), QStringLiteral("--monitor"),
                         QStringLiteral("id=DP-1,w=1920,h=1080,fill=#000000")});
        return spinUntil([this] { return ready || simulator.state() == QProcess::NotRunning; }, 15000) &&
               ready;
    }
    ~PortalScreen() override
    {
        simulator.kill();
        simulator.waitForFinished(5000);
    }
    const char* label() const override { return "Wayland (portal, PipeWire)"; }
    void still(const QColor& colour) override { command(QStringLiteral("fill 0 ") + colour.name()); }
    void movingBar() override { command(QStringLiteral("bar 0 #202020 #f0f0f0 640 360")); }
    void wholeChanges() override { command(QStringLiteral("changing 0")); }
    void show(const QColor& colour) override
    {
        queued = 0;
        simulator.write(QStringLiteral("fill 0 %1\n").arg(colour.name()).toLatin1());
    }
    qint64 shownNs() const override { return queued; }

private:
    void command(const QString& line)
    {
        queued = 0;
        simulator.write((line + QLatin1Char('\n')).toLatin1());
        spinUntil([this] { return queued != 0; }, 3000);
    }
    void read()
    {
        input += simulator.readAllStandardOutput();
        for (int end = input.indexOf('\n'); end >= 0; end = input.indexOf('\n')) {
            const QByteArray line = input.left(end);
            input.remove(0, end + 1);
            ready = ready || line == "ready";
            if (line.startsWith("queued 0 ")) {
                queued = line.mid(9).toLongLong();
            }
        }
    }

    QProcess simulator;
    QByteArray input;
    bool ready = false;
    qint64 queued = 0;
};

class XScreen : public BenchScreen
{
public:
    explicit XScreen(ScreenPainter& painter)
        : painter(painter)
    {
        repaint.setInterval(33);
        QObject::connect(&repaint, &QTimer::timeout, [this] { step(); });
    }
    const char* label() const override { return "X11 (Xvfb, mode 0)"; }
    void still(const QColor& colour) override
    {
        repaint.stop();
        painter.paint(whole, {{whole, colour}});
    }
    void movingBar() override
    {
        still(QColor(0x20, 0x20, 0x20));
        scene = Bar;
        repaint.start();
    }
    void wholeChanges() override
    {
        scene = Whole;
        repaint.start();
    }
    void show(const QColor& colour) override
    {
        still(colour);
        confirmed = steadyNs(); // the server has drawn it
    }
    qint64 shownNs() const override { return confirmed; }

private:
    enum Scene
    {
        Bar,
        Whole,
    };
    void step()
    {
        ++phase;
        if (scene == Whole) {
            painter.paint(whole, {{whole, QColor::fromHsv(phase * 37 % 360, 255, 255)}});
            return;
        }
        // The bar's old place and its new one, as a video player redraws.
        const int stepPx = 30;
        const int x = phase * stepPx % (screen.width() - 640 - stepPx);
        const QRect area(x, 360, 640 + stepPx, 360);
        painter.paint(area, {{QRect(QPoint(), area.size()), QColor(0x20, 0x20, 0x20)},
                             {QRect(stepPx, 0, 640, 360), QColor(0xf0, 0xf0, 0xf0)}});
    }

    ScreenPainter& painter;
    QTimer repaint;
    Scene scene = Bar;
    int phase = 0;
    qint64 confirmed = 0;
};

// Full screen on a 300-LED strip, counting the frames that reach it.
struct Strip
{
    EffectsManager effects;
    DeviceRig rig;
    int frames = 0;

    bool bind()
    {
        ControlOptions options = DeviceRig::defaultOptions(300);
        options.lines = {75, 150, 75};
        if (!rig.start(options)) {
            return false;
        }
        rig.device.setKeepFrames(false);
        QObject::connect(&rig.device, &VirtualLedDevice::frameReceived, [this] { ++frames; });
        effects.bind(rig.controller, QStringLiteral("com.orvanta.screenSync.fullScreen"));
        return true;
    }
    void unbind() { effects.unbind(rig.controller->controlOptions().id); }
};

// (a) on the portal path: the PipeWire loop thread's CPU at each wake-up (the process callback
// averaging the newest buffer into the slot, with PipeWire's own handling of the cycle), told
// apart by the idle gaps between frames.
void callbackCost(BenchScreen& shown)
{
    shown.wholeChanges();
    spin(2000);
    const qint64 tid = threadNamed("orvanta-screencast");
    if (tid == 0) {
        std::printf("    %s: no PipeWire loop thread\n", shown.label());
        return;
    }
    std::vector<double> us;
    std::atomic<bool> done{false};
    std::thread poller([&] {
        qint64 last = threadRuntimeNs(tid);
        qint64 burst = 0;
        qint64 changed = steadyNs();
        while (us.size() < 310) {
            std::this_thread::sleep_for(std::chrono::microseconds(500));
            const qint64 now = steadyNs();
            const qint64 runtime = threadRuntimeNs(tid);
            if (runtime != last) {
                burst += runtime - last;
                last = runtime;
                changed = now;
            } else if (burst > 0 && now - changed > 8000000) {
                us.push_back(double(burst) / 1e3);
                burst = 0;
            }
        }
        done = true;
    });
    QElapsedTimer clock;
    clock.start();
    spinUntil([&] { return done.load(); }, 60000);
    if (!done) {
        std::printf("    %s: fewer than 310 wake-ups in 60 s\n", shown.label());
        poller.detach(); // it ends with the process
        return;
    }
    poller.join();
    us.erase(us.begin(), us.begin() + 10);
    std::printf("    %s, loop thread CPU a frame: median %.0f us, p95 %.0f us (300 wake-ups in %.1f s)\n",
                shown.label(), quantile(us, 0.5), quantile(us, 0.95), clock.elapsed() / 1000.0 * 300 / 310);
}

// (a) on the X11 path: one grab's thread CPU, the screen changed everywhere before each.
void grabCost(const QString& display, ScreenPainter& painter)
{
    std::unique_ptr<DeskFrameGrabberX11> grabber(DeskFrameGrabberX11::open(display));
    if (!grabber) {
        std::printf("    X11: no grabber\n");
        return;
    }
    for (int mode : {0, 1}) {
        std::vector<double> us;
        QImage frame;
        for (int i = 0; i < 310; ++i) {
            painter.paint(whole, {{whole, i % 2 ? Qt::red : Qt::blue}});
            timespec t0{}, t1{};
            clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t0);
            grabber->grab(whole, QSize(120, 67), mode, &frame);
            clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t1);
            if (i >= 10) {
                us.push_back(double(t1.tv_sec - t0.tv_sec) * 1e6 + double(t1.tv_nsec - t0.tv_nsec) / 1e3);
            }
        }
        std::printf("    X11 (Xvfb) mode %d, thread CPU a grab: median %.0f us, p95 %.0f us\n", mode,
                    quantile(us, 0.5), quantile(us, 0.95));
    }
}

// (b) % of a core of this process and of each server it started, over each scene.
void sceneCpu(BenchScreen& shown, Strip& strip, int seconds)
{
    struct Scene
    {
        const char* name;
        std::function<void()> set;
    };
    const Scene scenes[] = {{"still picture", [&] { shown.still(QColor(40, 90, 160)); }},
                            {"640x360 moving bar", [&] { shown.movingBar(); }},
                            {"whole frame changing", [&] { shown.wholeChanges(); }}};
    for (const Scene& scene : scenes) {
        scene.set();
        spin(2000);
        const double before = cpuSeconds(getpid());
        const QMap<QString, double> others = childrenCpu();
        const int frames = strip.frames;
        QElapsedTimer clock;
        clock.start();
        spin(seconds * 1000);
        const double elapsed = clock.elapsed() / 1000.0;
        QString servers;
        const QMap<QString, double> after = childrenCpu();
        for (auto it = after.begin(); it != after.end(); ++it) {
            servers += QStringLiteral("; %1 %2 %")
                           .arg(it.key())
                           .arg((it.value() - others.value(it.key())) / elapsed * 100.0, 0, 'f', 2);
        }
        std::printf("    %s, %s: the program %.2f %% of a core (strip at %.1f fps)%s\n", shown.label(),
                    scene.name, (cpuSeconds(getpid()) - before) / elapsed * 100.0,
                    (strip.frames - frames) / elapsed, qPrintable(servers));
    }
}

// (c) the frame going out (queued by the simulator, or drawn and confirmed by the X server) to
// the first device frame with its colour.
void latency(BenchScreen& shown, Strip& strip)
{
    QColor wanted;
    qint64 first = 0;
    QObject receiver;
    QObject::connect(&strip.rig.device, &VirtualLedDevice::frameReceived, &receiver, [&] {
        const auto leds = strip.rig.device.lastColors();
        if (first == 0 && leds.size() > 30 && leds[30].r == wanted.red() && leds[30].b == wanted.blue()) {
            first = strip.rig.device.lastFrameTimeNs();
        }
    });
    std::vector<double> ms;
    for (int i = 0; i < 52; ++i) {
        spin(100 + QRandomGenerator::global()->bounded(34)); // a random phase against the capture
        wanted = i % 2 ? QColor(0, 0, 255) : QColor(255, 0, 0);
        first = 0;
        shown.show(wanted);
        if (spinUntil([&] { return first != 0 && shown.shownNs() != 0; }, 2000) && i >= 2) {
            ms.push_back(double(first - shown.shownNs()) / 1e6);
        }
    }
    std::printf("    %s: median %.1f ms (%.2f frame periods), p95 %.1f ms (%.2f periods); %zu of 50 changes "
                "seen\n",
                shown.label(), quantile(ms, 0.5), quantile(ms, 0.5) / kPeriodMs, quantile(ms, 0.95),
                quantile(ms, 0.95) / kPeriodMs, ms.size());
}

// (d) resident memory while every frame changes.
void memory(BenchScreen& shown, const Durations& durations)
{
    shown.wholeChanges();
    QString samples;
    qint64 afterFirstMinute = -1;
    qint64 last = 0;
    for (int s = 0; s <= durations.memorySeconds; s += durations.memoryStep) {
        if (s > 0) {
            spin(durations.memoryStep * 1000);
        }
        last = residentKb(getpid());
        if (afterFirstMinute < 0 && s >= std::min(60, durations.memorySeconds / 2)) {
            afterFirstMinute = last;
        }
        samples += QStringLiteral(" %1").arg(last / 1024.0, 0, 'f', 1);
    }
    std::printf("    %s, resident MB every %d s:%s; growth after %d s: %+.2f MB\n", shown.label(),
                durations.memoryStep, qPrintable(samples), std::min(60, durations.memorySeconds / 2),
                (last - afterFirstMinute) / 1024.0);
}

void runSection(char section, BenchScreen& shown, Strip& strip, const Durations& durations)
{
    switch (section) {
    case 'a':
        callbackCost(shown);
        break;
    case 'b':
        sceneCpu(shown, strip, durations.sceneSeconds);
        break;
    case 'c':
        latency(shown, strip);
        break;
    case 'd':
        memory(shown, durations);
        break;
    default:
        break;
    }
}

// One section's X11 row, in a run of this program of its own (one screen backend a process).
int x11Row(char section, const Durations& durations)
{
    PrivateXServer server;
    if (!server.start()) {
        std::printf("    X11: no X server: %s\n", qPrintable(server.errorString()));
        return 1;
    }
    qputenv("DISPLAY", server.display().toLocal8Bit());
    qputenv("WAYLAND_DISPLAY", "");
    ScreenPainter painter;
    painter.open(server.display());
    painter.paint(whole, {{whole, Qt::black}});
    XScreen shown(painter);
    if (section == 'a') {
        grabCost(server.display(), painter);
        return 0;
    }
    DeskDuplManager::instance()->option()->setCurMode(0);
    {
        Strip strip;
        if (!strip.bind()) {
            std::printf("    X11: no virtual device\n");
            return 1;
        }
        spin(2000);
        runSection(section, shown, strip, durations);
        strip.unbind();
    }
    DeskDuplManager::instance()->shutdown();
    return 0;
}

} // namespace

int waylandBench(const QStringList& arguments)
{
    Durations durations;
    if (arguments.contains(QStringLiteral("--quick"))) {
        durations = {10, 60, 10};
    }
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    const int row = arguments.indexOf(QStringLiteral("--x11-row"));
    if (row >= 0) {
        const QString section = arguments.value(row + 1);
        return x11Row(section.isEmpty() ? '?' : section.at(0).toLatin1(), durations);
    }

    PrivatePipeWire session;
    if (!session.start()) {
        std::printf("no PipeWire: %s\n", qPrintable(session.errorString()));
        return 1;
    }
    PortalScreen shown;
    if (!shown.start(session)) {
        std::printf("no portal simulator\n");
        return 1;
    }
    qputenv("DBUS_SESSION_BUS_ADDRESS", session.busAddress().toLocal8Bit());
    qputenv("WAYLAND_DISPLAY", "wayland-orvanta-bench");
    qputenv("DISPLAY", "");
    auto strip = std::make_unique<Strip>();
    if (!strip->bind() ||
        !spinUntil([] { return !DeskDuplManager::instance()->allCapturer().isEmpty(); }, 15000)) {
        std::printf("no screen shared through the portal\n");
        return 1;
    }
    spin(2000);

    const QString headings[] = {
        QStringLiteral(
            "(a) CPU a frame: the process callback averaging the newest 1920x1080 buffer to 120x67 "
            "(300 frames); X11 grabs beside"),
        QStringLiteral(
            "(b) % of a core over %1 s a scene, full screen on 300 LEDs at up to 30 fps: the program "
            "(its virtual device's reading included), the servers apart")
            .arg(durations.sceneSeconds),
        QStringLiteral(
            "(c) a frame going out (queued by the simulator; confirmed by the X server) to the first "
            "device frame with its colour, 50 changes"),
        QStringLiteral("(d) resident memory over %1 s of whole-frame change").arg(durations.memorySeconds)};
    for (char section : {'a', 'b', 'c', 'd'}) {
        std::printf("%s\n", qPrintable(headings[section - 'a']));
        runSection(section, shown, *strip, durations);
        shown.still(Qt::black); // quiet while the X11 row runs
        QProcess x11;
        x11.setProcessChannelMode(QProcess::ForwardedChannels);
        QStringList args{QStringLiteral("--x11-row"), QString(QLatin1Char(section))};
        if (arguments.contains(QStringLiteral("--quick"))) {
            args << QStringLiteral("--quick");
        }
        x11.start(QCoreApplication::applicationFilePath(), args);
        spinUntil([&] { return x11.state() == QProcess::NotRunning; }, 3600 * 1000);
    }
    strip->unbind();
    strip.reset();
    DeskDuplManager::instance()->shutdown();
    return 0;
}
