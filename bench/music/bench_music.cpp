// Prints the figures of the music path:
//  - analysis per delivery (two windows, two transforms, 2 x 1025 bins), median and p95;
//  - spectrumUpdate per delivery of each mode at 60, 300 and 1000 LEDs;
//  - latency from a tone burst's first write to the first lit frame on a 72-LED virtual device,
//    split at the delivery's captureTimeNs;
//  - the process's CPU while each mode drives a 300-LED strip in a separate devsim process on a
//    music-like file played by paplay, and with no music effect bound.
// Usage: bench_music [seconds per CPU run, default 30]
#include "PrivateSoundServer.h"
#include "TonePlayer.h"
#include "VirtualLedDevice.h"
#include "devices/OVController.h"
#include "devices/OVSerialPort.h"
#include "effects/EffectsManager.h"
#include "effects/music/MusicMode1.h"
#include "effects/music/MusicMode2.h"
#include "effects/music/MusicMode3.h"
#include "effects/music/MusicMode4.h"
#include "service/audio/AudioCapManager.h"
#include "service/audio/SpectrumAnalyzer.h"
#include "service/config/ConfigurationManager.h"

#include <QCoreApplication>
#include <QDataStream>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>
#include <QTimer>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <functional>
#include <sys/resource.h>
#include <vector>

