#include "LogCapture.h"
#include "PrivateSoundServer.h"
#include "TonePlayer.h"
#include "effects/music/MusicMode1.h"
#include "service/audio/AudioCapManager.h"
#include "service/config/ConfigurationManager.h"

#include <QtTest>

#include <memory>

namespace {

const QString mainSink = QStringLiteral("orvanta_main");

// Keeps a capturer's newest delivery, received on the main thread, with a count and its age.
struct Listener : QObject
{
    explicit Listener(AudioCapturer* capturer)
    {
        connect(
            capturer, &AudioCapturer::spectrumsChanged, this,
            [this](QVector<SoundChannel> channels) {
                ++count;
                last = channels;
                sinceLast.start();
            },
            Qt::QueuedConnection);
    }
    // The loudest bin of a channel in the newest delivery (the first among equals), and its level.
    int loudest(int channel) const
    {
        const QVector<Spectrum> bins = last.value(channel).spectrums;
        const auto top = [](const Spectrum& a, const Spectrum& b) { return a.db < b.db; };
        return bins.isEmpty() ? -1 : int(std::max_element(bins.cbegin(), bins.cend(), top) - bins.cbegin());
    }
    float level(int channel) const
    {
        return loudest(channel) < 0 ? -1 : last[channel].spectrums[loudest(channel)].db;
    }
    bool silent() const { return count > 0 && level(0) == 0.0f && level(1) == 0.0f; }
    bool quietFor(int ms) const { return sinceLast.isValid() && sinceLast.elapsed() >= ms; }

    int count = 0;
    QVector<SoundChannel> last;
    QElapsedTimer sinceLast;
};

ControlOptions strip()
{
    ControlOptions options;
    options.model = "AUDIO";
    options.id = "AUDIO:1";
    options.nbLeds = 4;
    options.lines = {4};
    return options;
}

} // namespace

// The audio registry and its capturers on one private PulseAudio daemon, through its life.
class TestAudio : public QObject
{
    Q_OBJECT
private:
    PrivateSoundServer server{mainSink, QStringLiteral("Main output")};
    TonePlayer player;
    std::unique_ptr<QSignalSpy> ready;

    static AudioCapManager* manager() { return AudioCapManager::instacne(); }
    static AudioCapturer* capturer(const QString& id) { return manager()->capturer(id).data(); }

private slots:
    void initTestCase() { ConfigurationManager::instance()->reset(); }

    // No server at first access: at once, empty, a worker's load says why; the daemon started
    // later brings its sink, announced once, and the worker binds to it.
    void noServerAtFirstAccess()
    {
        server.exportAddress(); // the address of a daemon not yet started
        LogCapture log;
        QVERIFY(manager()->allCapturers().isEmpty() && manager()->defaultCapturer().isEmpty());
        ready.reset(new QSignalSpy(manager(), &AudioCapManager::capturerReady));
        MusicMode1 mode(EffectWorkerOptions::make("com.orvanta.dynamicMusic.mode_1", "m1", 1));
        mode.load(strip());
        QCOMPARE(log.count("[AbsMusicEffect]: The newCapturerId is empty.", QtCriticalMsg), 2);

        QVERIFY2(server.start(), qPrintable(server.errorString()));
        QTRY_COMPARE_WITH_TIMEOUT(ready->size(), 1, 10000);
        QCOMPARE(ready->at(0).at(0).toString(), mainSink);
        QCOMPARE(manager()->allCapturers(), QList<QString>{mainSink});
        QCOMPARE(manager()->capturerDesc(mainSink), QStringLiteral("Main output"));
        QTRY_COMPARE(manager()->defaultCapturer(), mainSink);
        QTRY_COMPARE(mode.currentCapturerId(), mainSink);
        QVERIFY(mode.isCapturerConnected());
        mode.unload();
        QCOMPARE(log.count("[AudioCapManager]", QtWarningMsg), 1);
        QVERIFY(player.start(mainSink));
    }

