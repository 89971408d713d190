#include "DeviceRig.h"
#include "LogCapture.h"
#include "PrivateSoundServer.h"
#include "TonePlayer.h"
#include "effects/EffectsManager.h"
#include "effects/panels/AbsWorkerWidget.h"
#include "effects/panels/EffectPanelMaker.h"
#include "service/audio/AudioCapManager.h"
#include "service/config/ConfigurationManager.h"
#include "ui/widgets/GradientWidget.h"

#include <QComboBox>
#include <QPainter>
#include <QPushButton>
#include <QSlider>
#include <QtTest>

#include <memory>

using Rgb = VirtualLedDevice::Rgb;
Q_DECLARE_METATYPE(Rgb)

namespace {

const QString mode1 = QStringLiteral("com.orvanta.dynamicMusic.mode_1");
const QString mode2 = QStringLiteral("com.orvanta.dynamicMusic.mode_2");
const QString mode3 = QStringLiteral("com.orvanta.dynamicMusic.mode_3");
const QString mode4 = QStringLiteral("com.orvanta.dynamicMusic.mode_4");

int litCount(const QVector<Rgb>& colors)
{
    return int(std::count_if(colors.cbegin(), colors.cend(), [](const Rgb& c) { return !(c == Rgb{}); }));
}

// Within 2 of the expected colours, LED by LED.
bool near(const QVector<Rgb>& shown, const QVector<Rgb>& expected)
{
    const auto close = [](const Rgb& a, const Rgb& b) {
        return qAbs(a.r - b.r) <= 2 && qAbs(a.g - b.g) <= 2 && qAbs(a.b - b.b) <= 2;
    };
    return shown.size() == expected.size() &&
           std::equal(shown.cbegin(), shown.cend(), expected.cbegin(), close);
}

// Mode 1's bar of 20 at level 60: 15 LEDs from its foot in hues falling from green (1/3) to red
// as 1/3 - 1/3 min(1, 10 sin(t / 3) t^2) over the lit part, t = i / 15; the rest dark.
QVector<Rgb> meter15(bool mirrored)
{
    QVector<Rgb> leds(20);
    for (int i = 0; i < 15; ++i) {
        const double t = i / 15.0;
        const QColor c = QColor::fromHsvF(1.0 / 3 - std::min(1.0, 10 * std::sin(t / 3) * t * t) / 3, 1, 1);
        leds[mirrored ? 19 - i : i] = Rgb{uint8_t(c.red()), uint8_t(c.green()), uint8_t(c.blue())};
    }
    return leds;
}

// Pixel x of modes 3 and 4's row: the blue-to-red gradient painted 300 pixels wide.
Rgb peak(int x)
{
    QImage row(300, 1, QImage::Format_RGB888);
    QLinearGradient gradient(0, 0, 300, 0);
    gradient.setStops({{0.0, QColor(0, 0, 255)}, {1.0, QColor(255, 0, 0)}});
    QPainter(&row).fillRect(row.rect(), gradient);
    const QColor c = row.pixelColor(x, 0);
    return Rgb{uint8_t(c.red()), uint8_t(c.green()), uint8_t(c.blue())};
}

} // namespace

// The music modes bound to real controllers on virtual strips, following a private daemon's tones.
class TestMusicOnDevice : public QObject
{
    Q_OBJECT
private:
    PrivateSoundServer server{QStringLiteral("orvanta_device"), QStringLiteral("Device test output")};
    TonePlayer player;
    EffectsManager* manager = nullptr;

