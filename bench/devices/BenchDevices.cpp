// Prints, for several strip lengths, the main-thread cost of AbsRGBController::update (scaling,
// framing, hand-over to the port thread) and the latency from update() to the moment the virtual
// device has read the frame's last byte. Then, with 300 LEDs coming at 25 frames a second, the
// resident memory and the delay from update() to the device every 10 s for 60 s: for a device
// reading at full speed, and for one reading at the 11.5 kB/s of a 115200-baud line, half what the
// frames need. On a serial line the port writes a frame only when the kernel's output queue holds
// less than one; a pseudo-terminal reports no such queue, so the virtual device holds the port's
// output back while input waits unread, as flow control would, and one frame may wait behind the
// one on the line.
// "--slow-reader [seconds]" runs only the second part.
#include "VirtualLedDevice.h"
#include "devices/OVController.h"
#include "devices/OVSerialPort.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QSemaphore>
#include <QThread>
#include <QTimer>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <vector>

namespace {

qint64 nowNs()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// CPU time of the calling thread: the cost figure must not count time the thread spent preempted
// by the port and device threads on a small machine.
qint64 threadCpuNs()
{
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return qint64(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

void quietLoopLines(QtMsgType type, const QMessageLogContext&, const QString& msg)
{
    if (type == QtDebugMsg || type == QtInfoMsg || msg.startsWith(QLatin1String("[[loop]]"))) {
        return;
    }
    std::fprintf(stderr, "%s\n", qUtf8Printable(msg));
}

// Resident memory of this process, in MiB.
double residentMiB()
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly)) {
        return 0;
    }
    for (const QByteArray& line : status.readAll().split('\n')) {
        if (line.startsWith("VmRSS:")) {
            return line.mid(6).trimmed().split(' ').value(0).toDouble() / 1024.0;
        }
    }
    return 0;
}

QVector<OV_RGB> pattern(int n, int frame)
{
    QVector<OV_RGB> colors(n);
    for (int i = 0; i < n; ++i) {
        colors[i] = OV_RGB{uint8_t(i + frame), uint8_t(i * 3), uint8_t(255 - i)};
    }
    return colors;
}

// Frames queued faster than the link replace each other: wait until the device has gone quiet.
void drain(QSemaphore& arrived)
{
    while (arrived.tryAcquire(1, 100)) {
    }
}

struct Result
{
    double updateUs = 0;     // main-thread CPU time per update
    double updateWallUs = 0; // wall time per update
    double medianMs = 0;
    double p99Ms = 0;
    int frames = 0;
    int errors = 0;
};

Result run(int leds, int costFrames, int latencyFrames)
{
    QThread deviceThread;
    deviceThread.start();
    auto* device = new VirtualLedDevice();
    device->moveToThread(&deviceThread);
    bool opened = false;
    QMetaObject::invokeMethod(
        device, [device] { return device->open(); }, Qt::BlockingQueuedConnection, &opened);
    if (!opened) {
        std::fprintf(stderr, "cannot open the virtual device\n");
        std::exit(1);
    }
    QSemaphore arrived;
    std::atomic<qint64> arrivedNs{0};
    QObject::connect(
        device, &VirtualLedDevice::frameReceived, device,
        [device, &arrived, &arrivedNs] {
            arrivedNs.store(device->lastFrameTimeNs());
            arrived.release();
        },
        Qt::DirectConnection);

    auto* port = new OVSerialPort();
    if (!port->open(device->slavePath())) {
        std::exit(1);
    }
    ControlOptions options;
    options.model = QStringLiteral("OV5512");
    options.serial = QStringLiteral("BENCH");
    options.id = QStringLiteral("OV5512:BENCH");
    options.nbLeds = uint32_t(leds);
    options.lines = {uint32_t(leds)};
    options.brightness = 0.8f; // the scaling path, not the identity
    auto* controller = new OVController(options, port);
    controller->updateFrameHeader();

    Result r;
    // Cost: batches of updates, the device draining between them.
    const QVector<OV_RGB> a = pattern(leds, 1);
    const QVector<OV_RGB> b = pattern(leds, 2);
    const int batch = 200;
    for (int i = 0; i < 10; ++i) { // warm-up: allocator, caches, the port thread's first writes
        for (int j = 0; j < batch; ++j) {
            controller->update(a);
        }
        drain(arrived);
    }
    qint64 spentNs = 0;
    qint64 wallNs = 0;
    int sent = 0;
    while (sent < costFrames) {
        const qint64 c0 = threadCpuNs();
        const qint64 t0 = nowNs();
        for (int i = 0; i < batch; ++i) {
            controller->update((i & 1) ? a : b);
        }
        wallNs += nowNs() - t0;
        spentNs += threadCpuNs() - c0;
        sent += batch;
        drain(arrived);
    }
    r.updateUs = double(spentNs) / 1000.0 / sent;
    r.updateWallUs = double(wallNs) / 1000.0 / sent;

    // Latency: one frame at a time, from update() to the last byte read.
    std::vector<double> ms;
    ms.reserve(size_t(latencyFrames));
    for (int i = 0; i < latencyFrames; ++i) {
        const QVector<OV_RGB> colors = pattern(leds, i);
        const qint64 t0 = nowNs();
        controller->update(colors);
        arrived.acquire();
        ms.push_back(double(arrivedNs.load() - t0) / 1e6);
    }
    std::sort(ms.begin(), ms.end());
    r.medianMs = ms[ms.size() / 2];
    r.p99Ms = ms[std::min(ms.size() - 1, size_t(double(ms.size()) * 0.99))];

    delete controller; // its black frame is the last the device reads
    arrived.acquire();
    QMetaObject::invokeMethod(
        device,
        [device, &r] {
            r.frames = device->frameCount();
            r.errors = device->decodeErrors();
            delete device;
        },
        Qt::BlockingQueuedConnection);
    deviceThread.quit();
    deviceThread.wait();
    return r;
}

