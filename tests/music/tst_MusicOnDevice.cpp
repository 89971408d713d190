#include "AbsWorkerWidget.h"
#include "AudioCapManager.h"
#include "ConfigurationManager.h"
#include "DeviceRig.h"
#include "EffectsManager.h"
#include "GradientWidget.h"
#include "LogCapture.h"
#include "MusicMode1.h"
#include "MusicMode3.h"
#include "PrivateSoundServer.h"
#include "TonePlayer.h"

#include <QComboBox>
#include <QJsonArray>
#include <QJsonObject>
#include <QPushButton>
#include <QSlider>
#include <QtTest>

#include <memory>

using Rgb = VirtualLedDevice::Rgb;

namespace {

const QString mode1 = QStringLiteral("com.orvanta.dynamicMusic.mode_1");
const QString mode2 = QStringLiteral("com.orvanta.dynamicMusic.mode_2");
const QString mode3 = QStringLiteral("com.orvanta.dynamicMusic.mode_3");
const QString mode4 = QStringLiteral("com.orvanta.dynamicMusic.mode_4");

ControlOptions options(const QString& serial, uint32_t nbLeds, QVector<uint32_t> lines = {})
{
    ControlOptions o = DeviceRig::defaultOptions(nbLeds);
    o.serial = serial;
    o.id = "OV5512:" + serial;
    if (!lines.isEmpty()) {
        o.lines = lines;
    }
    return o;
}

int litCount(const QVector<Rgb>& colors)
{
    return int(std::count_if(colors.cbegin(), colors.cend(), [](const Rgb& c) { return !(c == Rgb{}); }));
}

Rgb rgb(const OV_RGB& c)
{
    return Rgb{c.r, c.g, c.b};
}

bool near(const Rgb& a, const Rgb& b, int tolerance)
{
    return qAbs(a.r - b.r) <= tolerance && qAbs(a.g - b.g) <= tolerance && qAbs(a.b - b.b) <= tolerance;
}

// Mode 1 lights exactly the first `lit` LEDs of 20 from `foot` with the heat colours of `lit`.
bool meterShows(const QVector<Rgb>& colors, int lit, bool mirrored)
{
    if (colors.size() != 20 || litCount(colors) != lit) {
        return false;
    }
    for (int i = 0; i < lit; ++i) {
        if (!(colors[mirrored ? 19 - i : i] == rgb(MusicMode1::heatColor(lit, i)))) {
            return false;
        }
    }
    return true;
}

} // namespace

// The music modes bound by the effects manager to a real controller on a virtual strip,
// following tones played into a private PulseAudio daemon.
class TestMusicOnDevice : public QObject
{
    Q_OBJECT
private:
    PrivateSoundServer server{QStringLiteral("orvanta_device"), QStringLiteral("Device test output")};
    TonePlayer player;
    EffectsManager* manager = nullptr;

    struct Bound
    {
        DeviceRig rig;
        IEffectWorkerPtr worker;
    };
    std::unique_ptr<Bound> bind(const ControlOptions& o, const QString& effectId)
    {
        auto bound = std::make_unique<Bound>();
        if (!bound->rig.start(o)) {
            return nullptr;
        }
        bound->worker = manager->bind(bound->rig.controller, effectId);
        return bound;
    }
    void release(std::unique_ptr<Bound>& bound, const QString& ctlId)
    {
        bound->worker.clear();
        manager->unbind(ctlId);
        bound.reset();
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }

private slots:
    void initTestCase()
    {
        ConfigurationManager* store = ConfigurationManager::instance();
        store->reset();
        QVERIFY2(server.start(), qPrintable(server.errorString()));
        server.exportAddress();
        QCOMPARE(AudioCapManager::instacne()->defaultCapturer(), server.sinkName());
        QVERIFY(player.start(server.sinkName()));
        manager = new EffectsManager(this);
        // A 20-LED bar on 80..110 Hz of the left channel, for modes 1 and 3.
        const QJsonObject bar{{"beginIndex", 0},     {"endIndex", 20}, {"minFrequency", 80},
                              {"maxFrequency", 110}, {"dbEnhance", 0}, {"mulEnhance", 1},
                              {"soundChannel", 1},   {"dir", 0}};
        for (const QString& id : {mode1, mode3}) {
            store->setEffectJsonValue(id, "OV5512:M1", "fragments", QJsonObject{{"bass", bar}});
        }
        store->setEffectJsonValue(mode1, "OV5512:P1", "fragments", QJsonObject{{"bass", bar}});
    }