    // A strip "OV5512:<serial>" of nbLeds bound to the effect.
    std::unique_ptr<DeviceRig> bind(const QString& serial, uint32_t nbLeds, const QString& effectId,
                                    QVector<uint32_t> lines = {})
    {
        auto rig = std::make_unique<DeviceRig>();
        ControlOptions o = DeviceRig::defaultOptions(nbLeds);
        o.serial = serial;
        o.id = "OV5512:" + serial;
        o.lines = lines.isEmpty() ? o.lines : lines;
        return rig->start(o) && manager->bind(rig->controller, effectId) ? std::move(rig) : nullptr;
    }
    void release(std::unique_ptr<DeviceRig>& rig)
    {
        manager->unbind(rig->controller->controlOptions().id);
        rig.reset();
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }
    AbsWorkerWidget* panelOf(const DeviceRig& rig, const QString& effectId)
    {
        manager->activeOperate(rig.controller->controlOptions().id, effectId);
        return manager->workerOptions(effectId).optionWidget;
    }
    // Dark while the worker keeps sending frames: what it hears does not reach this strip.
    static bool staysDark(VirtualLedDevice& device)
    {
        const int from = device.frameCount();
        return QTest::qWaitFor([&] { return device.frameCount() > from + 30; }, 5000) &&
               litCount(device.lastColors()) == 0;
    }

private slots:
    void initTestCase()
    {
        ConfigurationManager::instance()->reset();
        QVERIFY2(server.start(), qPrintable(server.errorString()));
        server.exportAddress();
        QVERIFY(player.start(server.sinkName()));
        EffectPanelMaker::install();
        manager = new EffectsManager(this);
        // A 20-LED bar on 80..110 Hz of the left channel, for modes 1 and 3: a lone tone there
        // reads the top of the scale, 80, and the bar shows 60 of it.
        const QJsonObject bar{{"beginIndex", 0},     {"endIndex", 20},   {"minFrequency", 80},
                              {"maxFrequency", 110}, {"dbEnhance", -20}, {"mulEnhance", 1},
                              {"soundChannel", 1},   {"dir", 0}};
        for (const char* ctl : {"OV5512:M1", "OV5512:P1"}) {
            for (const QString& id : {mode1, mode3}) {
                ConfigurationManager::instance()->setEffectJsonValue(id, ctl, "fragments",
                                                                     QJsonObject{{"bass", bar}});
            }
        }
    }

    // Modes 2 to 4 on their strips (mode 1 in the cases below): mode 2's strap of pure red, made
    // on its panel, pumped by the louder channel, a quiet tone as much as a loud one; mode 3's
    // colour in silence and at -40 dBFS; mode 4's LED of 375 Hz, the right channel mirrored.
    void modesFollowTones_data()
    {
        QTest::addColumn<QString>("effect");
        QTest::addColumn<double>("dbfs"); // below -100: silence
        QTest::addColumn<int>("channels");
        QTest::addColumn<QVector<Rgb>>("shown");
        // Never quieter than the row before: the scale would take a while to follow.
        QTest::newRow("mode 3, silence") << mode3 << -200.0 << 1 << QVector<Rgb>(20, Rgb{0, 0, 255});
        QTest::newRow("mode 3, -40 dBFS") << mode3 << -40.0 << 1 << QVector<Rgb>(20, peak(225));
        QTest::newRow("mode 2, silence") << mode2 << -200.0 << 3 << QVector<Rgb>(6, Rgb{25, 0, 0});
        QTest::newRow("mode 2, -40 dBFS left") << mode2 << -40.0 << 1 << QVector<Rgb>(6, Rgb{255, 0, 0});
        QTest::newRow("mode 2, 0 dBFS right") << mode2 << 0.0 << 2 << QVector<Rgb>(6, Rgb{255, 0, 0});
        QVector<Rgb> analyser(24, peak(0));
        analyser[21] = peak(299);
        QTest::newRow("mode 4, right") << mode4 << -6.0 << 2 << analyser;
    }
    void modesFollowTones()
    {
        QFETCH(QString, effect);
        QFETCH(double, dbfs);
        QFETCH(int, channels);
        QFETCH(QVector<Rgb>, shown);
        auto rig = bind(effect == mode2 ? "M2" : "M1", uint32_t(shown.size()), effect,
                        effect == mode4 ? QVector<uint32_t>{12, 12} : QVector<uint32_t>{});
        QVERIFY(rig);
        if (effect == mode2) {
            AbsWorkerWidget* panel = panelOf(*rig, mode2);
            panel->findChild<QPushButton*>("addBtn")->click();
            auto* bar = panel->findChild<GradientWidget*>("gradientEditor");
            bar->setKeyColors({});
            bar->setEndsColor(Qt::red);
            bar->addKeyColor(Qt::red, 0.5);
        }
        if (dbfs > -100) {
            player.playTone(effect == mode4   ? 375
                            : effect == mode2 ? 1500
                                              : 93.75,
                            dbfs, TonePlayer::Channels(channels));
        }
        QTRY_VERIFY2_WITH_TIMEOUT(near(rig->device.lastColors(), shown),
                                  rig->device.lastFrame().toHex().constData(), 5000);
        player.playSilence();
        release(rig);
    }

