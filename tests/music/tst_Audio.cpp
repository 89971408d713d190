#include "AudioCapManager.h"
#include "ConfigurationManager.h"
#include "LogCapture.h"
#include "MusicMode1.h"
#include "PrivateSoundServer.h"
#include "SpectrumListener.h"
#include "TonePlayer.h"

#include <QElapsedTimer>
#include <QSignalSpy>
#include <QtTest>

#include <memory>

namespace {

const QString mainSink = QStringLiteral("orvanta_main");
const QString mainDesc = QStringLiteral("Main output");

// Mode 1 counting its capturer hooks and deliveries.
class CountingMode : public MusicMode1
{
public:
    CountingMode()
        : MusicMode1(EffectWorkerOptions::make("com.orvanta.dynamicMusic.mode_1", "m1", 1))
    {
    }
    int hooks = 0;
    int deliveries = 0;
    void capturerChangedHook() override
    {
        ++hooks;
        MusicMode1::capturerChangedHook();
    }
    void spectrumUpdate(QVector<SoundChannel> channels) override
    {
        ++deliveries;
        MusicMode1::spectrumUpdate(channels);
    }
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

// The audio registry and its capturers against a private PulseAudio daemon, through the
// server's life: absent at first access, started, sinks coming and going and suspended.
class TestAudio : public QObject
{
    Q_OBJECT
private:
    PrivateSoundServer server{mainSink, mainDesc};
    TonePlayer player;
    std::unique_ptr<QSignalSpy> ready;

    QSharedPointer<AudioCapturer> main() { return AudioCapManager::instacne()->capturer(mainSink); }

private slots:
    void initTestCase() { ConfigurationManager::instance()->reset(); }

    void noServerAtFirstAccess()
    {
        server.exportAddress(); // the address of a daemon not yet started
        LogCapture log;
        QElapsedTimer clock;
        clock.start();
        AudioCapManager* manager = AudioCapManager::instacne();
        QVERIFY(clock.elapsed() < 1000);
        QVERIFY(manager->allCapturers().isEmpty());
        QVERIFY(manager->defaultCapturer().isEmpty());
        ready.reset(new QSignalSpy(manager, &AudioCapManager::capturerReady));

        CountingMode mode;
        mode.load(strip());
        QCOMPARE(log.count("[AbsMusicEffect]: The newCapturerId is empty.", QtCriticalMsg), 2);
        QCOMPARE(log.count("[AudioCapManager]", QtWarningMsg), 1);
        mode.unload();

        // The daemon started later brings its sink, announced once.
        QVERIFY2(server.start(), qPrintable(server.errorString()));
        QTRY_COMPARE_WITH_TIMEOUT(ready->size(), 1, 10000);
        QCOMPARE(ready->at(0).at(0).toString(), mainSink);
        QCOMPARE(manager->allCapturers(), QList<QString>{mainSink});
        QCOMPARE(manager->capturerDesc(mainSink), mainDesc);
        QTRY_COMPARE(manager->defaultCapturer(), mainSink);
        QCOMPARE(log.count("[AudioCapManager]", QtWarningMsg), 1);
        QVERIFY(player.start(mainSink));
    }

    void spectrum_data()
    {
        QTest::addColumn<double>("hz");
        QTest::addColumn<double>("dbfs");
        QTest::addColumn<int>("channels");
        QTest::addColumn<int>("bin");
        QTest::addColumn<double>("db");
        QTest::addColumn<double>("tolerance");
        for (int c : {1, 2}) {
            const char* side = c == 1 ? "left" : "right";
            QTest::addRow("93.75 Hz -6 dBFS %s", side) << 93.75 << -6.0 << c << 4 << 74.0 << 0.5;
            QTest::addRow("1500 Hz -20 dBFS %s", side) << 1500.0 << -20.0 << c << 64 << 60.0 << 0.5;
            QTest::addRow("15000 Hz -40 dBFS %s", side) << 15000.0 << -40.0 << c << 640 << 40.0 << 0.5;
        }
        QTest::newRow("1000 Hz within a bin") << 1000.0 << -6.0 << 3 << 43 << 74.0 << 1.5;
    }

    void spectrum()
    {
        QFETCH(double, hz);
        QFETCH(double, dbfs);
        QFETCH(int, channels);
        QFETCH(int, bin);
        QFETCH(double, db);
        QFETCH(double, tolerance);
        SpectrumListener listener;
        listener.attach(main().data());
        player.playTone(hz, dbfs, TonePlayer::Channels(channels));
        const int played = channels == 2 ? 1 : 0;
        QTRY_VERIFY_WITH_TIMEOUT(
            listener.loudest(played) == bin && qAbs(listener.level(played) - db) <= tolerance, 5000);
        if (channels != 3) {
            QCOMPARE(listener.level(1 - played), 0.0f);
        }
        player.playSilence();
        QTRY_VERIFY_WITH_TIMEOUT(listener.silent(), 5000);
    }

    void resampledSink()
    {
        // A 44100 Hz integer sink: the server converts, the tone stays on its bin.
        QVERIFY(server.loadSink("cd", "CD output", 44100, "s16le") >= 0);
        QTRY_VERIFY(AudioCapManager::instacne()->capturer("cd"));
        TonePlayer cdPlayer;
        QVERIFY(cdPlayer.start("cd", 44100));
        SpectrumListener listener;
        listener.attach(AudioCapManager::instacne()->capturer("cd").data());
        cdPlayer.playTone(1500, -6, TonePlayer::Both);
        QTRY_VERIFY_WITH_TIMEOUT(listener.loudest(0) == 64 && qAbs(listener.level(0) - 74) <= 0.5, 5000);
    }

