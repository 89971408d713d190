// soak_unplug N: four virtual strips on the real program, one effect of each group on them
// (screen sync on a private X server with a moving picture, music on a private sound server
// playing a tone), and N times one strip unplugged at a random moment and plugged back after a
// random pause: some while the program salutes it, some within the program's settle time, one
// strip always in the middle of a frame (it reads slowly). After each return the strip must get
// frames again, with its stored layout (and its stored colour, for the single colour one), and the
// others must have gone on. After a warm-up and then every 100 cycles, the program's descriptors,
// threads, resident memory (not under the sanitizers) and the store's files are held against the
// warm-up's.
#include "ProcessProbe.h"
#include "ProgramRun.h"
#include "SoakClock.h"
#include "SoakOptions.h"
#include "SoakReport.h"
#include "SoakSandbox.h"
#include "SoakStore.h"

#include "PrivateSoundServer.h"
#include "PrivateXServer.h"
#include "ScreenPainter.h"
#include "TonePlayer.h"
#include "VirtualLedDevice.h"

#include <QCoreApplication>
#include <QJsonArray>
#include <QTimer>

#include <algorithm>
#include <memory>
#include <numeric>
#include <signal.h>

namespace {

constexpr int kSettleMs = 500;        // the program's wait after a port appears
constexpr int kReturnTargetMs = 1000; // frames again within this after the settle
constexpr int kReturnWaitMs = 10 * (kSettleMs + kReturnTargetMs);
constexpr int kCheckEvery = 100;
constexpr qint64 kRssGrowthKb = 2048;

struct Strip
{
    VirtualLedDevice device;
    QString link;
    QString id;
    QString effect;
    uint32_t nbLeds = 0;
    QVector<uint32_t> lines;
    double brightness = 1.0;
    QColor colour; // the single colour's, when that is the effect
    // Set by the first frame after a return.
    bool awaiting = false;
    qint64 firstFrameNs = 0;
};

struct Sample
{
    int descriptors = -1;
    int threads = -1;
    qint64 residentKb = -1;
    int files = -1;
};

QString pick(QRandomGenerator& random, const QStringList& from)
{
    return from.at(int(random.bounded(from.size())));
}

// What the strip shows for a colour at a brightness: truncated, as the controller scales.
VirtualLedDevice::Rgb scaled(const QColor& colour, double brightness)
{
    const float b = float(brightness);
    return {uint8_t(int(float(colour.red()) * b)), uint8_t(int(float(colour.green()) * b)),
            uint8_t(int(float(colour.blue()) * b))};
}

} // namespace

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    SoakOptions options;
    if (!options.parse(app, QStringLiteral("cycles"), 1000)) {
        return 2;
    }
    SoakReport report(QStringLiteral("soak_unplug"));
    QRandomGenerator random(options.seed);
    report.line(QStringLiteral("%1 cycles, seed %2, program %3%4")
                    .arg(options.length)
                    .arg(options.seed)
                    .arg(options.program, options.fault.isEmpty() ? QString() : ", fault " + options.fault));

    SoakSandbox sandbox(QStringLiteral("unplug"));
    PrivateXServer xserver({}, QStringLiteral("1280x720x24"));
    PrivateSoundServer sound;
    TonePlayer tone;
    ScreenPainter painter;
    if (!sandbox.isValid() || !xserver.start() || !painter.open(xserver.display()) || !sound.start()) {
        report.broken(QStringLiteral("the harness did not start: ") + xserver.errorString() +
                      sound.errorString());
        return report.finish();
    }
    // A picture that moves, so that screen sync has something to follow.
    int phase = 0;
    QTimer mover;
    QObject::connect(&mover, &QTimer::timeout, [&] {
        ++phase;
        const QColor back = QColor::fromHsv((phase * 7) % 360, 200, 200);
        painter.paint(QRect(0, 0, 1280, 720),
                      {{QRect(0, 0, 1280, 720), back}, {QRect((phase * 40) % 1200, 0, 80, 720), Qt::white}});
    });
    mover.start(100);
    {
        sound.exportAddress();
        tone.start(sound.sinkName());
        tone.playTone(440.0, -12.0);
    }

    // One effect of each group, on the strips in a random order; each strip a layout of its own.
    QStringList effects{
        QStringLiteral("com.orvanta.singleColor.singleColor1"),
        pick(random, {"com.orvanta.colorful.flowingEffect", "com.orvanta.colorful.moodShadow",
                      "com.orvanta.colorful.ColorMap_3", "com.orvanta.colorful.ColorMap_6"}),
        pick(random, {"com.orvanta.screenSync.fullScreen", "com.orvanta.screenSync.cinemaScreen",
                      "com.orvanta.screenSync.topHalfScreen", "com.orvanta.screenSync.leftHalfScreen"}),
        pick(random, {"com.orvanta.dynamicMusic.mode_1", "com.orvanta.dynamicMusic.mode_2",
                      "com.orvanta.dynamicMusic.mode_3", "com.orvanta.dynamicMusic.mode_4"}),
    };
    std::shuffle(effects.begin(), effects.end(), random);
    const QVector<QVector<uint32_t>> layouts{{18, 36, 18}, {15, 30, 15}, {30, 30, 30}, {20, 80, 20}};
    std::vector<std::unique_ptr<Strip>> strips;
    for (int i = 0; i < 4; ++i) {
        auto strip = std::make_unique<Strip>();
        const QByteArray serial = "SOAK" + QByteArray::number(i);
        strip->device.setReply("OV5512," + serial + "\r\n");
        strip->id = QStringLiteral("OV5512:") + QString::fromLatin1(serial.toHex().toUpper());
        strip->link = sandbox.portLink(QStringLiteral("strip%1").arg(i));
        strip->effect = effects.at(i);
        strip->lines = layouts.at(i);
        strip->nbLeds = std::accumulate(strip->lines.begin(), strip->lines.end(), 0u);
        strip->brightness = (40 + 15 * i) / 100.0;
        QJsonArray lines;
        for (uint32_t n : qAsConst(strip->lines)) {
            lines.append(double(n));
        }
        SoakStore::writeJson(sandbox.storeDir() + '/' + SoakStore::controllerFile(strip->id),
                             {{"kindName", QStringLiteral("strip %1").arg(i)},
                              {"brightness", strip->brightness},
                              {"enable", true},
                              {"installDirection", 0},
                              {"workMode", strip->effect.left(strip->effect.lastIndexOf('.'))},
                              {"subMode", strip->effect},
                              {"nbLeds", double(strip->nbLeds)},
                              {"lines", lines}});
        if (strip->effect.contains(QLatin1String("singleColor"))) {
            strip->colour = QColor(200, 120, 40);
            SoakStore::writeJson(sandbox.storeDir() + '/' + SoakStore::effectFile(strip->effect),
                                 {{strip->id, QJsonObject{{"color", double(strip->colour.rgb())}}}});
        }
        // The first strip reads slower than the frames come: an unplug always cuts one short.
        if (i == 0) {
            strip->device.setReadRate(4000);
        }
        Strip* raw = strip.get();
        QObject::connect(&strip->device, &VirtualLedDevice::frameReceived, [raw] {
            if (raw->awaiting && raw->device.lastCount() == raw->nbLeds) {
                raw->awaiting = false;
                raw->firstFrameNs = raw->device.lastFrameTimeNs();
            }
        });
        if (!strip->device.open(strip->link)) {
            report.broken(QStringLiteral("cannot open a virtual strip: ") + strip->device.errorString());
            return report.finish();
        }
        report.line(QStringLiteral("%1: %2 LEDs, %3").arg(strip->id).arg(strip->nbLeds).arg(strip->effect));
        strips.push_back(std::move(strip));
    }

    QProcessEnvironment environment = sandbox.environment(xserver.display(), sound.address());
    if (!options.fault.isEmpty()) {
        environment.insert(QStringLiteral("ORVANTA_SOAK_FAULT"), options.fault);
    }
    ProgramRun program(options.program, environment);
    if (!program.start()) {
        report.broken(QStringLiteral("the program did not start"));
        return report.finish();
    }
    const auto streaming = [](Strip& s) {
        return s.device.frameCount() > 0 && s.device.lastCount() == s.nbLeds;
    };
    const auto showsColour = [](Strip& s) {
        const QVector<VirtualLedDevice::Rgb> leds = s.device.lastColors();
        return !s.colour.isValid() || (!leds.isEmpty() && leds.first() == scaled(s.colour, s.brightness));
    };
    if (!SoakClock::waitFor(
            [&] { return std::all_of(strips.begin(), strips.end(), [&](auto& s) { return streaming(*s); }); },
            30000)) {
        for (auto& s : strips) {
            report.line(QStringLiteral("%1: %2 frames, count %3")
                            .arg(s->id)
                            .arg(s->device.frameCount())
                            .arg(s->device.lastCount()));
        }
        report.broken(QStringLiteral("not every strip got frames with its stored layout at the start"));
        return report.finish();
    }

    const auto sample = [&] {
        SoakClock::pause(300);
        Sample s;
        for (int i = 0; i < 5; ++i) {
            const int fds = ProcessProbe::openDescriptors(program.pid());
            const int threads = ProcessProbe::threads(program.pid());
            s.descriptors = s.descriptors < 0 ? fds : std::min(s.descriptors, fds);
            s.threads = s.threads < 0 ? threads : std::min(s.threads, threads);
            SoakClock::pause(100);
        }
        s.residentKb = ProcessProbe::residentKb(program.pid());
        s.files = ProcessProbe::filesUnder(sandbox.storeDir());
        return s;
    };

    const int warmUp = std::min(kCheckEvery, std::max(1, options.length / 4));
    Sample base;
    qint64 slowestMs = 0;
    qint64 totalMs = 0;
    int returns = 0;
    QVector<qint64> returnTimesMs; // after the settle, for the tail of the spread
    for (int cycle = 1; cycle <= options.length && !report.isBroken(); ++cycle) {
        Strip& strip = *strips.at(size_t(random.bounded(4)));
        QVector<int> before;
        for (auto& s : strips) {
            before.append(s->device.frameCount());
        }
        // Unplugged at a random moment of its streaming.
        SoakClock::pause(int(random.bounded(600)));
        strip.device.close();
        QString how = QStringLiteral("plain");
        SoakClock::pause(int(random.bounded(800)));
        if (cycle % 3 == 1) {
            // Pulled while the program salutes it: the reply is late, the strip goes first.
            how = QStringLiteral("mid-handshake");
            strip.device.setReplyDelayMs(400);
            const int salutations = strip.device.salutations();
            strip.device.open(strip.link);
            if (SoakClock::waitFor([&] { return strip.device.salutations() > salutations; }, kReturnWaitMs)) {
                SoakClock::pause(int(random.bounded(300)));
            } else {
                how += QStringLiteral(" (never saluted)");
            }
            strip.device.close();
            strip.device.setReplyDelayMs(0);
            SoakClock::pause(int(random.bounded(500)));
        } else if (cycle % 5 == 2) {
            // Back and gone again within the program's settle time.
            how = QStringLiteral("within the settle");
            strip.device.open(strip.link);
            SoakClock::pause(int(random.bounded(50, 400)));
            strip.device.close();
            SoakClock::pause(int(random.bounded(300)));
        }
        strip.awaiting = true;
        const qint64 linkedNs = SoakClock::nowNs();
        if (!strip.device.open(strip.link)) {
            report.broken(QStringLiteral("cannot plug a strip back: ") + strip.device.errorString());
            break;
        }
        if (!SoakClock::waitFor([&] { return !strip.awaiting; }, kReturnWaitMs)) {
            report.broken(
                QStringLiteral("cycle %1 (%2): %3 got no frame with its %4 LEDs within %5 s of coming back")
                    .arg(cycle)
                    .arg(how, strip.id)
                    .arg(strip.nbLeds)
                    .arg(kReturnWaitMs / 1000));
            break;
        }
        const qint64 returnMs = (strip.firstFrameNs - linkedNs) / 1000000;
        slowestMs = std::max(slowestMs, returnMs - kSettleMs);
        totalMs += returnMs - kSettleMs;
        ++returns;
        returnTimesMs.append(returnMs - kSettleMs);
        if (!SoakClock::waitFor([&] { return showsColour(strip); }, 5000)) {
            report.broken(
                QStringLiteral("cycle %1: %2 came back without its stored colour").arg(cycle).arg(strip.id));
        }
        for (size_t i = 0; i < strips.size(); ++i) {
            Strip& other = *strips.at(i);
            if (&other != &strip &&
                !SoakClock::waitFor([&] { return other.device.frameCount() > before.at(int(i)); }, 5000)) {
                report.broken(QStringLiteral("cycle %1: %2 stopped getting frames while %3 was away")
                                  .arg(cycle)
                                  .arg(other.id, strip.id));
            }
        }
        if (!program.isRunning()) {
            report.broken(
                QStringLiteral("cycle %1: the program ended (%2)").arg(cycle).arg(program.endText()));
            report.line(program.lastWords(20));
            break;
        }
        if (cycle == warmUp || cycle % kCheckEvery == 0 || cycle == options.length) {
            const Sample now = sample();
            if (cycle == warmUp) {
                base = now;
            }
            const qint64 rssGrowth = now.residentKb - base.residentKb;
            report.line(
                QStringLiteral("checkpoint %1 (%2): descriptors %3 (%4), threads %5 (%6), resident %7 kB "
                               "(%8), store files %9 (%10), slowest return after the settle %11 ms")
                    .arg(cycle)
                    .arg(cycle == warmUp ? "warm-up" : how)
                    .arg(now.descriptors)
                    .arg(now.descriptors - base.descriptors, 0, 10)
                    .arg(now.threads)
                    .arg(now.threads - base.threads)
                    .arg(now.residentKb)
                    .arg(rssGrowth)
                    .arg(now.files)
                    .arg(now.files - base.files)
                    .arg(slowestMs));
            report.figure(QStringLiteral("descriptors"), QString::number(now.descriptors - base.descriptors));
            report.figure(QStringLiteral("threads"), QString::number(now.threads - base.threads));
            report.figure(QStringLiteral("resident_kb"), QString::number(rssGrowth));
            if (now.descriptors > base.descriptors) {
                report.broken(QStringLiteral("open descriptors grew from %1 to %2 after %3 cycles")
                                  .arg(base.descriptors)
                                  .arg(now.descriptors)
                                  .arg(cycle));
            }
            if (now.threads > base.threads) {
                report.broken(QStringLiteral("threads grew from %1 to %2 after %3 cycles")
                                  .arg(base.threads)
                                  .arg(now.threads)
                                  .arg(cycle));
            }
            // An effect's file appears the first time a strip lets it go; nothing else may.
            const QStringList stray = SoakStore::strayFiles(sandbox.storeDir());
            if (!stray.isEmpty() || now.files > base.files + 4) {
                report.broken(QStringLiteral("the store held %1 files, now %2: %3")
                                  .arg(base.files)
                                  .arg(now.files)
                                  .arg(stray.join(QStringLiteral(", "))));
            }
#ifndef ORVANTA_SANITIZED
            // The sanitizers' own memory grows; a plain build's must not.
            if (rssGrowth > kRssGrowthKb) {
                report.broken(QStringLiteral("resident memory grew by %1 kB after %2 cycles")
                                  .arg(rssGrowth)
                                  .arg(cycle));
            }
#endif
        }
        report.figure(QStringLiteral("cycles"), QString::number(cycle));
    }
    report.figure(QStringLiteral("slowest_return_ms"), QString::number(slowestMs));
    report.figure(QStringLiteral("mean_return_ms"), QString::number(returns > 0 ? totalMs / returns : 0));
    // One slow return on a loaded machine says little; how many and how slow the tail is says more.
    std::sort(returnTimesMs.begin(), returnTimesMs.end());
    const qint64 p99Ms = returnTimesMs.isEmpty() ? 0 : returnTimesMs.at(int(returnTimesMs.size() * 0.99));
    const auto overTarget = std::count_if(returnTimesMs.cbegin(), returnTimesMs.cend(),
                                          [](qint64 ms) { return ms >= kReturnTargetMs; });
    report.figure(QStringLiteral("p99_return_ms"), QString::number(p99Ms));
    report.figure(QStringLiteral("returns_over_target"), QString::number(overTarget));
    report.line(QStringLiteral("returns after the settle: slowest %1 ms, p99 %2 ms, mean %3 ms, %4 of %5 at "
                               "%6 ms or more (target under %6 ms)")
                    .arg(slowestMs)
                    .arg(p99Ms)
                    .arg(returns > 0 ? totalMs / returns : 0)
                    .arg(overTarget)
                    .arg(returns)
                    .arg(kReturnTargetMs));

    program.signal(SIGTERM);
    if (!program.finish(30000)) {
        report.broken(
            QStringLiteral("the program did not end cleanly on SIGTERM (%1)").arg(program.endText()));
    }
    if (!program.faults().isEmpty()) {
        report.broken(QStringLiteral("the sanitizers reported:\n") + QString::fromUtf8(program.faults()));
    }
    // Nothing the user saved is lost: each strip's layout and effect are still on disk.
    for (auto& s : strips) {
        const QJsonObject stored = QJsonDocument::fromJson(SoakStore::read(sandbox.storeDir() + '/' +
                                                                           SoakStore::controllerFile(s->id)))
                                       .object();
        if (stored.value("nbLeds").toDouble() != s->nbLeds ||
            stored.value("subMode").toString() != s->effect) {
            report.broken(
                QStringLiteral("%1's stored layout or effect changed: %2")
                    .arg(s->id, QString::fromUtf8(QJsonDocument(stored).toJson(QJsonDocument::Compact))));
        }
    }
    if (report.isBroken() && options.fault.isEmpty()) { // a fault run breaks on purpose
        sandbox.keep();
        report.line(QStringLiteral("sandbox kept: ") + sandbox.path());
    }
    return report.finish();
}