    // Modes 1 and 4 on two strips share one recording stream; mode 4's panel shows its strength
    // 3.0 at 166. Mode 1's bar hears its own channel only and the install direction mirrors it;
    // the server killed, the strips go dark with one warning; back, the same workers follow.
    void sharedThroughTheServersLife()
    {
        auto meter = bind("M1", 20, mode1);
        auto analyser = bind("M4", 24, mode4, {12, 12});
        QVERIFY(meter && analyser);
        QTRY_COMPARE(server.sourceOutputCount(), 1);
        QCOMPARE(panelOf(*analyser, mode4)->findChild<QSlider*>("strengthSlider")->value(), 166);
        player.playTone(93.75, -18, TonePlayer::Right);
        QVERIFY(staysDark(meter->device));
        meter->controller->setInstallDirection(1);
        QVector<Rgb> lowest(24, peak(0));
        lowest[0] = peak(299);
        LogCapture log;
        // The Pulse-protocol instance killed, then PipeWire and its session manager with it.
        for (int restarts : {0, 1, 2}) {
            player.playTone(93.75, -18, TonePlayer::Left);
            QTRY_VERIFY_WITH_TIMEOUT(meter->device.lastColors() == meter15(true), 10000);
            QTRY_VERIFY_WITH_TIMEOUT(near(analyser->device.lastColors(), lowest), 5000);
            QCOMPARE(server.sourceOutputCount(), 1);
            if (restarts < 2) {
                player.stop();
                restarts == 0 ? server.kill() : server.killAll();
                QTRY_VERIFY_WITH_TIMEOUT(litCount(meter->device.lastColors()) == 0, 5000);
                QVERIFY(server.start() && player.start(server.sinkName()));
            }
        }
        QCOMPARE(log.count("[AudioCapManager]", QtWarningMsg), 2);
        QCOMPARE(log.count("[AudioCapManager]: The sound server is back", QtInfoMsg), 2);
        player.playSilence();
        release(analyser);
        release(meter);
        QTRY_COMPARE(server.sourceOutputCount(), 0);
    }