namespace {

qint64 nowNs()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

qint64 processCpuNs()
{
    timespec ts{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return qint64(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

void quiet(QtMsgType type, const QMessageLogContext&, const QString& msg)
{
    if (type == QtDebugMsg || type == QtInfoMsg || msg.startsWith(QLatin1String("[[loop]]"))) {
        return;
    }
    std::fprintf(stderr, "%s\n", qUtf8Printable(msg));
}

// Stereo music-like audio: a kick, a chord that swells, hiss on the off-beats.
std::vector<float> music(int frames, int rate = SpectrumAnalyzer::kRate)
{
    std::vector<float> out(2 * frames);
    quint32 noise = 1;
    const double twoPi = 2.0 * M_PI;
    for (int i = 0; i < frames; ++i) {
        const double t = double(i) / rate;
        const double kick = std::exp(-std::fmod(t, 0.5) * 12.0) * std::sin(twoPi * 55.0 * t);
        const double chord =
            (std::sin(twoPi * 220.0 * t) + std::sin(twoPi * 261.63 * t) + std::sin(twoPi * 329.63 * t)) *
            (0.6 + 0.4 * std::sin(twoPi * 0.25 * t)) / 3.0;
        noise = noise * 1664525u + 1013904223u;
        const double hiss =
            (double(noise >> 8) / double(1 << 24) - 0.5) * std::exp(-std::fmod(t, 0.25) * 30.0);
        const double v = 0.25 * (0.6 * kick + 0.3 * chord + 0.1 * hiss);
        out[2 * i] = float(v);
        out[2 * i + 1] = float(0.8 * v + 0.05 * std::sin(twoPi * 440.0 * t));
    }
    return out;
}

struct Stats
{
    double median = 0, p95 = 0;
};

Stats stats(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    if (values.empty()) {
        return {};
    }
    return {values[values.size() / 2], values[std::min(values.size() - 1, values.size() * 95 / 100)]};
}

void analysisCost()
{
    SpectrumAnalyzer analyzer;
    const std::vector<float> audio = music(SpectrumAnalyzer::kHop * 10000);
    std::vector<double> us;
    us.reserve(10000);
    for (int d = 0; d < 10000; ++d) {
        analyzer.push(audio.data() + 2 * SpectrumAnalyzer::kHop * d, SpectrumAnalyzer::kHop);
        const qint64 start = nowNs();
        const QVector<SoundChannel> channels = analyzer.analyse(start);
        us.push_back((nowNs() - start) / 1000.0);
        if (channels.size() != 2) {
            std::abort();
        }
    }
    const Stats s = stats(us);
    std::printf("analysis per delivery: median %.1f us, p95 %.1f us (target: median <= 300 us)\n", s.median,
                s.p95);
}

ControlOptions strip(const QString& id, uint32_t leds)
{
    ControlOptions o;
    o.model = QStringLiteral("OV5512");
    o.serial = id;
    o.id = QStringLiteral("OV5512:") + id;
    o.nbLeds = leds;
    const uint32_t third = leds / 3;
    o.lines = {third, leds - 2 * third, third};
    o.brightness = 1.0f;
    return o;
}

void modeCost()
{
    // Deliveries of analysed music, replayed into each mode with no event loop in between.
    SpectrumAnalyzer analyzer;
    const std::vector<float> audio = music(SpectrumAnalyzer::kHop * 200);
    QVector<QVector<SoundChannel>> deliveries;
    for (int d = 0; d < 200; ++d) {
        analyzer.push(audio.data() + 2 * SpectrumAnalyzer::kHop * d, SpectrumAnalyzer::kHop);
        deliveries.append(analyzer.analyse(0));
    }
    std::printf("\n%-10s %6s %14s\n", "mode", "LEDs", "us/delivery");
    for (uint32_t leds : {60u, 300u, 1000u}) {
        for (int m = 1; m <= 4; ++m) {
            const EffectWorkerOptions record = EffectWorkerOptions::make(
                QStringLiteral("com.orvanta.dynamicMusic.mode_%1").arg(m), QString(), 0);
            std::unique_ptr<AbsMusicEffect> mode;
            switch (m) {
            case 1:
                mode.reset(new MusicMode1(record));
                break;
            case 2:
                mode.reset(new MusicMode2(record));
                break;
            case 3:
                mode.reset(new MusicMode3(record));
                break;
            default:
                mode.reset(new MusicMode4(record));
                break;
            }
            mode->load(strip(QStringLiteral("cost%1").arg(leds), leds));
            int rounds = 0;
            QElapsedTimer clock;
            clock.start();
            while (clock.elapsed() < 400) {
                for (const QVector<SoundChannel>& d : qAsConst(deliveries)) {
                    mode->spectrumUpdate(d);
                }
                rounds += deliveries.size();
            }
            std::printf("%-10s %6u %14.2f\n", qPrintable(QStringLiteral("mode %1").arg(m)), leds,
                        clock.nsecsElapsed() / 1000.0 / rounds);
            // Not unloaded: nothing of the benchmark goes to the store.
        }
    }
    std::printf("(target: at most 300 us per delivery at 300 LEDs)\n");
}

// A controller on an opened port, as discovery builds it.
QSharedPointer<OVController> controllerOn(const QString& port, const ControlOptions& options)
{
    auto* serial = new OVSerialPort();
    if (!serial->open(port)) {
        delete serial;
        return {};
    }
    ControlOptions o = options;
    o.portName = port;
    QSharedPointer<OVController> controller(new OVController(o, serial));
    controller->updateFrameHeader();
    return controller;
}

// Runs the event loop, without spinning, until done() or the timeout.
void waitFor(const std::function<bool()>& done, int timeoutMs)
{
    QEventLoop loop;
    QTimer poll;
    QObject::connect(&poll, &QTimer::timeout, &loop, [&] {
        if (done()) {
            loop.quit();
        }
    });
    poll.start(2);
    QTimer::singleShot(timeoutMs, &loop, &QEventLoop::quit);
    if (!done()) {
        loop.exec();
    }
}

void idle(int ms)
{
    QEventLoop loop;
    QTimer::singleShot(ms, &loop, &QEventLoop::quit);
    loop.exec();
}

void latency(PrivateSoundServer& server, EffectsManager& manager)
{
    // One 72-LED bar on the 1500 Hz bin's band: -6 dBFS lights it, silence leaves it dark.
    const ControlOptions options = strip(QStringLiteral("latency"), 72);
    ConfigurationManager::instance()->setEffectJsonValue(
        QStringLiteral("com.orvanta.dynamicMusic.mode_1"), options.id, QStringLiteral("fragments"),
        QJsonObject{{QStringLiteral("band"), QJsonObject{{QStringLiteral("beginIndex"), 0},
                                                         {QStringLiteral("endIndex"), 72},
                                                         {QStringLiteral("minFrequency"), 1400},
                                                         {QStringLiteral("maxFrequency"), 1600},
                                                         {QStringLiteral("dbEnhance"), -40},
                                                         {QStringLiteral("mulEnhance"), 2},
                                                         {QStringLiteral("soundChannel"), 0},
                                                         {QStringLiteral("dir"), 0}}}});
    VirtualLedDevice device;
    if (!device.open()) {
        std::printf("latency: no virtual device\n");
        return;
    }
    QSharedPointer<OVController> controller = controllerOn(device.slavePath(), options);
    TonePlayer player;
    if (!controller || !player.start(server.sinkName())) {
        std::printf("latency: no controller or player\n");
        return;
    }
    IEffectWorkerPtr worker = manager.bind(controller, QStringLiteral("com.orvanta.dynamicMusic.mode_1"));
    QSharedPointer<AudioCapturer> capturer = AudioCapManager::instacne()->capturer(server.sinkName());

    qint64 captureNs = 0;
    qint64 litFrameNs = 0;
    QObject::connect(
        capturer.data(), &AudioCapturer::spectrumsChanged, &device,
        [&](QVector<SoundChannel> channels) {
            if (!captureNs && channels[0].spectrums[64].db > 41 /* lights LED 0 */) {
                captureNs = channels[0].captureTimeNs;
            }
        },
        Qt::QueuedConnection);
    QObject::connect(&device, &VirtualLedDevice::frameReceived, &device, [&] {
        if (!litFrameNs && !(device.lastColors().value(0) == VirtualLedDevice::Rgb{})) {
            litFrameNs = device.lastFrameTimeNs();
        }
    });
    std::vector<double> total, toCapture, toFrame;
    for (int burst = 0; burst < 50; ++burst) {
        waitFor(
            [&] {
                return device.frameCount() > 0 && device.lastColors().value(0) == VirtualLedDevice::Rgb{};
            },
            3000);
        captureNs = litFrameNs = 0;
        player.playTone(1500, -6, TonePlayer::Both);
        waitFor([&] { return litFrameNs && captureNs; }, 2000);
        const qint64 startNs = player.soundStartNs();
        if (litFrameNs && captureNs && startNs) {
            total.push_back((litFrameNs - startNs) / 1e6);
            toCapture.push_back((captureNs - startNs) / 1e6);
            toFrame.push_back((litFrameNs - captureNs) / 1e6);
        }
        waitFor([&] { return nowNs() - startNs > 100 * 1000 * 1000; }, 200);
        player.playSilence();
        idle(300);
    }
    const Stats t = stats(total), c = stats(toCapture), f = stats(toFrame);
    std::printf("\nlatency over %zu bursts, first write to first lit frame: median %.1f ms, p95 %.1f ms "
                "(targets 40, 80)\n",
                total.size(), t.median, t.p95);
    std::printf("  split at captureTimeNs: write to capture median %.1f p95 %.1f ms; capture to frame median "
                "%.1f p95 %.1f ms\n",
                c.median, c.p95, f.median, f.p95);
    worker.clear();
    manager.unbind(options.id);
    player.stop();
    controller.clear();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
}

bool writeWav(const QString& path, const std::vector<float>& samples)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly)) {
        return false;
    }
    QDataStream out(&file);
    out.setByteOrder(QDataStream::LittleEndian);
    const quint32 bytes = quint32(samples.size() * 2);
    out.writeRawData("RIFF", 4);
    out << quint32(36 + bytes);
    out.writeRawData("WAVEfmt ", 8);
    out << quint32(16) << quint16(1) << quint16(2) << quint32(48000) << quint32(48000 * 4) << quint16(4)
        << quint16(16);
    out.writeRawData("data", 4);
    out << bytes;
    for (float v : samples) {
        out << qint16(std::lround(std::clamp(v, -1.0f, 1.0f) * 32767));
    }
    return true;
}

double cpuPercent(int seconds)
{
    const qint64 cpu0 = processCpuNs(), wall0 = nowNs();
    idle(seconds * 1000);
    return 100.0 * (processCpuNs() - cpu0) / double(nowNs() - wall0);
}

void cpu(PrivateSoundServer& server, EffectsManager& manager, int seconds, const QString& wav)
{
    std::printf("\n%-10s %10s %12s\n", "CPU, 300 LEDs", "process %", "device fps");
    const double idlePercent = cpuPercent(std::min(seconds, 5));
    std::printf("%-13s %10.2f %12s  (source outputs: %d)\n", "none bound", idlePercent, "-",
                server.sourceOutputCount());
    QProcess paplay;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("PULSE_SERVER"), server.address());
    paplay.setProcessEnvironment(env);
    paplay.start(QStringLiteral("paplay"), {QStringLiteral("--device=") + server.sinkName(), wav});
    for (int m = 1; m <= 4; ++m) {
        QProcess devsim;
        devsim.start(QStringLiteral(DEVSIM_PATH),
                     {QStringLiteral("--headless"), QStringLiteral("--leds"), QStringLiteral("300")});
        if (!devsim.waitForReadyRead(5000)) {
            std::printf("devsim did not start\n");
            return;
        }
        const QString port = QString::fromUtf8(devsim.readLine()).trimmed();
        const ControlOptions options = strip(QStringLiteral("cpu%1").arg(m), 300);
        QSharedPointer<OVController> controller = controllerOn(port, options);
        const QString id = QStringLiteral("com.orvanta.dynamicMusic.mode_%1").arg(m);
        IEffectWorkerPtr worker = controller ? manager.bind(controller, id) : IEffectWorkerPtr();
        idle(1000); // warm up
        devsim.readAll();
        const double percent = cpuPercent(seconds);
        QString fps = QStringLiteral("?");
        for (const QByteArray& line : devsim.readAll().split('\n')) {
            const int at = line.indexOf("fps=");
            if (at >= 0) {
                fps = QString::fromLatin1(line.mid(at + 4, line.indexOf(' ', at) - at - 4));
            }
        }
        std::printf("%-13s %10.2f %12s\n", qPrintable(QStringLiteral("mode %1").arg(m)), percent,
                    qPrintable(fps));
        worker.clear();
        manager.unbind(options.id);
        controller.clear();
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        devsim.terminate();
        devsim.waitForFinished(3000);
    }
    paplay.kill();
    paplay.waitForFinished(3000);
    std::printf("(target: at most 5%% of one core)\n");
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    qInstallMessageHandler(quiet);
    const int seconds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 30;
    QTemporaryDir home;
    qputenv("XDG_CONFIG_HOME", home.path().toUtf8());

    PrivateSoundServer server(QStringLiteral("bench"), QStringLiteral("Bench output"));
    if (!server.start()) {
        std::fprintf(stderr, "bench_music: %s\n", qPrintable(server.errorString()));
        return 1;
    }
    server.exportAddress();
    if (AudioCapManager::instacne()->defaultCapturer() != server.sinkName()) {
        std::fprintf(stderr, "bench_music: the private server's sink is not the default\n");
        return 1;
    }
    const QString wav = home.path() + QStringLiteral("/music.wav");
    writeWav(wav, music(48000 * (seconds * 4 + 10)));

    analysisCost();
    modeCost();
    EffectsManager manager;
    latency(server, manager);
    cpu(server, manager, seconds, wav);
    return 0;
}
