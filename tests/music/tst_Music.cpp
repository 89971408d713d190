#include "AbsMusicEffect.h"
#include "ConfigurationManager.h"
#include "InternalEffectFactory.h"
#include "LogCapture.h"
#include "MMSOptWidget.h"
#include "MusicMode1.h"
#include "MusicMode2.h"
#include "MusicMode3.h"
#include "MusicMode4.h"
#include "MusicTestData.h"
#include "TestFiles.h"

#include <QCoreApplication>
#include <QDir>
#include <QImage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QLinearGradient>
#include <QPainter>
#include <QSignalSpy>
#include <QtTest>

using Frame = QVector<QVector<OV_RGB>>;
using Flat = QVector<OV_RGB>;
using namespace MusicTestData;

namespace {

const QString mode1Id = QStringLiteral("com.orvanta.dynamicMusic.mode_1");

ControlOptions strip(const QString& model, uint32_t nbLeds, QVector<uint32_t> lines = {})
{
    ControlOptions options;
    options.model = model;
    options.id = model + QStringLiteral(":1");
    options.nbLeds = nbLeds;
    options.lines = lines.isEmpty() ? QVector<uint32_t>{nbLeds} : lines;
    return options;
}

void writeDefaults(const QString& model, const QByteArray& bytes)
{
    QVERIFY(TestFiles::write(
        QCoreApplication::applicationDirPath() + "/effects/dynamicMusic/" + model + ".json", bytes));
}

QByteArray fragmentsJson(const QJsonObject& fragments)
{
    return QJsonDocument(QJsonObject{{"fragments", fragments}}).toJson();
}

QJsonObject fragmentJson(int begin, int end, double lo, double hi, int channel, int dir)
{
    return QJsonObject{{"beginIndex", begin}, {"endIndex", end},         {"minFrequency", lo},
                       {"maxFrequency", hi},  {"soundChannel", channel}, {"dir", dir},
                       {"dbEnhance", 0.0},    {"mulEnhance", 1.0}};
}

// "name:begin-end:dir" per fragment, sorted by name.
QString describe(const QHash<QString, Fragment>& fragments)
{
    QStringList parts;
    for (auto it = fragments.constBegin(); it != fragments.constEnd(); ++it) {
        parts
            << QStringLiteral("%1:%2-%3:%4").arg(it.key()).arg(it->beginIndex).arg(it->endIndex).arg(it->dir);
    }
    parts.sort();
    return parts.join(' ');
}

// One character per LED: '.' dark, '#' lit.
QString litMask(const Flat& leds)
{
    QString mask;
    for (const OV_RGB& c : leds) {
        mask += (c == OV_RGB{}) ? QLatin1Char('.') : QLatin1Char('#');
    }
    return mask;
}

Flat lastFlat(const QSignalSpy& spy)
{
    Flat all;
    for (const Flat& line : spy.last().at(0).value<Frame>()) {
        all += line;
    }
    return all;
}

qint64 fakeNow = 0;
qint64 fakeClock()
{
    return fakeNow;
}

} // namespace