    // The music panel: an output that appears adds its row and choosing it moves the running mode
    // there; the strength is kept, the output is not; an output unloaded while chosen leaves the
    // strip dark and its row listed, and the other rows working.
    void panelPicksTheOutput()
    {
        auto rig = bind("P1", 20, mode1);
        QVERIFY(rig);
        AbsWorkerWidget* panel = panelOf(*rig, mode1);
        QVERIFY(panel && panel == manager->workerOptions(mode4).optionWidget);
        auto* strength = panel->findChild<QSlider*>("strengthSlider");
        QCOMPARE(strength->value(), 133); // the default 2.0
        auto* rows = panel->findChild<QComboBox*>("devicesComboBox");
        const int second = rows->count();
        const int module = server.loadSink("orvanta_second", "Second output");
        QVERIFY(module >= 0);
        QTRY_COMPARE(rows->count(), second + 1);
        QCOMPARE(rows->itemText(second), QString("Second output"));
        TonePlayer secondPlayer;
        QVERIFY(secondPlayer.start("orvanta_second"));
        secondPlayer.playTone(93.75, -18, TonePlayer::Left);
        QVERIFY(staysDark(rig->device)); // still on the default output
        rows->setCurrentIndex(second);
        QTRY_VERIFY_WITH_TIMEOUT(rig->device.lastColors() == meter15(false), 5000);

        // The top of the slider is kept in the strength and every fragment once it unloads.
        strength->setValue(200);
        release(rig);
        QVERIFY(!panel->effectWorker());
        ConfigurationManager* store = ConfigurationManager::instance();
        QCOMPARE(store->effectJsonValue(mode1, "OV5512:P1", "strength").toDouble(), 4.0);
        const QJsonObject bass =
            store->effectJsonValue(mode1, "OV5512:P1", "fragments").toObject().value("bass").toObject();
        QCOMPARE(bass.value("mulEnhance").toDouble(), 4.0);

        // Loaded again: its bar at strength 4.0 fills, from the default output, not the one chosen.
        rig = bind("P1", 20, mode1);
        QVERIFY(rig && staysDark(rig->device));
        player.playTone(93.75, -18, TonePlayer::Left);
        QTRY_VERIFY_WITH_TIMEOUT(litCount(rig->device.lastColors()) == 20, 5000);

        // The second output chosen, then unloaded while the default one plays: the worker hears
        // silence, then nothing, not the output that remains.
        panelOf(*rig, mode1);
        player.playSilence();
        rows->setCurrentIndex(second);
        QTRY_VERIFY_WITH_TIMEOUT(litCount(rig->device.lastColors()) == 20, 5000);
        secondPlayer.stop();
        player.playTone(93.75, -18, TonePlayer::Left);
        QVERIFY(!server.pactl({"unload-module", QString::number(module)}).isNull());
        const auto quiet = [&rig] { // no frame for half a second
            return std::chrono::steady_clock::now().time_since_epoch() -
                       std::chrono::nanoseconds(rig->device.lastFrameTimeNs()) >
                   std::chrono::milliseconds(500);
        };
        QTRY_VERIFY_WITH_TIMEOUT(litCount(rig->device.lastColors()) == 0 && quiet(), 5000);
        QCOMPARE(rows->count(), second + 1);
        rows->setCurrentIndex(0);
        QTRY_VERIFY_WITH_TIMEOUT(litCount(rig->device.lastColors()) == 20, 5000);
        player.playSilence();
        release(rig);
    }

