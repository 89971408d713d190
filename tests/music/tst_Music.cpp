#include "LogCapture.h"
#include "SignalGenerator.h"
#include "TestFiles.h"
#include "effects/music/MusicMode1.h"
#include "effects/music/MusicMode3.h"
#include "effects/music/MusicMode4.h"
#include "service/audio/SpectrumAnalyzer.h"
#include "service/config/ConfigurationManager.h"

#include <QtTest>

using Frame = QVector<QVector<OV_RGB>>;
using Flat = QVector<OV_RGB>;

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

QString defaultsPath(const QString& model)
{
    return QCoreApplication::applicationDirPath() + "/effects/dynamicMusic/" + model + ".json";
}

// A model's file of named fragments, each "begin end minHz maxHz channel dir".
QByteArray fragmentsFile(const QMap<QString, QVector<double>>& fragments)
{
    const QStringList keys{"beginIndex", "endIndex", "minFrequency", "maxFrequency", "soundChannel", "dir"};
    QJsonObject all;
    for (auto it = fragments.constBegin(); it != fragments.constEnd(); ++it) {
        QJsonObject fragment{{"dbEnhance", 0.0}, {"mulEnhance", 1.0}};
        for (int i = 0; i < keys.size(); ++i) {
            fragment.insert(keys[i], it->at(i));
        }
        all.insert(it.key(), fragment);
    }
    return QJsonDocument(QJsonObject{{"fragments", all}}).toJson();
}

// Every bin silent but those within lo..hi Hz, which read the given levels left and right.
QVector<SoundChannel> delivery(double lo, double hi, float leftDb, float rightDb)
{
    QVector<SoundChannel> channels = SpectrumAnalyzer::silence(0);
    for (int c = 0; c < 2; ++c) {
        for (Spectrum& s : channels[c].spectrums) {
            s.db = (s.frequency >= lo && s.frequency <= hi) ? (c == 0 ? leftDb : rightDb) : 0.0f;
        }
    }
    return channels;
}

// "name:begin-end:dir:channel" per fragment, sorted by name.
QString describe(const QHash<QString, Fragment>& fragments)
{
    QStringList parts;
    for (auto it = fragments.constBegin(); it != fragments.constEnd(); ++it) {
        parts << QString::asprintf("%s:%d-%d:%d:%d", qPrintable(it.key()), it->beginIndex, it->endIndex,
                                   it->dir, it->soundChannel);
    }
    parts.sort();
    return parts.join(' ');
}

// The newest frame's LEDs in strip order, one character each: '.' dark, '#' lit.
QString lastMask(const QSignalSpy& spy)
{
    QString mask;
    for (const Flat& line : spy.last().at(0).value<Frame>()) {
        for (const OV_RGB& c : line) {
            mask += (c == OV_RGB{}) ? QLatin1Char('.') : QLatin1Char('#');
        }
    }
    return mask;
}

qint64 fakeNow = 0; // the peak follower's clock, when set

// Feeds seconds of the sound to the analyser, each delivery to the given function.
template <typename Delivered>
void feed(SignalGenerator& sound, SpectrumAnalyzer& analyzer, double seconds, Delivered delivered)
{
    for (int n = int(seconds * 50); n > 0; --n) {
        const std::vector<float> hop = sound.take(SpectrumAnalyzer::kHop);
        if (analyzer.push(hop.data(), SpectrumAnalyzer::kHop)) {
            delivered(analyzer.analyse(0));
            fakeNow += 20;
        }
    }
}

} // namespace