double percentile(std::vector<double> values, double p)
{
    if (values.empty()) {
        return 0;
    }
    std::sort(values.begin(), values.end());
    return values[std::min(values.size() - 1, size_t(double(values.size()) * p))];
}

// rate 0: the device reads at once.
void slowReader(int seconds, int rate)
{
    const int leds = 300;
    QThread deviceThread;
    deviceThread.start();
    auto* device = new VirtualLedDevice();
    device->moveToThread(&deviceThread);
    bool opened = false;
    QMetaObject::invokeMethod(
        device,
        [device, rate] {
            device->setReadRate(rate);
            return device->open();
        },
        Qt::BlockingQueuedConnection, &opened);
    auto* port = new OVSerialPort();
    if (!opened || !port->open(device->slavePath())) {
        std::fprintf(stderr, "cannot open the virtual device\n");
        std::exit(1);
    }
    ControlOptions options;
    options.id = QStringLiteral("OV5512:SLOW");
    options.nbLeds = uint32_t(leds);
    options.lines = {uint32_t(leds)};
    options.brightness = 1.0f;
    auto* controller = new OVController(options, port);
    controller->updateFrameHeader();

    // The first LED carries the frame's number, so each arrival finds its own send time.
    std::vector<qint64> sentNs;
    std::vector<double> windowMs;
    std::vector<double> lastWindowMs;
    int received = 0;
    QObject::connect(device, &VirtualLedDevice::frameReceived, device,
                     [device, &sentNs, &windowMs, &received] {
                         const VirtualLedDevice::Rgb first = device->lastColors().value(0);
                         const size_t seq = size_t(first.r) << 8 | first.g;
                         const qint64 at = device->lastFrameTimeNs();
                         QMetaObject::invokeMethod(qApp, [seq, at, &sentNs, &windowMs, &received] {
                             if (seq < sentNs.size()) {
                                 windowMs.push_back(double(at - sentNs[seq]) / 1e6);
                                 ++received;
                             }
                         });
                     });

    std::printf("\n%d LEDs at 25 frames/s, device reading %s\n", leds,
                rate == 0 ? "at full speed" : qPrintable(QStringLiteral("%1 bytes/s").arg(rate)));
    std::printf("%6s %10s %10s %10s %12s %12s\n", "time", "RSS", "sent", "received", "delay med",
                "delay p95");
    const double startMiB = residentMiB();
    QElapsedTimer clock;
    clock.start();
    QTimer frames;
    QObject::connect(&frames, &QTimer::timeout, [&] {
        QVector<OV_RGB> colors = pattern(leds, int(sentNs.size()));
        colors[0] = OV_RGB{uint8_t(sentNs.size() >> 8), uint8_t(sentNs.size()), 0};
        sentNs.push_back(nowNs());
        controller->update(colors);
    });
    frames.start(40);
    QTimer report;
    QObject::connect(&report, &QTimer::timeout, [&] {
        std::printf("%5llds %7.1f MiB %10zu %10d %9.1f ms %9.1f ms\n",
                    static_cast<long long>(clock.elapsed() / 1000), residentMiB(), sentNs.size(), received,
                    percentile(windowMs, 0.5), percentile(windowMs, 0.95));
        std::fflush(stdout);
        lastWindowMs.swap(windowMs);
        windowMs.clear();
        if (clock.elapsed() >= seconds * 1000LL) {
            frames.stop();
            QCoreApplication::quit();
        }
    });
    report.start(10000);
    QCoreApplication::exec();
    std::printf("after %d s: delay median %.1f ms, p95 %.1f ms (a frame period is 40 ms); resident memory "
                "%.1f MiB at the start, %.1f MiB at the end\n",
                seconds, percentile(lastWindowMs, 0.5), percentile(lastWindowMs, 0.95), startMiB,
                residentMiB());

    delete controller;
    QMetaObject::invokeMethod(
        device, [device] { delete device; }, Qt::BlockingQueuedConnection);
    deviceThread.quit();
    deviceThread.wait();
    // Arrivals still posted here point at this run's counters: they go before the counters do.
    QCoreApplication::sendPostedEvents();
}

void slowReaders(int seconds)
{
    slowReader(seconds, 0);
    slowReader(seconds, 11520);
}

} // namespace

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    qInstallMessageHandler(quietLoopLines);
    const QStringList args = QCoreApplication::arguments();
    const int slowIndex = args.indexOf(QStringLiteral("--slow-reader"));
    if (slowIndex > 0) {
        slowReaders(qMax(10, args.value(slowIndex + 1, QStringLiteral("60")).toInt()));
        return 0;
    }
    const int costFrames = 20000;
    const int latencyFrames = 2000;
    std::printf("%6s %12s %12s %14s %12s %8s %7s\n", "LEDs", "update cpu", "update wall", "latency med",
                "latency p99", "frames", "errors");
    for (int leds : {60, 300, 1000}) {
        const Result r = run(leds, costFrames, latencyFrames);
        std::printf("%6d %9.2f us %9.2f us %11.3f ms %9.3f ms %8d %7d\n", leds, r.updateUs, r.updateWallUs,
                    r.medianMs, r.p99Ms, r.frames, r.errors);
        std::fflush(stdout);
    }
    slowReaders(60);
    return 0;
}