    // The default output switched mid-music: a worker bound by load moves there with the panel's
    // row, one whose row the user picked stays; the default unloaded, the server's fallback is
    // followed; loaded again, it is the default and followed again.
    void followsTheDefaultOutput()
    {
        const int speakersModule = server.loadSink("speakers", "Speakers");
        const int headphonesModule = server.loadSink("headphones", "Headphones");
        QVERIFY(speakersModule >= 0 && headphonesModule >= 0);
        QVERIFY(!server.pactl({"set-default-sink", "speakers"}).isNull());
        AudioCapManager* outputs = AudioCapManager::instacne();
        QTRY_COMPARE_WITH_TIMEOUT(outputs->defaultCapturer(), QStringLiteral("speakers"), 10000);
        auto follower = bind("M1", 20, mode1);
        auto pinned = bind("P1", 20, mode1);
        QVERIFY(follower && pinned);
        auto* rows = panelOf(*pinned, mode1)->findChild<QComboBox*>("devicesComboBox");
        QCOMPARE(rows->currentText(), QStringLiteral("Speakers"));
        // The user's pick, away and back; handled before the panel turns to the other strip.
        rows->setCurrentIndex(rows->findText("Device test output"));
        rows->setCurrentIndex(rows->findText("Speakers"));
        QCoreApplication::sendPostedEvents();
        panelOf(*follower, mode1);
        QCOMPARE(rows->currentText(), QStringLiteral("Speakers"));

        TonePlayer headphones;
        QVERIFY(headphones.start("headphones"));
        headphones.playTone(93.75, -18, TonePlayer::Left);
        QElapsedTimer clock;
        clock.start();
        QVERIFY(!server.pactl({"set-default-sink", "headphones"}).isNull());
        QTRY_VERIFY_WITH_TIMEOUT(follower->device.lastColors() == meter15(false), 10000);
        qInfo("the following strip showed the new output's tone %lld ms after the switch", clock.elapsed());
        QCOMPARE(rows->currentText(), QStringLiteral("Headphones"));
        QVERIFY(staysDark(pinned->device));
        // Started now: the server moves a playing stream along with the default.
        TonePlayer speakers;
        QVERIFY(speakers.start("speakers"));
        speakers.playTone(93.75, -18, TonePlayer::Left);
        QTRY_VERIFY_WITH_TIMEOUT(litCount(pinned->device.lastColors()) >= 15, 5000); // its own strength
        speakers.playSilence();

        // Unloaded: the server's next default, whichever it is, with its row.
        headphones.stop();
        QVERIFY(!server.pactl({"unload-module", QString::number(headphonesModule)}).isNull());
        QTRY_VERIFY_WITH_TIMEOUT(!outputs->defaultCapturer().isEmpty() &&
                                     outputs->defaultCapturer() != QStringLiteral("headphones"),
                                 10000);
        const QString fallback = outputs->defaultCapturer();
        QTRY_COMPARE(rows->currentText(), outputs->capturerDesc(fallback));
        TonePlayer fallbackPlayer;
        QVERIFY(fallbackPlayer.start(fallback));
        fallbackPlayer.playTone(93.75, -18, TonePlayer::Left);
        QTRY_VERIFY_WITH_TIMEOUT(follower->device.lastColors() == meter15(false), 5000);
        fallbackPlayer.stop();

        // Back: the configured default again.
        const int headphonesAgain = server.loadSink("headphones", "Headphones");
        QVERIFY(headphonesAgain >= 0);
        QTRY_COMPARE_WITH_TIMEOUT(outputs->defaultCapturer(), QStringLiteral("headphones"), 10000);
        QTRY_COMPARE(rows->currentText(), QStringLiteral("Headphones"));
        QVERIFY(headphones.start("headphones"));
        headphones.playTone(93.75, -18, TonePlayer::Right);
        QTRY_VERIFY_WITH_TIMEOUT(litCount(follower->device.lastColors()) == 0, 5000);
        headphones.playTone(93.75, -18, TonePlayer::Left);
        QTRY_VERIFY_WITH_TIMEOUT(follower->device.lastColors() == meter15(false), 5000);
        headphones.stop();
        speakers.stop();
        release(pinned);
        release(follower);
        QVERIFY(!server.pactl({"set-default-sink", server.sinkName()}).isNull());
        for (int module : {speakersModule, headphonesAgain}) {
            QVERIFY(!server.pactl({"unload-module", QString::number(module)}).isNull());
        }
    }

    // A music effect started while the sound server is down (PipeWire too, as at a login where it
    // starts after the program), or has no output, listens to the default output once there is one.
    void bindsWhenTheOutputAppears_data()
    {
        QTest::addColumn<bool>("serverDown");
        QTest::newRow("server down") << true;
        QTest::newRow("no output") << false;
    }
    void bindsWhenTheOutputAppears()
    {
        QFETCH(bool, serverDown);
        player.stop();
        if (serverDown) {
            server.killAll();
        } else {
            QVERIFY(!server.pactl({"unload-module", "module-null-sink"}).isNull());
        }
        QTRY_VERIFY_WITH_TIMEOUT(AudioCapManager::instacne()->defaultCapturer().isEmpty(), 10000);
        auto rig = bind("M1", 20, mode1);
        QVERIFY(rig);
        QElapsedTimer clock;
        clock.start();
        QVERIFY(serverDown ? server.start() : server.loadSink(server.sinkName(), "Device test output") >= 0);
        QVERIFY(player.start(server.sinkName()));
        player.playTone(93.75, -18, TonePlayer::Left);
        QTRY_VERIFY_WITH_TIMEOUT(rig->device.lastColors() == meter15(false), 60000);
        qInfo("lit %lld ms after the output appeared", clock.elapsed());
        player.playSilence();
        release(rig);
    }
};

QTEST_MAIN(TestMusicOnDevice)
#include "tst_MusicOnDevice.moc"
