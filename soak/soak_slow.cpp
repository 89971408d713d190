// soak_slow SECONDS: one 300-LED strip that reads 11.5 kB a second, slower than the frames come,
// driven by the real program (its soak driver shows a new single colour every 500 ms). For each
// colour the delay from the program's change to the strip's first frame of it is measured; at
// each checkpoint the delays of the period and the program's resident memory are printed. The
// newest frame must win over the old ones: the delay stays flat, every colour arrives, and none
// after a newer one. On a pseudo-terminal the kernel takes some 20 kB the program cannot see, so
// the delay settles near 1.7 s there; a serial line reports its queue and keeps it short.
#include "ProcessProbe.h"
#include "ProgramRun.h"
#include "SoakClock.h"
#include "SoakOptions.h"
#include "SoakReport.h"
#include "SoakSandbox.h"
#include "SoakStore.h"

#include "PrivateXServer.h"
#include "VirtualLedDevice.h"

#include <QCoreApplication>
#include <QJsonArray>

#include <algorithm>
#include <deque>
#include <signal.h>

namespace {

constexpr int kLeds = 300;
constexpr int kBytesPerSecond = 11500;
constexpr int kColourMissingMs = 10000; // a colour not shown by then never was
constexpr qint64 kGrowthMs = 1000;      // more than this on the first period's delay is growth
constexpr qint64 kRssGrowthKb = 1024;

struct Pending
{
    qint64 ns;
    VirtualLedDevice::Rgb colour;
};

qint64 median(std::vector<qint64> values)
{
    if (values.empty()) {
        return -1;
    }
    std::nth_element(values.begin(), values.begin() + long(values.size() / 2), values.end());
    return values.at(values.size() / 2);
}

} // namespace

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    SoakOptions options;
    if (!options.parse(app, QStringLiteral("seconds"), 600)) {
        return 2;
    }
    SoakReport report(QStringLiteral("soak_slow"));
    report.line(QStringLiteral("%1 s, program %2%3")
                    .arg(options.length)
                    .arg(options.program, options.fault.isEmpty() ? QString() : ", fault " + options.fault));

    SoakSandbox sandbox(QStringLiteral("slow"));
    PrivateXServer xserver({}, QStringLiteral("640x480x24"));
    VirtualLedDevice device;
    device.setReply("OV5512,SLOW\r\n");
    device.setReadRate(kBytesPerSecond);
    const QString id = QStringLiteral("OV5512:534C4F57");
    SoakStore::writeJson(sandbox.storeDir() + '/' + SoakStore::controllerFile(id),
                         {{"kindName", "slow"},
                          {"brightness", 1.0},
                          {"nbLeds", double(kLeds)},
                          {"lines", QJsonArray{75, 150, 75}}});
    if (!sandbox.isValid() || !xserver.start() || !device.open(sandbox.portLink(QStringLiteral("strip")))) {
        report.broken(QStringLiteral("the harness did not start: ") + xserver.errorString() +
                      device.errorString());
        return report.finish();
    }
    QProcessEnvironment environment = sandbox.environment(xserver.display(), QString());
    if (!options.fault.isEmpty()) {
        environment.insert(QStringLiteral("ORVANTA_SOAK_FAULT"), options.fault);
    }
    ProgramRun program(options.program, environment);

    // Colours the driver set and the strip has not shown yet, oldest first; a newer one shown
    // first means the older ones were rightly skipped.
    std::deque<Pending> pending;
    std::vector<qint64> delays; // of the current period, ms
    int shown = 0;
    VirtualLedDevice::Rgb current;             // the colour shown last
    std::deque<VirtualLedDevice::Rgb> history; // those shown before it
    int outOfOrder = 0;
    int missing = 0;
    QObject::connect(&program, &ProgramRun::driverLine, [&](const QByteArray& line) {
        const QList<QByteArray> parts = line.split(' ');
        if (parts.size() == 6 && parts.at(2) == "colour") {
            pending.push_back(
                {parts.at(1).toLongLong(),
                 {uint8_t(parts.at(3).toInt()), uint8_t(parts.at(4).toInt()), uint8_t(parts.at(5).toInt())}});
        }
    });
    QObject::connect(&device, &VirtualLedDevice::frameReceived, [&] {
        if (device.lastCount() != kLeds) {
            return;
        }
        const VirtualLedDevice::Rgb first = device.lastColors().value(0);
        // An older colour after a newer one: frames overtook each other.
        if (!(first == current) && std::find(history.begin(), history.end(), first) != history.end()) {
            ++outOfOrder;
        }
        for (auto it = pending.begin(); it != pending.end(); ++it) {
            if (it->colour == first) {
                delays.push_back((device.lastFrameTimeNs() - it->ns) / 1000000);
                ++shown;
                history.push_back(current);
                if (history.size() > 20) {
                    history.pop_front();
                }
                current = first;
                pending.erase(pending.begin(), it + 1);
                break;
            }
        }
    });
    if (!program.start({QStringLiteral("--soak-driver"), QStringLiteral("colours")})) {
        report.broken(QStringLiteral("the program did not start"));
        return report.finish();
    }
    if (!SoakClock::waitFor([&] { return shown > 0 || !program.isRunning(); }, 60000) || shown == 0) {
        report.broken(QStringLiteral("the strip never showed a colour of the driver (%1 frames)")
                          .arg(device.frameCount()));
        return report.finish();
    }
    delays.clear();

    const int period = std::max(5, std::min(60, options.length / 4));
    qint64 firstMedian = -1;
    qint64 firstRss = -1;
    qint64 lastMedian = -1;
    qint64 worstMs = 0;
    qint64 rssGrowth = 0;
    for (int elapsed = period; elapsed <= options.length && !report.isBroken(); elapsed += period) {
        SoakClock::pause(period * 1000);
        if (!program.isRunning()) {
            report.broken(QStringLiteral("the program ended (%1)").arg(program.endText()));
            report.line(program.lastWords(20));
            break;
        }
        const qint64 now = SoakClock::nowNs();
        while (!pending.empty() && now - pending.front().ns > qint64(kColourMissingMs) * 1000000) {
            ++missing;
            pending.pop_front();
        }
        const qint64 m = median(delays);
        const qint64 worst = delays.empty() ? -1 : *std::max_element(delays.begin(), delays.end());
        const qint64 rss = ProcessProbe::residentKb(program.pid());
        const double framePeriodMs = device.frameRate() > 0 ? 1000.0 / device.frameRate() : -1;
        if (firstMedian < 0) {
            firstMedian = m;
        }
        // Memory counts from the end of the second period: the program's heap fills its first
        // ten megabytes or so over about 90 s of this load and stays there.
        if (elapsed <= 2 * period) {
            firstRss = rss;
        }
        lastMedian = m;
        worstMs = std::max(worstMs, worst);
        rssGrowth = rss - firstRss;
        report.line(
            QStringLiteral("%1 s: %2 colours shown, delay median %3 ms, worst %4 ms, frame period %5 ms, "
                           "%6 colours never shown, resident %7 kB (%8)")
                .arg(elapsed)
                .arg(delays.size())
                .arg(m)
                .arg(worst)
                .arg(framePeriodMs, 0, 'f', 1)
                .arg(missing)
                .arg(rss)
                .arg(rssGrowth));
        if (delays.empty()) {
            report.broken(QStringLiteral("no colour reached the strip in %1 s").arg(period));
        }
        if (outOfOrder > 0) {
            report.broken(
                QStringLiteral("%1 frames showed an older colour after a newer one").arg(outOfOrder));
        }
        if (missing > 0) {
            report.broken(QStringLiteral("%1 colours never reached the strip within %2 s")
                              .arg(missing)
                              .arg(kColourMissingMs / 1000));
        }
        if (m > std::max(2 * firstMedian, firstMedian + kGrowthMs)) {
            report.broken(QStringLiteral("the delay grew from %1 ms to %2 ms").arg(firstMedian).arg(m));
        }
        delays.clear();
    }