    // Tones on bin centres read on their bin at their level, at the top of the scale, the other
    // channel silent; one between bins within 1.5 dB; 1025 bins up to 24000 Hz; silence reads 0.
    void spectrum()
    {
        Listener listener(capturer(mainSink));
        const auto reads = [&](int channel, int bin, double dbfs, double tolerance) {
            return listener.loudest(channel) == bin && listener.level(channel) == 80.0f &&
                   qAbs(20 * std::log10(listener.last[channel].spectrums[bin].amplitude) - dbfs) <= tolerance;
        };
        // Each louder than the one before: the scale rises at once.
        player.playTone(15000, -40, TonePlayer::Right);
        QTRY_VERIFY_WITH_TIMEOUT(reads(1, 640, -40, 0.5) && listener.level(0) == 0.0f, 5000);
        player.playTone(1000, -20, TonePlayer::Both);
        QTRY_VERIFY_WITH_TIMEOUT(reads(0, 43, -20, 1.5) && reads(1, 43, -20, 1.5), 5000);
        const QVector<Spectrum>& bins = listener.last[0].spectrums;
        QVERIFY(bins.size() == 1025 && bins[43].frequency == float(43 * 48000.0 / 2048));
        QCOMPARE(bins.last().frequency, 24000.0f);
        player.playTone(93.75, -6, TonePlayer::Left);
        QTRY_VERIFY_WITH_TIMEOUT(reads(0, 4, -6, 0.5) && listener.level(1) == 0.0f, 5000);
        player.playSilence();
        QTRY_VERIFY_WITH_TIMEOUT(listener.silent(), 5000);
    }

    // A sink loaded at run time, at 44100 Hz in integers the server converts: announced once, its
    // tone on its bin; unloaded: unlisted, its holder gets silence then nothing; loaded again: the
    // same object resumes unannounced. The default moves alone.
    void registry()
    {
        const int before = ready->size();
        const int module = server.loadSink("late", "Late output", 44100, "s16le");
        QTRY_COMPARE(ready->size(), before + 1);
        QCOMPARE(ready->last().at(0).toString(), QStringLiteral("late"));
        QCOMPARE(manager()->capturerDesc("late"), QStringLiteral("Late output"));
        QSharedPointer<AudioCapturer> late = manager()->capturer("late");
        TonePlayer latePlayer;
        QVERIFY(latePlayer.start("late", 44100));
        latePlayer.playTone(375, -6, TonePlayer::Both);
        Listener listener(late.data());
        QTRY_VERIFY_WITH_TIMEOUT(
            listener.loudest(0) == 16 && qAbs(listener.last[0].spectrums[16].amplitude - 0.5) < 0.03, 5000);

        latePlayer.stop();
        QVERIFY(!server.pactl({"unload-module", QString::number(module)}).isNull());
        QTRY_VERIFY(!manager()->capturer("late") && !manager()->allCapturers().contains("late"));
        QTRY_VERIFY_WITH_TIMEOUT(listener.silent() && listener.quietFor(500), 5000);

        QVERIFY(server.loadSink("late", "Late output", 44100, "s16le") >= 0);
        QTRY_COMPARE(manager()->capturer("late"), late);
        QVERIFY(latePlayer.start("late", 44100));
        latePlayer.playTone(375, -6, TonePlayer::Both);
        QTRY_VERIFY_WITH_TIMEOUT(listener.loudest(0) == 16 && !listener.quietFor(100), 5000);
        QCOMPARE(ready->size(), before + 1);

        QVERIFY(!server.pactl({"set-default-sink", "late"}).isNull());
        QTRY_COMPARE(manager()->defaultCapturer(), QStringLiteral("late"));
        QVERIFY(!server.pactl({"set-default-sink", mainSink}).isNull());
        QTRY_COMPARE(manager()->defaultCapturer(), mainSink);
    }