    void meter()
    {
        auto bound = bind(options("M1", 20), mode1);
        QVERIFY(bound && bound->worker);
        VirtualLedDevice& device = bound->rig.device;
        // -18 dBFS on a bin centre reads 62: 15 of 20 LEDs, green at the foot.
        player.playTone(93.75, -18, TonePlayer::Left);
        QTRY_VERIFY_WITH_TIMEOUT(meterShows(device.lastColors(), 15, false), 5000);
        QCOMPARE(device.lastColors()[0], (Rgb{0, 255, 0}));

        // When it stops the bar shrinks over several frames, never dark in the first.
        device.clearFrames();
        player.playSilence();
        QTRY_VERIFY_WITH_TIMEOUT(litCount(device.lastColors()) == 0, 5000);
        QVector<int> counts;
        for (const QByteArray& frame : device.frames()) {
            counts << int(std::count_if(frame.cbegin() + 6, frame.cend(), [](char b) { return b != 0; }));
        }
        const int firstLower =
            int(std::find_if(counts.cbegin(), counts.cend(), [&](int c) { return c < counts.first(); }) -
                counts.cbegin());
        QVERIFY2(firstLower < counts.size() && counts[firstLower] > 0,
                 qPrintable(QString::number(firstLower)));
        QVERIFY(counts.size() - firstLower >= 4);

        // The right channel is not this bar's; the install direction mirrors it.
        player.playTone(93.75, -18, TonePlayer::Right);
        QTRY_VERIFY_WITH_TIMEOUT(device.frameCount() > 0 && litCount(device.lastColors()) == 0, 5000);
        bound->rig.controller->setInstallDirection(1);
        player.playTone(93.75, -18, TonePlayer::Left);
        QTRY_VERIFY_WITH_TIMEOUT(meterShows(device.lastColors(), 15, true), 5000);

        // The server killed: one warning, a dark strip; restarted, the same worker follows again.
        LogCapture log;
        player.stop();
        server.kill();
        QTRY_VERIFY_WITH_TIMEOUT(litCount(device.lastColors()) == 0, 5000);
        QVERIFY(server.start());
        QVERIFY(player.start(server.sinkName()));
        player.playTone(93.75, -18, TonePlayer::Left);
        QTRY_VERIFY_WITH_TIMEOUT(meterShows(device.lastColors(), 15, true), 10000);
        QCOMPARE(log.count("[AudioCapManager]", QtWarningMsg), 1);
        QCOMPARE(log.count("[AudioCapManager]: The sound server is back", QtInfoMsg), 1);
        player.playSilence();
        release(bound, "OV5512:M1");
    }

    // The music panel: an output that appears adds its row; choosing it moves the running mode
    // there; its strength is kept.
    void panelPicksTheOutput()
    {
        auto bound = bind(options("P1", 20), mode1);
        QVERIFY(bound && bound->worker);
        manager->activeOperate("OV5512:P1", mode1);
        AbsWorkerWidget* panel = manager->workerOptions(mode1).optionWidget;
        QVERIFY(panel && panel == manager->workerOptions(mode4).optionWidget);
        auto* rows = panel->findChild<QComboBox*>("devicesComboBox");
        const int before = rows->count();
        QVERIFY(server.loadSink("orvanta_second", "Second output") >= 0);
        QTRY_COMPARE(rows->count(), before + 1);
        QCOMPARE(rows->itemText(before), QString("Second output"));

        TonePlayer second;
        QVERIFY(second.start("orvanta_second"));
        second.playTone(93.75, -18, TonePlayer::Left);
        QTest::qWait(300);
        QCOMPARE(litCount(bound->rig.device.lastColors()), 0); // still on the default output
        rows->setCurrentIndex(before);
        QTRY_VERIFY_WITH_TIMEOUT(litCount(bound->rig.device.lastColors()) > 0, 5000);
        second.playSilence();

        // The strength at the top of the slider is kept, in every fragment too, once it unloads.
        panel->findChild<QSlider*>("strengthSlider")->setValue(200);
        release(bound, "OV5512:P1");
        QVERIFY(!panel->effectWorker());
        ConfigurationManager* store = ConfigurationManager::instance();
        QCOMPARE(store->effectJsonValue(mode1, "OV5512:P1", "strength").toDouble(), 4.0);
        const QJsonObject fragments = store->effectJsonValue(mode1, "OV5512:P1", "fragments").toObject();
        QVERIFY(!fragments.isEmpty());
        for (const QJsonValue& fragment : fragments) {
            QCOMPARE(fragment.toObject().value("mulEnhance").toDouble(), 4.0);
        }

        // The output is not kept: loaded again, the mode listens to the default one.
        bound = bind(options("P1", 20), mode1);
        player.playTone(93.75, -18, TonePlayer::Left);
        QTRY_VERIFY_WITH_TIMEOUT(litCount(bound->rig.device.lastColors()) > 0, 5000);
        player.playSilence();
        release(bound, "OV5512:P1");
    }