// The analysis maths and the four music modes on synthetic deliveries; no sound server.
class TestMusic : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase()
    {
        // No server: the modes load with empty capturer lists and stay silent.
        qputenv("PULSE_SERVER", "unix:/nonexistent/orvanta-test");
        ConfigurationManager::instance()->reset();
        QDir(QCoreApplication::applicationDirPath() + "/effects").removeRecursively();
    }

    // The strength slider of modes 1, 3 and 4: a bend at 100; a value may drift by one step.
    void strengthSlider_data()
    {
        QTest::addColumn<double>("strength");
        QTest::addColumn<int>("value");
        QTest::addColumn<double>("back");
        QTest::newRow("default 2.0") << 2.0 << 133 << 1.99;
        QTest::newRow("mode 4's 3.0") << 3.0 << 166 << 2.98;
        QTest::newRow("the bend") << 1.0 << 100 << 1.0;
        QTest::newRow("below the bend") << 0.505 << 1 << 0.505;
    }
    void strengthSlider()
    {
        QFETCH(double, strength);
        QFETCH(int, value);
        QFETCH(double, back);
        QCOMPARE(MMSOptWidget::valueOf(strength), value);
        QVERIFY(qAbs(MMSOptWidget::strengthOf(value) - back) < 1e-9);
    }

    void analysis_data()
    {
        QTest::addColumn<double>("hz");
        QTest::addColumn<double>("dbfs");
        QTest::addColumn<int>("mask");
        QTest::addColumn<int>("bin");
        QTest::addColumn<double>("db");
        QTest::addColumn<double>("tolerance");
        QTest::newRow("1500 Hz full scale, left") << 1500.0 << 0.0 << 1 << 64 << 80.0 << 0.01;
        QTest::newRow("93.75 Hz -20 dBFS, right") << 93.75 << -20.0 << 2 << 4 << 60.0 << 0.01;
        QTest::newRow("15000 Hz -40 dBFS, both") << 15000.0 << -40.0 << 3 << 640 << 40.0 << 0.01;
        QTest::newRow("1000 Hz between bins") << 1000.0 << -6.0 << 1 << 43 << 74.0 << 1.5;
        QTest::newRow("-90 dBFS reads silence") << 1500.0 << -90.0 << 1 << 0 << 0.0 << 0.0;
    }

    void analysis()
    {
        QFETCH(double, hz);
        QFETCH(double, dbfs);
        QFETCH(int, mask);
        QFETCH(int, bin);
        QFETCH(double, db);
        QFETCH(double, tolerance);
        SpectrumAnalyzer analyzer;
        const std::vector<float> frames = sine(hz, dbfs, mask, 4096);
        QVERIFY(analyzer.push(frames.data(), 4096));
        const QVector<SoundChannel> channels = analyzer.analyse(42);
        QCOMPARE(channels.size(), 2);
        for (int c = 0; c < 2; ++c) {
            const SoundChannel& channel = channels[c];
            QCOMPARE(channel.captureTimeNs, qint64(42));
            QCOMPARE(channel.spectrums.size(), 1025);
            QCOMPARE(channel.spectrums[1024].frequency, 24000.0f);
            QCOMPARE(channel.spectrums[bin].frequency, float(bin * 48000.0 / 2048));
            if (mask & (1 << c)) {
                QCOMPARE(loudestBin(channel), bin);
                QVERIFY2(qAbs(channel.spectrums[bin].db - db) <= tolerance,
                         qPrintable(QString::number(channel.spectrums[bin].db)));
            } else {
                QCOMPARE(channel.spectrums[loudestBin(channel)].db, 0.0f);
            }
        }
    }

    void pacing()
    {
        // One delivery per 960 frames; after a stall one delivery, then the pace goes on.
        SpectrumAnalyzer analyzer;
        const std::vector<float> frames = sine(375, -6, 3, 5000);
        QVERIFY(!analyzer.push(frames.data(), 959));
        QVERIFY(analyzer.push(frames.data(), 1));
        analyzer.analyse(0);
        QVERIFY(analyzer.push(frames.data(), 5000));
        analyzer.analyse(0);
        QVERIFY(!analyzer.push(frames.data(), 960 - 5000 % 960 - 1));
        QVERIFY(analyzer.push(frames.data(), 1));
    }

    void peakDb_data()
    {
        QTest::addColumn<double>("lo");
        QTest::addColumn<double>("hi");
        QTest::addColumn<bool>("rising");
        QTest::addColumn<double>("expected");
        const double bin = 48000.0 / 2048;
        QTest::newRow("lower bound on a bin includes it") << 3 * bin << 5 * bin << false << 997.0;
        QTest::newRow("upper bound on a bin includes it") << 3 * bin << 5 * bin << true << 5.0;
        QTest::newRow("narrower than a bin reads the next") << 30.0 << 40.0 << true << 2.0;
        QTest::newRow("top bin") << 23990.0 << 24000.0 << true << 1024.0;
        QTest::newRow("above the last bin reads silence") << 30000.0 << 31000.0 << true << 0.0;
    }

    void peakDb()
    {
        QFETCH(double, lo);
        QFETCH(double, hi);
        QFETCH(bool, rising);
        QFETCH(double, expected);
        QVector<Spectrum> bins = SpectrumAnalyzer::silence(0)[0].spectrums;
        for (int k = 0; k < bins.size(); ++k) {
            bins[k].db = rising ? k : 1000 - k;
        }
        QCOMPARE(AbsMusicEffect::peakDb(bins, lo, hi), expected);
    }

    void mode1Configuration_data()
    {
        QTest::addColumn<QByteArray>("file");
        QTest::addColumn<int>("leds");
        QTest::addColumn<QString>("fragments");
        QTest::addColumn<QString>("warning");
        QTest::newRow("not JSON, 5 LEDs")
            << QByteArray("{ not json") << 5 << "left:0-2:1 mid:2-3:0 right:3-5:0"
            << "没有为";
        QTest::newRow("no fragments, 72 LEDs")
            << QByteArray("{\"x\": 1}") << 72 << "left:0-36:1 right:36-72:0"
            << "没有为";
        QTest::newRow("no file, 1 LED") << QByteArray() << 1 << "left:0-0:1 mid:0-1:0 right:1-1:0"
                                        << "没有为";
        QTest::newRow("empty bar refused")
            << fragmentsJson(
                   {{"a", fragmentJson(5, 5, 100, 200, 0, 0)}, {"b", fragmentJson(0, 3, 100, 200, 0, 0)}})
            << 8 << "b:0-3:0"
            << "音乐模式1的配置文件a不合规，endIndex与beginIndex至少相隔一个灯珠";
        QTest::newRow("10 Hz band refused, 10.5 Hz kept")
            << fragmentsJson(
                   {{"a", fragmentJson(0, 2, 100, 110, 0, 0)}, {"b", fragmentJson(2, 4, 100, 110.5, 0, 1)}})
            << 8 << "b:2-4:1"
            << "音乐模式1的配置文件a不合规，minFrequency与maxFreqnency至少相隔10Hz";
    }

    void mode1Configuration()
    {
        QFETCH(QByteArray, file);
        QFETCH(int, leds);
        QFETCH(QString, fragments);
        QFETCH(QString, warning);
        const QString model = QStringLiteral("CFG%1").arg(QTest::currentDataTag()).remove(' ');
        if (!file.isEmpty()) {
            writeDefaults(model, file);
        }
        LogCapture log;
        MusicMode1 mode(EffectWorkerOptions::make(mode1Id, "m1", 1));
        mode.load(strip(model, uint32_t(leds)));
        QCOMPARE(describe(mode.getFragments()), fragments);
        QCOMPARE(log.count(warning, QtWarningMsg), 1);
        QCOMPARE(mode.getStrength(), 2.0);
    }

    void mode1StoreWinsAfterUnload()
    {
        // What a worker saved at unload replaces the model's file for the next load.
        writeDefaults("STORE", fragmentsJson({{"file", fragmentJson(0, 4, 100, 200, 0, 0)}}));
        {
            MusicMode1 mode(EffectWorkerOptions::make(mode1Id, "m1", 1));
            mode.load(strip("STORE", 8));
            Fragment edited = mode.getFragments().value("file");
            edited.endIndex = 6;
            mode.setFragment("file", edited);
            mode.setStrength(3.5);
            mode.unload();
        }
        MusicMode1 mode(EffectWorkerOptions::make(mode1Id, "m1", 1));
        mode.load(strip("STORE", 8));
        QCOMPARE(describe(mode.getFragments()), QStringLiteral("file:0-6:0"));
        QCOMPARE(mode.getStrength(), 3.5);
    }

    void mode1Bar_data()
    {
        QTest::addColumn<int>("n");
        QTest::addColumn<int>("dir");
        QTest::addColumn<double>("value");
        QTest::addColumn<QString>("mask");
        QTest::newRow("half, from the foot") << 10 << 0 << 40.0 << "#####.....";
        QTest::newRow("half, from the head") << 10 << 1 << 40.0 << ".....#####";
        QTest::newRow("dir 2 lights nothing") << 10 << 2 << 80.0 << "..........";
        QTest::newRow("one LED, any sound") << 1 << 0 << 0.5 << "#";
        QTest::newRow("one LED, silence") << 1 << 0 << 0.0 << ".";
    }

    void mode1Bar()
    {
        QFETCH(int, n);
        QFETCH(int, dir);
        QFETCH(double, value);
        QFETCH(QString, mask);
        MusicMode1 mode(EffectWorkerOptions::make(mode1Id, "m1", 1));
        Fragment fragment;
        fragment.endIndex = n;
        fragment.dir = dir;
        const Flat bar = mode.barColors("x", fragment, value);
        QCOMPARE(litMask(bar), mask);
        if (dir < 2 && n > 1) {
            // The foot of the bar is green whatever its height.
            QCOMPARE(bar[dir == 0 ? 0 : n - 1], (OV_RGB{0, 255, 0}));
        }
    }

    void heatColors()
    {
        // 60 LEDs at level 80: green at the foot, red from the 42nd, nearly red at the 41st.
        QCOMPARE(MusicMode1::heatColor(60, 0), (OV_RGB{0, 255, 0}));
        QCOMPARE(MusicMode1::heatColor(60, 41), (OV_RGB{255, 0, 0}));
        QCOMPARE(MusicMode1::heatColor(60, 59), (OV_RGB{255, 0, 0}));
        const OV_RGB almost = MusicMode1::heatColor(60, 40);
        QVERIFY(almost.r == 255 && almost.g > 0 && almost.g < 20);
    }

    void mode1Strip()
    {
        // A bar hanging off each end of a 10-LED strip of two lines: only the strip is written.
        writeDefaults("CLIP", fragmentsJson({{"a", fragmentJson(-2, 3, 80, 110, 1, 1)},
                                             {"b", fragmentJson(8, 12, 80, 110, 2, 0)}}));
        MusicMode1 mode(EffectWorkerOptions::make(mode1Id, "m1", 1));
        QSignalSpy spy(&mode, QOverload<Frame>::of(&IEffectWorker::updateColors));
        mode.load(strip("CLIP", 10, {4, 6}));
        mode.spectrumUpdate(delivery(80, 110, 80, 80));
        QCOMPARE(spy.last().at(0).value<Frame>().size(), 2);
        QCOMPARE(spy.last().at(0).value<Frame>().at(1).size(), 6);
        QCOMPARE(litMask(lastFlat(spy)), QStringLiteral("###.....##"));
        QCOMPARE(lastFlat(spy)[2], (OV_RGB{0, 255, 0}));
        QCOMPARE(lastFlat(spy)[9], MusicMode1::heatColor(4, 1));

        // Bar a falls to half while b stays full on the right channel; mirrored by the direction.
        mode.onCtlDirChanged(1);
        mode.spectrumUpdate(delivery(80, 110, 0, 80));
        QCOMPARE(litMask(lastFlat(spy)), QStringLiteral("##.....##."));

        // The fall: never dark at the first silent delivery, dark after ten.
        mode.onCtlDirChanged(0);
        mode.spectrumUpdate(delivery(80, 110, 0, 0));
        QCOMPARE(litMask(lastFlat(spy)), QStringLiteral("..#.....##"));
        for (int i = 0; i < 9; ++i) {
            mode.spectrumUpdate(delivery(80, 110, 0, 0));
        }
        QCOMPARE(litMask(lastFlat(spy)), QStringLiteral(".........."));
    }

    void mode2Level_data()
    {
        QTest::addColumn<float>("left");
        QTest::addColumn<float>("right");
        QTest::addColumn<int>("byte");
        QTest::newRow("silence keeps a tenth") << 0.0f << 0.0f << 25;
        QTest::newRow("40 on the left") << 40.0f << 0.0f << 127;
        QTest::newRow("80 on the right") << 0.0f << 80.0f << 255;
    }

    void mode2Level()
    {
        QFETCH(float, left);
        QFETCH(float, right);
        QFETCH(int, byte);
        MusicMode2 mode(EffectWorkerOptions::make("com.orvanta.dynamicMusic.mode_2", "m2", 0));
        mode.load(strip("M2", 3));
        QSignalSpy spy(&mode, QOverload<Frame>::of(&IEffectWorker::updateColors));
        mode.spectrumUpdate(delivery(20, 16000, left, right));
        emit mode.getMoodShadow()->updateColors(Frame{Flat(3, OV_RGB{255, 255, 0})});
        QCOMPARE(spy.size(), 1);
        QCOMPARE(lastFlat(spy)[1], (OV_RGB{uint8_t(byte), uint8_t(byte), 0}));
        mode.unload();
    }

    void peakFollower_data()
    {
        QTest::addColumn<QString>("steps"); // "ms:input=output ..."
        QTest::newRow("first sound in the same ms passes") << "1000:40=40";
        QTest::newRow("straight fall, then settled") << "1000:40=40 1100:0=24 1300:0=0";
        QTest::newRow("louder input passes during a fall") << "1000:40=40 1100:30=30";
        QTest::newRow("input clamped to 80") << "1000:95=80 1250:0=40";
    }

    void peakFollower()
    {
        QFETCH(QString, steps);
        PeakFollower::setClock(&fakeClock);
        PeakFollower follower;
        for (const QString& step : steps.split(' ')) {
            const QStringList parts = step.split(QRegularExpression("[:=]"));
            fakeNow = parts[0].toLongLong();
            QCOMPARE(follower.update(parts[1].toDouble()), parts[2].toDouble());
        }
        PeakFollower::setClock(nullptr);
    }

    void mode3Colors()
    {
        // The cached row against a freshly painted blue-to-red row, pixel for pixel.
        QImage image(300, 1, QImage::Format_RGB888);
        QLinearGradient gradient(0, 0, 300, 0);
        gradient.setColorAt(0.0, QColor(0, 0, 255));
        gradient.setColorAt(1.0, QColor(255, 0, 0));
        QPainter(&image).fillRect(image.rect(), gradient);

        writeDefaults("M3", fragmentsJson({{"a", fragmentJson(0, 3, 80, 110, 0, 0)}}));
        MusicMode3 mode(EffectWorkerOptions::make("com.orvanta.dynamicMusic.mode_3", "m3", 2));
        QSignalSpy first(&mode, QOverload<Flat>::of(&IEffectWorker::updateColors));
        mode.load(strip("M3", 3));
        PeakFollower::setClock(&fakeClock); // one instant: rising values pass unchanged
        fakeNow = 5000;
        Fragment fragment = mode.getFragments().value("a");
        for (int x = 0; x < 300; x += 7) {
            const QColor c = image.pixelColor(x, 0);
            const Flat bar = mode.barColors("a", fragment, (x + 0.5) * 80.0 / 300);
            QCOMPARE(bar, Flat(3, OV_RGB{uint8_t(c.red()), uint8_t(c.green()), uint8_t(c.blue())}));
        }
        const QColor top = image.pixelColor(299, 0);
        QCOMPARE(mode.barColors("a", fragment, 80.0)[0],
                 (OV_RGB{uint8_t(top.red()), uint8_t(top.green()), uint8_t(top.blue())}));
        PeakFollower::setClock(nullptr);
        // The first picture, 10 ms after load: blue.
        QTRY_COMPARE(first.size(), 1);
        QCOMPARE(first.last().at(0).value<Flat>(), Flat(3, OV_RGB{0, 0, 255}));
    }

    void mode4Fragments_data()
    {
        QTest::addColumn<int>("leds");
        QTest::addColumn<QString>("fragments");
        QTest::addColumn<QString>("rightChannel");
        QTest::newRow("5 LEDs") << 5 << "0:0-1:0 1:1-2:0 2:2-3:0 3:3-4:0 4:4-5:0"
                                << "2 3 4";
    }

    void mode4Fragments()
    {
        QFETCH(int, leds);
        QFETCH(QString, fragments);
        QFETCH(QString, rightChannel);
        MusicMode4 mode(EffectWorkerOptions::make("com.orvanta.dynamicMusic.mode_4", "m4", 3));
        mode.load(strip("M4", uint32_t(leds), {2, uint32_t(leds - 2)}));
        QCOMPARE(describe(mode.getFragments()), fragments);
        QStringList right;
        for (auto it = mode.getFragments().constBegin(); it != mode.getFragments().constEnd(); ++it) {
            if (it->soundChannel == 2) {
                right << it.key();
            }
            QVERIFY(it->mulEnhance == 3.0 && it->dbEnhance == 0.0);
        }
        right.sort();
        QCOMPARE(right.join(' '), rightChannel);
        const double step = 1600.0 / (leds - leds / 2);
        QCOMPARE(mode.getFragments().value("0").maxFrequency, 40.0 + step);
        QCOMPARE(mode.getStrength(), 3.0);

        // One line of all LEDs whatever the lines. LED 1 hears the left channel and weighs 2:
        // 5 dB times 3 times 2 reads 30, pixel 112.
        QSignalSpy spy(&mode, QOverload<Frame>::of(&IEffectWorker::updateColors));
        const double lo = mode.getFragments().value("1").minFrequency;
        mode.spectrumUpdate(delivery(lo + 1, lo + step - 1, 5, 0));
        QCOMPARE(spy.last().at(0).value<Frame>().size(), 1);
        const QVector<OV_RGB> row =
            MusicMode3::paintRow({{0.0, QColor(0, 0, 255)}, {1.0, QColor(255, 0, 0)}});
        QCOMPARE(lastFlat(spy)[1], row[112]);
        QCOMPARE(lastFlat(spy)[leds - 2], row[0]);
        QCOMPARE(lastFlat(spy)[0], row[0]);
    }

    void modelFiles_data()
    {
        QTest::addColumn<QString>("model");
        const QJsonObject models =
            TestFiles::readJson(ORVANTA_DATA_DIR "/controler_config/OVController.json");
        QVERIFY(!models.isEmpty());
        for (const QString& model : models.keys()) {
            QTest::newRow(qPrintable(model)) << model;
        }
    }

    void modelFiles()
    {
        QFETCH(QString, model);
        const QJsonObject spec = TestFiles::readJson(ORVANTA_DATA_DIR "/controler_config/OVController.json")
                                     .value(model)
                                     .toObject();
        const QString path = ORVANTA_DATA_DIR "/effects/dynamicMusic/" + model + ".json";
        const QJsonObject fragments = TestFiles::readJson(path).value("fragments").toObject();
        const int leds = spec.value("nbLeds").toInt();
        QVector<int> owners(leds, 0);
        QSet<int> channels;
        bool bass = false, mids = false, highs = false;
        for (const QJsonValue& value : fragments) {
            const QJsonObject f = value.toObject();
            const int begin = f.value("beginIndex").toInt(), end = f.value("endIndex").toInt();
            QVERIFY(begin >= 0 && begin < end && end <= leds);
            for (int i = begin; i < end; ++i) {
                ++owners[i];
            }
            const double lo = f.value("minFrequency").toDouble(), hi = f.value("maxFrequency").toDouble();
            QVERIFY(lo >= 20 && hi <= 16000 && hi - lo > 10);
            bass |= hi <= 250;
            mids |= lo >= 250 && hi <= 2000;
            highs |= lo >= 2000;
            channels.insert(f.value("soundChannel").toInt());
            QVERIFY(f.value("dir").toInt() == 0 || f.value("dir").toInt() == 1);
            // 0 dBFS fills a bar at the default strength; -40 dBFS shows nothing below the treble.
            const double cut = f.value("dbEnhance").toDouble(), mul = f.value("mulEnhance").toDouble();
            QCOMPARE(mul, 2.0);
            QVERIFY(cut >= -40 && cut <= -30 && (80 + cut) * mul >= 80);
            QVERIFY(lo >= 2000 || (40 + cut) * mul <= 0);
        }
        QCOMPARE(owners, QVector<int>(leds, 1));
        QVERIFY(bass && mids && highs);
        QVERIFY(channels.contains(1) && channels.contains(2));

        // Loaded through modes 1 and 3 with no warning.
        QVERIFY(QFile::copy(path, QCoreApplication::applicationDirPath() + "/effects/dynamicMusic/" + model +
                                      "file.json"));
        QVector<uint32_t> lines;
        for (const QJsonValue& v : spec.value("lines").toArray()) {
            lines << uint32_t(v.toInt());
        }
        LogCapture log;
        MusicMode1 mode1(EffectWorkerOptions::make(mode1Id, "m1", 1));
        mode1.load(strip(model + "file", uint32_t(leds), lines));
        MusicMode3 mode3(EffectWorkerOptions::make("com.orvanta.dynamicMusic.mode_3", "m3", 2));
        mode3.load(strip(model + "file", uint32_t(leds), lines));
        QCOMPARE(mode1.getFragments().size(), fragments.size());
        QCOMPARE(mode3.getFragments().size(), fragments.size());
        QCOMPARE(log.count("", QtWarningMsg) - log.count("[AudioCapManager]", QtWarningMsg), 0);
    }
};

QTEST_GUILESS_MAIN(TestMusic)
#include "tst_Music.moc"
