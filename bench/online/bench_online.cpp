// Prints what the update costs the program, against servicesim in a process of its own that
// serves a real 200 MB package (a random payload, built with dpkg-deb -Znone) over loopback TLS:
//  - resident memory growth during the check and the download (peak VmRSS every 100 ms, less the
//    level before), against 10 MB;
//  - the download's throughput, against 50 MB/s;
//  - the longest delay of a 10 ms timer on the main loop meanwhile, against 50 ms;
//  - checkVersion to hasNewAppVersion, median of 20 fresh managers, against 100 ms.
// Everything runs in private folders that go at the end.
#include "../BenchSpin.h"
#include "service/net/NetRCManager.h"
#include "service/net/ServiceHttp.h"

#include <QCoreApplication>
#include <QCryptographicHash>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QTimer>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <thread>

namespace {

constexpr qint64 kPayloadBytes = 200LL * 1000 * 1000;
const QString kRunning = QStringLiteral("0.2.0.230805");
const QString kNewer = QStringLiteral("0.2.0.230901");

qint64 residentKiB()
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly)) {
        return 0;
    }
    for (const QByteArray& line : status.readAll().split('\n')) {
        if (line.startsWith("VmRSS:")) {
            return line.mid(6).trimmed().split(' ').value(0).toLongLong();
        }
    }
    return 0;
}

// The highest VmRSS seen, sampled every 100 ms on a thread of its own.
class RssSampler
{
public:
    RssSampler()
        : thread([this] {
            while (!stop) {
                peak = std::max<qint64>(peak, residentKiB());
                std::this_thread::sleep_for(std::chrono::milliseconds(100));
            }
        })
    {
    }
    ~RssSampler()
    {
        stop = true;
        thread.join();
    }
    qint64 peakKiB() const { return peak; }

private:
    std::atomic<bool> stop{false};
    std::atomic<qint64> peak{0};
    std::thread thread;
};

bool buildPackage(const QString& root, QString* path)
{
    const QString tree = root + QStringLiteral("/tree");
    QDir().mkpath(tree + QStringLiteral("/DEBIAN"));
    QDir().mkpath(tree + QStringLiteral("/usr/share/orvanta-bench"));
    QFile control(tree + QStringLiteral("/DEBIAN/control"));
    if (!control.open(QIODevice::WriteOnly)) {
        return false;
    }
    control.write("Package: orvanta\nVersion: " + kNewer.toUtf8() +
                  "\nArchitecture: all\nMaintainer: Bench <bench@orvanta.example>\nDescription: bench\n");
    control.close();
    QFile payload(tree + QStringLiteral("/usr/share/orvanta-bench/payload"));
    if (!payload.open(QIODevice::WriteOnly)) {
        return false;
    }
    QByteArray block(1 << 20, '\0');
    for (qint64 written = 0; written < kPayloadBytes; written += block.size()) {
        QRandomGenerator::global()->fillRange(reinterpret_cast<quint32*>(block.data()), block.size() / 4);
        payload.write(block.constData(), std::min<qint64>(block.size(), kPayloadBytes - written));
    }
    payload.close();
    const QString folder = root + QStringLiteral("/served/v1/linux-") + ServiceHttp::architecture();
    QDir().mkpath(folder);
    *path = folder + QStringLiteral("/orvanta_%1_%2.deb").arg(kNewer, ServiceHttp::architecture());
    return QProcess::execute(QStringLiteral("dpkg-deb"),
                             {QStringLiteral("--root-owner-group"), QStringLiteral("-Znone"),
                              QStringLiteral("--build"), tree, *path}) == 0;
}

} // namespace