    // A suspended sink: silent deliveries stamped within a second, then nothing until it resumes.
    void suspendedSink()
    {
        Listener listener(capturer(mainSink));
        player.playTone(1500, -6, TonePlayer::Both);
        QTRY_VERIFY_WITH_TIMEOUT(listener.level(0) > 70, 5000);
        server.freeze(); // as a suspended sink: connected, no data
        QTRY_VERIFY_WITH_TIMEOUT(listener.silent(), 5000);
        const int silentFrom = listener.count;
        const qint64 firstSilentNs = listener.last[0].captureTimeNs;
        QTRY_VERIFY_WITH_TIMEOUT(listener.quietFor(300), 5000);
        const qint64 spanNs = listener.last[0].captureTimeNs - firstSilentNs;
        qInfo("%d silent deliveries over %lld ms", listener.count - silentFrom + 1, spanNs / 1000000);
        QVERIFY(listener.silent() && spanNs <= AudioCapturer::kSilenceForNs);
        server.thaw();
        QTRY_VERIFY_WITH_TIMEOUT(listener.level(0) > 70 && !listener.quietFor(100), 5000);
        player.playSilence();
    }

    // Outputs of other layouts than stereo, read as two channels: a mono output's tone on both, a
    // 5.1 output's front left on the left only, the right 20 dB down or more.
    void sinkLayouts_data()
    {
        QTest::addColumn<int>("channels");
        QTest::addColumn<QString>("channelMap");
        QTest::addColumn<double>("minRightOverLeft");
        QTest::addColumn<double>("maxRightOverLeft");
        QTest::newRow("mono") << 1 << "mono" << 0.9 << 1.1;
        QTest::newRow("5.1") << 6 << "front-left,front-right,front-center,lfe,rear-left,rear-right" << 0.0
                             << 0.1;
    }
    void sinkLayouts()
    {
        QFETCH(int, channels);
        QFETCH(QString, channelMap);
        QFETCH(double, minRightOverLeft);
        QFETCH(double, maxRightOverLeft);
        const int module =
            server.loadSink("layout", "Layout output", 48000, "float32le", channels, channelMap);
        QVERIFY(module >= 0);
        QTRY_VERIFY(manager()->capturer("layout"));
        Listener listener(capturer("layout"));
        TonePlayer layoutPlayer;
        QVERIFY(layoutPlayer.start("layout"));
        layoutPlayer.playTone(1500, -6, TonePlayer::Left);
        QTRY_VERIFY_WITH_TIMEOUT(listener.loudest(0) == 64 && !listener.quietFor(100), 5000);
        QTRY_VERIFY_WITH_TIMEOUT(listener.last[1].spectrums.size() > 64, 5000);
        const double ratio =
            listener.last[1].spectrums[64].amplitude / listener.last[0].spectrums[64].amplitude;
        qInfo("right over left at the tone: %.4f", ratio);
        QVERIFY(ratio >= minRightOverLeft && ratio <= maxRightOverLeft);
        layoutPlayer.stop();
        QVERIFY(!server.pactl({"unload-module", QString::number(module)}).isNull());
        QTRY_VERIFY(!manager()->capturer("layout"));
    }

    // A worker takes the default output whatever "audioSource" holds; the same id twice connects
    // once and calls the hook (its dark frame) once; an unknown id: a critical line, silence.
    void worker()
    {
        ConfigurationManager::instance()->setEffectJsonValue("com.orvanta.dynamicMusic.mode_1", "AUDIO:1",
                                                             "audioSource", "late");
        MusicMode1 mode(EffectWorkerOptions::make("com.orvanta.dynamicMusic.mode_1", "m1", 1));
        QSignalSpy frames(&mode, qOverload<QVector<QVector<OV_RGB>>>(&IEffectWorker::updateColors));
        Listener listener(capturer(mainSink));
        mode.load(strip());
        QCOMPARE(mode.currentCapturerId(), mainSink);
        mode.setCapturerId(mainSink);
        QCOMPARE(frames.size(), 1);
        QTRY_VERIFY(listener.count > 20);
        QVERIFY(qAbs(listener.count - (frames.size() - 1)) <= 2); // one connection: a frame a delivery

        LogCapture log;
        mode.setCapturerId("nowhere");
        QCOMPARE(log.count("[AbsMusicEffect]: Not found this audio capturer: nowhere", QtCriticalMsg), 1);
        QVERIFY(!mode.isCapturerConnected());
        QCOMPARE(mode.currentCapturerId(), QStringLiteral("nowhere"));
        mode.unload();
    }
};

QTEST_GUILESS_MAIN(TestAudio)
#include "tst_Audio.moc"