#ifndef ORVANTA_SANITIZED
    // Over the whole run: a step now and then is the allocator's, a slope is a leak.
    if (rssGrowth > kRssGrowthKb) {
        report.broken(QStringLiteral("resident memory grew by %1 kB").arg(rssGrowth));
    }
#endif
    report.figure(QStringLiteral("delay_start_ms"), QString::number(firstMedian));
    report.figure(QStringLiteral("delay_end_ms"), QString::number(lastMedian));
    report.figure(QStringLiteral("delay_worst_ms"), QString::number(worstMs));
    report.figure(QStringLiteral("frame_period_ms"),
                  QString::number(device.frameRate() > 0 ? 1000.0 / device.frameRate() : -1, 'f', 1));
    report.figure(QStringLiteral("resident_kb"), QString::number(rssGrowth));
    program.signal(SIGTERM);
    if (!program.finish(30000)) {
        report.broken(
            QStringLiteral("the program did not end cleanly on SIGTERM (%1)").arg(program.endText()));
    }
    if (!program.faults().isEmpty()) {
        report.broken(QStringLiteral("the sanitizers reported:\n") + QString::fromUtf8(program.faults()));
    }
    if (report.isBroken() && options.fault.isEmpty()) { // a fault run breaks on purpose
        sandbox.keep();
        report.line(QStringLiteral("sandbox kept: ") + sandbox.path());
    }
    return report.finish();
}