// The music modes' maths on synthetic deliveries, with no sound server.
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

    // The scale: the loudest bin's follower reads 80, rises at once, falls 12 dB a second of
    // sound; below -90 dBFS is dark.
    void scale_data()
    {
        QTest::addColumn<QString>("steps"); // "dBFS:seconds" of a 1500 Hz tone in turn
        QTest::addColumn<double>("low");    // its bin at the end
        QTest::addColumn<double>("high");
        QTest::newRow("a quiet tone reads the top") << "-60:1" << 79.5 << 80.0;
        QTest::newRow("below the floor is dark") << "-95:1" << 0.0 << 0.0;
        QTest::newRow("a step up reads the top at once") << "-40:1 -10:0.1" << 79.5 << 80.0;
        QTest::newRow("a step down of 30 dB reads 40") << "-10:1 -40:0.1" << 38.0 << 44.0;
        QTest::newRow("and less after 1 s") << "-10:1 -40:1" << 50.0 << 60.0;
        QTest::newRow("and the top after 5 s") << "-10:1 -40:5" << 79.5 << 80.0;
    }
    void scale()
    {
        QFETCH(QString, steps);
        QFETCH(double, low);
        QFETCH(double, high);
        SpectrumAnalyzer analyzer;
        SignalGenerator sound;
        float level = -1;
        for (const QString& step : steps.split(' ')) {
            sound.setTone(1500, step.section(':', 0, 0).toDouble());
            feed(sound, analyzer, step.section(':', 1).toDouble(),
                 [&](auto d) { level = d[0].spectrums[64].db; });
        }
        QVERIFY2(level >= low && level <= high, qPrintable(QString::number(level)));
    }

    // Noise and a tone mix at any level light part of a model's meter (mode 1) and show several
    // colours on the analyser (mode 4): blue, between, red by thirds of its gradient.
    void levels_data()
    {
        QTest::addColumn<bool>("noise");
        QTest::addColumn<double>("rmsDbfs");
        for (double level : {-10.0, -20.0, -35.0}) {
            QTest::addRow("pink noise at %g dBFS", level) << true << level;
            QTest::addRow("tone mix at %g dBFS", level) << false << level;
        }
    }
    void levels()
    {
        QFETCH(bool, noise);
        QFETCH(double, rmsDbfs);
        QVERIFY(TestFiles::write(defaultsPath("OV5512"),
                                 TestFiles::read(ORVANTA_DATA_DIR "/effects/dynamicMusic/OV5512.json")));
        PeakFollower::setClock([] { return fakeNow; });
        MusicMode1 meter(EffectWorkerOptions::make(mode1Id, "m1", 1));
        meter.load(strip("OV5512", 72, {18, 36, 18}));
        MusicMode4 analyser(EffectWorkerOptions::make("com.orvanta.dynamicMusic.mode_4", "m4", 3));
        analyser.load(strip("LEVELS", 72));
        QSignalSpy meterFrames(&meter, QOverload<Frame>::of(&IEffectWorker::updateColors));
        QSignalSpy analyserFrames(&analyser, QOverload<Frame>::of(&IEffectWorker::updateColors));
        SpectrumAnalyzer analyzer;
        SignalGenerator sound;
        noise ? sound.setPinkNoise(rmsDbfs) : sound.setToneMix(rmsDbfs);
        feed(sound, analyzer, 3, [&](auto d) {
            meter.spectrumUpdate(d);
            analyser.spectrumUpdate(d);
        });
        PeakFollower::setClock(nullptr);
        const int lit = lastMask(meterFrames).count('#');
        int classes[3] = {0, 0, 0}; // blue, between, red
        for (const OV_RGB& c : analyserFrames.last().at(0).value<Frame>().value(0)) {
            ++classes[std::min(2, 3 * c.r / std::max(1, c.r + c.b))];
        }
        qInfo("meter: %d of 72 LEDs lit; analyser: %d blue, %d between, %d red", lit, classes[0], classes[1],
              classes[2]);
        QVERIFY(lit >= 8 && lit <= 64);
        QVERIFY(classes[0] > 0 && classes[1] > 0 && classes[2] > 0);
    }

    // Mode 1's fragments from the model's file, or from the store when it holds them (as a
    // worker's unload leaves them); the defaults, with a warning, when neither gives any.
    void mode1Configuration_data()
    {
        QTest::addColumn<QByteArray>("file");
        QTest::addColumn<QJsonObject>("stored");
        QTest::addColumn<int>("leds");
        QTest::addColumn<QString>("fragments");
        QTest::addColumn<QString>("warning");
        QTest::addColumn<double>("strength");
        const QString none = QStringLiteral("没有为");
        const QString rule = QStringLiteral("音乐模式1的配置文件a不合规，");
        const QString outside =
            QStringLiteral("[MusicMode1]: The fragment a lies outside the strip's 8 LEDs");
        QTest::newRow("not JSON, 5 LEDs") << QByteArray("{ not json") << QJsonObject() << 5
                                          << "left:0-2:1:0 mid:2-3:0:0 right:3-5:0:0" << none << 2.0;
        QTest::newRow("no fragments, 72 LEDs") << QByteArray("{\"x\": 1}") << QJsonObject() << 72
                                               << "left:0-36:1:0 right:36-72:0:0" << none << 2.0;
        QTest::newRow("no file, 1 LED")
            << QByteArray() << QJsonObject() << 1 << "left:0-0:1:0 mid:0-1:0:0 right:1-1:0:0" << none << 2.0;
        QTest::newRow("empty bar refused")
            << fragmentsFile({{"a", {5, 5, 100, 200, 0, 0}}, {"b", {0, 3, 100, 200, 0, 0}}}) << QJsonObject()
            << 8 << "b:0-3:0:0" << rule + "endIndex与beginIndex至少相隔一个灯珠" << 2.0;
        QTest::newRow("10 Hz band refused, 10.5 Hz kept")
            << fragmentsFile({{"a", {0, 2, 100, 110, 0, 0}}, {"b", {2, 4, 100, 110.5, 0, 1}}})
            << QJsonObject() << 8 << "b:2-4:1:0" << rule + "minFrequency与maxFreqnency至少相隔10Hz" << 2.0;
        QTest::newRow("end past the strip refused")
            << fragmentsFile({{"a", {4, 9, 100, 200, 0, 0}}, {"b", {0, 8, 100, 200, 0, 0}}}) << QJsonObject()
            << 8 << "b:0-8:0:0" << outside << 2.0;
        QTest::newRow("negative begin refused")
            << fragmentsFile({{"a", {-1, 3, 100, 200, 0, 0}}, {"b", {3, 5, 100, 200, 0, 0}}}) << QJsonObject()
            << 8 << "b:3-5:0:0" << outside << 2.0;
        QTest::newRow("end past the wire's limit refused")
            << fragmentsFile({{"a", {0, 65536, 100, 200, 0, 0}}, {"b", {0, 65535, 100, 200, 0, 0}}})
            << QJsonObject() << 70000 << "b:0-65535:0:0"
            << QStringLiteral("[MusicMode1]: The fragment a lies outside the strip's 65535 LEDs") << 2.0;
        const QJsonObject kept =
            QJsonDocument::fromJson(fragmentsFile({{"kept", {2, 6, 100, 200, 2, 0}}})).object();
        QTest::newRow("the store wins")
            << fragmentsFile({{"file", {0, 4, 100, 200, 0, 0}}})
            << QJsonObject{{"fragments", kept.value("fragments")}, {"strength", 3.5}} << 8 << "kept:2-6:0:2"
            << QString() << 3.5;
        // The strength slider's ends.
        QTest::newRow("strength below") << QByteArray() << QJsonObject{{"strength", -1}} << 8
                                        << "left:0-4:1:0 right:4-8:0:0" << none << 0.505;
        QTest::newRow("strength above") << QByteArray() << QJsonObject{{"strength", 1e9}} << 8
                                        << "left:0-4:1:0 right:4-8:0:0" << none << 4.0;
    }
    void mode1Configuration()
    {
        QFETCH(QByteArray, file);
        QFETCH(QJsonObject, stored);
        QFETCH(int, leds);
        QFETCH(QString, fragments);
        QFETCH(QString, warning);
        QFETCH(double, strength);
        const QString model = QStringLiteral("CFG%1").arg(QTest::currentDataTag()).remove(' ');
        QVERIFY(file.isEmpty() || TestFiles::write(defaultsPath(model), file));
        for (auto it = stored.constBegin(); it != stored.constEnd(); ++it) {
            ConfigurationManager::instance()->setEffectJsonValue(mode1Id, model + ":1", it.key(), it.value());
        }
        LogCapture log;
        MusicMode1 mode(EffectWorkerOptions::make(mode1Id, "m1", 1));
        mode.load(strip(model, uint32_t(leds)));
        QCOMPARE(describe(mode.getFragments()), fragments);
        QVERIFY(warning.isEmpty() || log.count(warning, QtWarningMsg) == 1);
        QCOMPARE(mode.getStrength(), strength);
    }

    // Mode 1 on a 14-LED strip of two lines: bar a at its start, b at its end, c is one LED, d
    // has no direction; a and c hear the left channel, b the right.
    void mode1Strip()
    {
        QVERIFY(TestFiles::write(defaultsPath("CLIP"), fragmentsFile({{"a", {0, 3, 80, 110, 1, 1}},
                                                                      {"b", {12, 14, 80, 110, 2, 0}},
                                                                      {"c", {5, 6, 80, 110, 1, 0}},
                                                                      {"d", {7, 9, 80, 110, 1, 2}}})));
        MusicMode1 mode(EffectWorkerOptions::make(mode1Id, "m1", 1));
        QSignalSpy spy(&mode, QOverload<Frame>::of(&IEffectWorker::updateColors));
        mode.load(strip("CLIP", 14, {4, 10}));
        mode.spectrumUpdate(delivery(80, 110, 80, 80));
        QVERIFY(spy.last().at(0).value<Frame>().size() == 2 &&
                spy.last().at(0).value<Frame>()[1].size() == 10);
        QCOMPARE(lastMask(spy), QStringLiteral("###..#......##"));
        QCOMPARE(spy.last().at(0).value<Frame>()[0][2], (OV_RGB{0, 255, 0})); // a's foot, at its end

        // a falls to half from its head while b stays full; the direction mirrors the strip.
        mode.onCtlDirChanged(1);
        mode.spectrumUpdate(delivery(80, 110, 0, 80));
        QCOMPARE(lastMask(spy), QStringLiteral("##......#..#.."));

        // The fall: never dark at the first silent delivery (c lights at any level), dark after ten.
        mode.onCtlDirChanged(0);
        for (int i = 0; i < 10; ++i) {
            mode.spectrumUpdate(delivery(80, 110, 0, 0));
            QVERIFY(i > 0 || lastMask(spy) == QStringLiteral("..#..#......#."));
        }
        QCOMPARE(lastMask(spy), QStringLiteral(".............."));
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
        PeakFollower::setClock([] { return fakeNow; });
        PeakFollower follower;
        for (const QString& step : steps.split(' ')) {
            const QStringList parts = step.split(QRegularExpression("[:=]"));
            fakeNow = parts[0].toLongLong();
            QCOMPARE(follower.update(parts[1].toDouble()), parts[2].toDouble());
        }
        PeakFollower::setClock(nullptr);
    }

    // Mode 4 on 5 LEDs, half 3: the centre LED's second fragment, on the right channel, replaces
    // its first; one line whatever the lines. Every band at one level shows one colour: the 20 dB
    // from 24 to 4 dB under the peak span the gradient, silence stays at its start.
    void mode4Fragments_data()
    {
        QTest::addColumn<float>("level");
        QTest::addColumn<int>("pixel");
        QTest::newRow("silence") << 0.0f << 0;
        QTest::newRow("13.5 dB under the peak") << 62.0f << 157;
        QTest::newRow("the peak") << 80.0f << 299;
    }
    void mode4Fragments()
    {
        QFETCH(float, level);
        QFETCH(int, pixel);
        MusicMode4 mode(EffectWorkerOptions::make("com.orvanta.dynamicMusic.mode_4", "m4", 3));
        mode.load(strip("M4", 5, {2, 3}));
        QCOMPARE(describe(mode.getFragments()),
                 QStringLiteral("0:0-1:0:1 1:1-2:0:1 2:2-3:0:2 3:3-4:0:2 4:4-5:0:2"));
        QCOMPARE(mode.getStrength(), 3.0);
        QSignalSpy spy(&mode, QOverload<Frame>::of(&IEffectWorker::updateColors));
        mode.spectrumUpdate(delivery(0, 24000, level, level));
        const Flat row = MusicMode3::paintRow({{0.0, QColor(0, 0, 255)}, {1.0, QColor(255, 0, 0)}});
        QCOMPARE(spy.last().at(0).value<Frame>(), Frame{Flat(5, row[pixel])});
    }
    // Each model's file: every LED in one fragment; bass, mids and highs within 20 to 16000 Hz;
    // both channels; the loudest bin (80) fills a bar at the default strength, one 30 dB below it
    // (40) shows nothing below the treble; loaded through modes 1 and 3 with no warning.
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
        const QJsonObject defaults =
            TestFiles::readJson(ORVANTA_DATA_DIR "/controler_config/OVController.json")
                .value(model)
                .toObject();
        const QString path = ORVANTA_DATA_DIR "/effects/dynamicMusic/" + model + ".json";
        const QJsonObject fragments = TestFiles::readJson(path).value("fragments").toObject();
        const int leds = defaults.value("nbLeds").toInt();
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
            const double cut = f.value("dbEnhance").toDouble();
            QCOMPARE(f.value("mulEnhance").toDouble(), 2.0);
            QVERIFY(cut >= -40 && cut <= -30 && (80 + cut) * 2.0 >= 80);
            QVERIFY(lo >= 2000 || (40 + cut) * 2.0 <= 0);
        }
        QCOMPARE(owners, QVector<int>(leds, 1));
        QVERIFY(bass && mids && highs && channels.contains(1) && channels.contains(2));

        QFile::remove(defaultsPath(model));
        QVERIFY(QFile::copy(path, defaultsPath(model)));
        QVector<uint32_t> lines;
        for (const QJsonValue& v : defaults.value("lines").toArray()) {
            lines << uint32_t(v.toInt());
        }
        LogCapture log;
        MusicMode1 mode1(EffectWorkerOptions::make(mode1Id, "m1", 1));
        mode1.load(strip(model, uint32_t(leds), lines));
        MusicMode3 mode3(EffectWorkerOptions::make("com.orvanta.dynamicMusic.mode_3", "m3", 2));
        mode3.load(strip(model, uint32_t(leds), lines));
        QCOMPARE(mode1.getFragments().size(), fragments.size());
        QCOMPARE(mode3.getFragments().size(), fragments.size());
        QCOMPARE(log.count("", QtWarningMsg) - log.count("[AudioCapManager]", QtWarningMsg), 0);
    }
};

QTEST_GUILESS_MAIN(TestMusic)
#include "tst_Music.moc"