    void moodPulse_data()
    {
        QTest::addColumn<double>("dbfs");
        QTest::addColumn<int>("red");
        QTest::newRow("silence") << -200.0 << 25;
        QTest::newRow("-40 dBFS") << -40.0 << 127;
        QTest::newRow("0 dBFS") << 0.0 << 255;
    }

    void moodPulse()
    {
        QFETCH(double, dbfs);
        QFETCH(int, red);
        auto bound = bind(options("M2", 6), mode2);
        QVERIFY(bound && bound->worker);
        // A strap of pure red, made on mode 2's panel, which edits its background mood worker.
        manager->activeOperate("OV5512:M2", mode2);
        AbsWorkerWidget* panel = manager->workerOptions(mode2).optionWidget;
        QVERIFY(panel);
        panel->findChild<QPushButton*>("addBtn")->click();
        auto* bar = panel->findChild<GradientWidget*>("gradientEditor");
        bar->setKeyColors({});
        bar->setEndsColor(Qt::red);
        bar->addKeyColor(Qt::red, 0.5);
        if (dbfs > -100) {
            player.playTone(1500, dbfs, TonePlayer::Both);
        }
        QTRY_VERIFY_WITH_TIMEOUT(bound->rig.device.lastColors() == QVector<Rgb>(6, Rgb{uint8_t(red), 0, 0}),
                                 5000);
        // At the mood worker's pace, about 30 frames a second; wide bounds for a loaded machine.
        const int before = bound->rig.device.frameCount();
        QTRY_VERIFY_WITH_TIMEOUT(bound->rig.device.frameCount() >= before + 10, 5000);
        QVERIFY2(bound->rig.device.frameRate() > 9 && bound->rig.device.frameRate() < 48,
                 qPrintable(QString::number(bound->rig.device.frameRate())));
        player.playSilence();
        release(bound, "OV5512:M2");
    }

    void peakColour()
    {
        auto bound = bind(options("M1", 20), mode3);
        QVERIFY(bound && bound->worker);
        VirtualLedDevice& device = bound->rig.device;
        const QVector<OV_RGB> row =
            MusicMode3::paintRow({{0.0, QColor(0, 0, 255)}, {1.0, QColor(255, 0, 0)}});
        QTRY_VERIFY_WITH_TIMEOUT(device.frameCount() > 0 && near(device.lastColors()[0], Rgb{0, 0, 255}, 2),
                                 5000);
        player.playTone(93.75, -40, TonePlayer::Left);
        QTRY_VERIFY_WITH_TIMEOUT(near(device.lastColors()[19], rgb(row[150]), 2), 5000);
        // Back to blue through colours between.
        device.clearFrames();
        player.playSilence();
        QTRY_VERIFY_WITH_TIMEOUT(near(device.lastColors()[0], Rgb{0, 0, 255}, 2), 5000);
        int between = 0;
        for (const QByteArray& frame : device.frames()) {
            const Rgb c{uint8_t(frame[6]), uint8_t(frame[7]), uint8_t(frame[8])};
            between += !near(c, rgb(row[150]), 2) && !near(c, Rgb{0, 0, 255}, 2);
        }
        QVERIFY(between >= 2);
        release(bound, "OV5512:M1");
    }

    void analyserAndSharing()
    {
        // Modes 1 and 4 on two strips share one recording stream, and both follow.
        auto analyser = bind(options("M4", 24, {12, 12}), mode4);
        auto meter = bind(options("M1", 20), mode1);
        QVERIFY(analyser && meter);
        QTRY_COMPARE(server.sourceOutputCount(), 1);
        const QVector<OV_RGB> row =
            MusicMode3::paintRow({{0.0, QColor(0, 0, 255)}, {1.0, QColor(255, 0, 0)}});
        const QVector<Rgb> blue(24, rgb(row[0]));
        for (int side : {1, 2}) {
            player.playTone(375, -6, TonePlayer::Channels(side));
            QVector<Rgb> expected = blue;
            expected[side == 1 ? 2 : 21] = rgb(row[299]);
            QTRY_VERIFY2_WITH_TIMEOUT(analyser->rig.device.lastColors() == expected,
                                      analyser->rig.device.lastFrame().toHex().constData(), 5000);
            QCOMPARE(int(analyser->rig.device.lastCount()), 24);
        }
        player.playTone(93.75, -18, TonePlayer::Left);
        QTRY_VERIFY_WITH_TIMEOUT(meterShows(meter->rig.device.lastColors(), 15, false), 5000);
        QCOMPARE(server.sourceOutputCount(), 1);
        player.playSilence();
        release(analyser, "OV5512:M4");
        release(meter, "OV5512:M1");
        QTRY_COMPARE(server.sourceOutputCount(), 0);
    }
};

QTEST_MAIN(TestMusicOnDevice)
#include "tst_MusicOnDevice.moc"