int main(int argc, char* argv[])
{
    QTemporaryDir home;
    for (const char* name : {"XDG_CONFIG_HOME", "XDG_DATA_HOME", "XDG_CACHE_HOME"}) {
        qputenv(name, QFile::encodeName(home.filePath(QString::fromLatin1(name))));
    }
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationVersion(kRunning);

    QString package;
    std::printf("bench_online: building a %lld MB package...\n", kPayloadBytes / 1000000);
    std::fflush(stdout);
    if (!buildPackage(home.path(), &package)) {
        std::fprintf(stderr, "bench_online: dpkg-deb failed\n");
        return 1;
    }
    QFile::remove(home.filePath(QStringLiteral("tree/usr/share/orvanta-bench/payload")));
    const qint64 packageBytes = QFileInfo(package).size();

    QProcess service;
    service.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    service.start(QStringLiteral(SERVICESIM_PATH),
                  {QStringLiteral("--root"), home.filePath(QStringLiteral("served")),
                   QStringLiteral("--latest"), kNewer});
    QByteArray lines;
    if (!spinUntil([&] { return (lines += service.readAllStandardOutput()).count('\n') >= 2; }, 30000)) {
        std::fprintf(stderr, "bench_online: servicesim did not start\n");
        return 1;
    }
    for (const QByteArray& line : lines.split('\n')) {
        const int equals = line.indexOf('=');
        if (equals > 0) {
            qputenv(line.left(equals).constData(), line.mid(equals + 1));
        }
    }
    // servicesim logs every request on standard error: not here.
    service.setProcessChannelMode(QProcess::SeparateChannels);

    // checkVersion to hasNewAppVersion on fresh managers; the first pays for TLS and the CAs.
    QVector<qint64> checks;
    qint64 firstCheck = 0;
    for (int i = 0; i < 21; ++i) {
        NetRCManager net;
        bool newer = false;
        QObject::connect(&net, &NetRCManager::hasNewAppVersion, [&] { newer = true; });
        QElapsedTimer clock;
        clock.start();
        net.checkVersion();
        if (!spinUntil([&] { return newer; }, 30000)) {
            std::fprintf(stderr, "bench_online: no newer version announced\n");
            return 1;
        }
        if (i == 0) {
            firstCheck = clock.elapsed(); // TLS and the CAs, read once per process
        } else {
            checks.append(clock.elapsed());
        }
    }
    std::sort(checks.begin(), checks.end());

    NetRCManager net;
    bool newer = false;
    QObject::connect(&net, &NetRCManager::hasNewAppVersion, [&] { newer = true; });
    net.checkVersion();
    spinUntil([&] { return newer; }, 30000);
    bool landed = false;
    QObject::connect(&net, &NetRCManager::newInstallationFileDownloaded, [&] { landed = true; });

    QElapsedTimer probeClock;
    qint64 worstLateMs = 0;
    QTimer probe;
    probe.setTimerType(Qt::PreciseTimer);
    QObject::connect(&probe, &QTimer::timeout,
                     [&] { worstLateMs = std::max(worstLateMs, probeClock.restart() - 10); });
    const qint64 before = residentKiB();
    qint64 peak = 0;
    QElapsedTimer clock;
    {
        RssSampler sampler;
        probeClock.start();
        probe.start(10);
        clock.start();
        net.downloadLatestApp();
        const bool done = spinUntil([&] { return landed; }, 600000);
        probe.stop();
        peak = sampler.peakKiB();
        if (!done) {
            std::fprintf(stderr, "bench_online: the download did not land\n");
            return 1;
        }
    }
    const double seconds = clock.elapsed() / 1000.0;

    std::printf("bench_online: package %lld bytes, downloaded and verified in %.2f s\n", packageBytes,
                seconds);
    std::printf("  resident memory growth: %.1f MB (peak %.1f MB, before %.1f MB; target at most 10 MB)\n",
                (peak - before) / 1024.0, peak / 1024.0, before / 1024.0);
    std::printf("  throughput: %.1f MB/s (target at least 50 MB/s)\n", packageBytes / 1e6 / seconds);
    std::printf("  longest main-loop stall: %lld ms (target at most 50 ms)\n", worstLateMs);
    std::printf("  checkVersion to hasNewAppVersion: median %lld ms, fastest %lld, slowest %lld of %d fresh "
                "managers after a first one of %lld ms (target at most 100 ms)\n",
                checks[checks.size() / 2], checks.first(), checks.last(), int(checks.size()), firstCheck);
    service.terminate();
    service.waitForFinished(5000);
    return 0;
}