    void registry()
    {
        AudioCapManager* manager = AudioCapManager::instacne();
        const int before = ready->size();
        const int module = server.loadSink("late", "Late output");
        QVERIFY(module >= 0);
        QTRY_COMPARE(ready->size(), before + 1);
        QCOMPARE(ready->last().at(0).toString(), QStringLiteral("late"));
        QCOMPARE(manager->capturerDesc("late"), QStringLiteral("Late output"));
        QSharedPointer<AudioCapturer> late = manager->capturer("late");
        QVERIFY(late);

        // Each capturer hears its own sink only.
        TonePlayer latePlayer;
        QVERIFY(latePlayer.start("late"));
        latePlayer.playTone(375, -6, TonePlayer::Both);
        player.playTone(1500, -6, TonePlayer::Both);
        SpectrumListener listener;
        listener.attach(late.data());
        QTRY_VERIFY_WITH_TIMEOUT(listener.loudest(0) == 16 && listener.level(0) > 73, 5000);
        QCOMPARE(listener.last[0].spectrums[64].db, 0.0f);
        player.playSilence();

        // Unloaded: off the list, its holder gets silence, then nothing.
        latePlayer.stop();
        QVERIFY(!server.pactl({"unload-module", QString::number(module)}).isNull());
        QTRY_VERIFY(!manager->capturer("late"));
        QVERIFY(!manager->allCapturers().contains("late"));
        QTRY_VERIFY_WITH_TIMEOUT(listener.silent(), 5000);
        QTRY_VERIFY_WITH_TIMEOUT(listener.quietFor(500), 5000);

        // Loaded again: the same object resumes, with no second announcement.
        QVERIFY(server.loadSink("late", "Late output") >= 0);
        QTRY_COMPARE(manager->capturer("late"), late);
        QVERIFY(latePlayer.start("late"));
        latePlayer.playTone(375, -6, TonePlayer::Both);
        QTRY_VERIFY_WITH_TIMEOUT(listener.loudest(0) == 16 && !listener.quietFor(100), 5000);
        QCOMPARE(ready->size(), before + 1);

        // A new default moves only defaultCapturer().
        QVERIFY(!server.pactl({"set-default-sink", "late"}).isNull());
        QTRY_COMPARE(manager->defaultCapturer(), QStringLiteral("late"));
        QVERIFY(!server.pactl({"set-default-sink", mainSink}).isNull());
        QTRY_COMPARE(manager->defaultCapturer(), mainSink);
    }

    void streams()
    {
        // No listener, no recording; one stream however many listen; none when the last goes.
        QTRY_COMPARE(server.sourceOutputCount(), 0);
        auto first = std::make_unique<SpectrumListener>();
        SpectrumListener second;
        first->attach(main().data());
        second.attach(main().data());
        QTRY_COMPARE(server.sourceOutputCount(), 1);
        QTRY_VERIFY(second.count > 0);
        second.detach(main().data());
        QTRY_VERIFY(first->count > second.count + 5);
        QCOMPARE(server.sourceOutputCount(), 1);
        first.reset(); // gone by destruction, with no disconnect notice
        QTRY_COMPARE(server.sourceOutputCount(), 0);

        // A suspended sink: about a second of silence, then nothing until it resumes.
        SpectrumListener listener;
        listener.attach(main().data());
        player.playTone(1500, -6, TonePlayer::Both);
        QTRY_VERIFY_WITH_TIMEOUT(listener.level(0) > 70, 5000);
        QVERIFY(!server.pactl({"suspend-sink", mainSink, "1"}).isNull());
        QTRY_VERIFY_WITH_TIMEOUT(listener.silent(), 5000);
        const int silentFrom = listener.count;
        QTRY_VERIFY_WITH_TIMEOUT(listener.quietFor(300), 5000);
        QVERIFY2(listener.count - silentFrom >= 20 && listener.count - silentFrom <= 60,
                 qPrintable(QString::number(listener.count - silentFrom)));
        QVERIFY(!server.pactl({"suspend-sink", mainSink, "0"}).isNull());
        QTRY_VERIFY_WITH_TIMEOUT(listener.level(0) > 70 && !listener.quietFor(100), 5000);
        player.playSilence();
    }

    void worker()
    {
        // Twice the same id: one connection, one hook call; a stored source is not applied.
        ConfigurationManager::instance()->setEffectJsonValue("com.orvanta.dynamicMusic.mode_1", "AUDIO:1",
                                                             "audioSource", "late");
        CountingMode mode;
        SpectrumListener listener;
        listener.attach(main().data());
        mode.load(strip());
        QCOMPARE(mode.currentCapturerId(), mainSink);
        mode.setCapturerId(mainSink);
        QCOMPARE(mode.hooks, 1);
        QTRY_VERIFY(listener.count > 20);
        QVERIFY2(qAbs(listener.count - mode.deliveries) <= 2,
                 qPrintable(QStringLiteral("%1 / %2").arg(listener.count).arg(mode.deliveries)));

        // An unknown id: a critical line, a silent worker that keeps the id.
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
