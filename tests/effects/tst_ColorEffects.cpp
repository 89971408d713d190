#include "LogCapture.h"
#include "TestFiles.h"
#include "effects/AbsAnimatedEffect.h"
#include "effects/colorful/ColorMap.h"
#include "effects/colorful/FlowingEffect.h"
#include "effects/colorful/MoodShadow.h"
#include "effects/colorful/SingleColor.h"
#include "service/config/ConfigurationManager.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSignalSpy>
#include <QThread>
#include <QUuid>
#include <QtTest>

#include <memory>
#include <stdexcept>

using Frame = QVector<QVector<OV_RGB>>;
using Flat = QVector<OV_RGB>;
Q_DECLARE_METATYPE(QVector<uint32_t>)

namespace {

const QString kMood = "com.orvanta.colorful.moodShadow";

ControlOptions controller(const QString& id, uint32_t nbLeds, QVector<uint32_t> lines)
{
    ControlOptions options;
    options.id = id;
    options.nbLeds = nbLeds;
    options.lines = lines;
    return options;
}

// Within one step of each channel: hue and gradient arithmetic may round either way.
void compareNear(const Flat& got, const Flat& want)
{
    QCOMPARE(got.size(), want.size());
    for (int i = 0; i < got.size(); ++i) {
        const OV_RGB a = got.at(i), b = want.at(i);
        QVERIFY2(qAbs(a.r - b.r) <= 1 && qAbs(a.g - b.g) <= 1 && qAbs(a.b - b.b) <= 1,
                 qPrintable(QString("LED %1: %2,%3,%4").arg(i).arg(a.r).arg(a.g).arg(a.b)));
    }
}

Frame nested(const QSignalSpy& spy, int i)
{
    return spy.at(i).at(0).value<Frame>();
}

Flat flatten(const Frame& frame)
{
    Flat all;
    for (const Flat& line : frame) {
        all += line;
    }
    return all;
}

// The strap defaults in the working directory, or none.
void writeStrapDefaults(const QByteArray& content)
{
    QFile::remove("effects/colorStraps.json");
    if (!content.isNull()) {
        QVERIFY(TestFiles::write("effects/colorStraps.json", content));
    }
}

// A mood shadow loaded for `device`.
std::unique_ptr<MoodShadow> mood(const QString& device, uint32_t nbLeds = 10, QVector<uint32_t> lines = {10})
{
    auto worker = std::make_unique<MoodShadow>(EffectWorkerOptions::make(kMood, kMood, 0));
    worker->load(controller(device, nbLeds, lines));
    return worker;
}

QJsonArray savedStraps()
{
    return ConfigurationManager::instance()
        ->effectJsonValue("com.orvanta.colorful.colorStraps", "__all__", "colorStrapList")
        .toArray();
}

const QByteArray threeStraps = R"({"colorStrapList": [
    {"name": "A", "uuid": "{11111111-1111-1111-1111-111111111111}", "speed": 0.5, "range": 0.25,
     "endsColor": [10, 20, 30], "keyColors": [{"key": 0.5, "color": [200, 0, 0]}]},
    {"name": "B", "uuid": "{22222222-2222-2222-2222-222222222222}", "speed": 1.0, "range": 0.5,
     "endsColor": [0, 0, 255], "keyColors": [{"key": 0.25, "color": [0, 255, 0]}, {"key": 0.75, "color": [255, 255, 0]}]},
    {"name": "C", "uuid": "{33333333-3333-3333-3333-333333333333}", "speed": 0.7, "range": 1.0,
     "endsColor": [255, 255, 255], "keyColors": []}
]})";

// An animation that records the times it is given; with goodTicks set, it sends a frame on
// that many ticks and throws on every later one.
class ProbeEffect : public AbsAnimatedEffect
{
public:
    QVector<double> ticks;
    int goodTicks = -1;

    int32_t load(const ControlOptions&) override { return 0; }
    EffectWorkerOptions workerOptions() const override { return {}; }
    void unload() override {}
    void tick(double seconds) override
    {
        ticks.append(seconds);
        if (goodTicks >= 0 && ticks.size() > goodTicks) {
            throw std::runtime_error("probe");
        }
        if (goodTicks >= 0) {
            emit updateColors(Flat{{1, 2, 3}});
        }
    }
};

} // namespace

// Each colour effect against colours worked out by hand, and its values through the real store.
class TestColorEffects : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase()
    {
        qRegisterMetaType<Frame>("QVector<QVector<OV_RGB>>");
        qRegisterMetaType<Flat>("QVector<OV_RGB>");
    }

    void init()
    {
        ConfigurationManager::instance()->reset();
        writeStrapDefaults(QByteArray());
    }

    void animatedTickIsMeasured()
    {
        ProbeEffect probe;
        QTRY_VERIFY_WITH_TIMEOUT(probe.ticks.size() >= 2, 10000);
        // The event loop is held up: the timer is late, and the next tick is one tick with the
        // whole time, not a catch-up of several.
        QThread::msleep(300);
        const int before = probe.ticks.size();
        QTRY_VERIFY_WITH_TIMEOUT(probe.ticks.size() > before, 10000);
        QVERIFY2(probe.ticks.at(before) >= 0.28, qPrintable(QString::number(probe.ticks.at(before))));
    }

    void singleColorFillsLines()
    {
        SingleColor worker;
        QSignalSpy spy(&worker, qOverload<Frame>(&IEffectWorker::updateColors));
        // A stored value that is not a number counts as none: white.
        ConfigurationManager::instance()->setEffectJsonValue("com.orvanta.singleColor.singleColor1", "lines",
                                                             "color", "red");
        worker.load(controller("lines", 9, {2, 0, 3}));
        QCOMPARE(spy.count(), 1); // load sends the first frame itself
        QCOMPARE(nested(spy, 0), Frame({Flat(2, {255, 255, 255}), Flat(), Flat(3, {255, 255, 255})}));
        worker.setColor(QColor(12, 34, 56));
        QCOMPARE(nested(spy, 1), Frame({Flat(2, {12, 34, 56}), Flat(), Flat(3, {12, 34, 56})}));
    }

    // One hue step per LED, of 1/nbLeds; speed s adds s/2000 of the circle per frame, and the
    // frame's hue starts again at 0 rather than wrapping past 1.
    void flowingHueSteps_data()
    {
        QTest::addColumn<uint32_t>("nbLeds");
        QTest::addColumn<QVector<uint32_t>>("lines");
        QTest::addColumn<int>("speed");
        QTest::addColumn<int>("frame");
        QTest::addColumn<Flat>("expected");
        const Flat rainbow{{255, 255, 0}, {0, 255, 0},   {0, 255, 255},
                           {0, 0, 255},   {255, 0, 255}, {255, 0, 0}};
        QTest::newRow("hue runs on across lines") << 6u << QVector<uint32_t>{2, 4} << 0 << 0 << rainbow;
        QTest::newRow("lines shorter than nbLeds")
            << 6u << QVector<uint32_t>{3} << 0 << 0 << rainbow.mid(0, 3);
        // 0.1 a frame: the third frame starts at 0.2, its LEDs at 0.45, 0.7, 0.95 and 0.2.
        QTest::newRow("third frame at speed 200")
            << 4u << QVector<uint32_t>{4} << 200 << 2
            << Flat{{0, 255, 178}, {51, 0, 255}, {255, 0, 76}, {204, 255, 0}};
        // 0.6 a frame: 0, 0.6, then 1.2 starts again at 0: LEDs at 0.5 and 1.0, that is 0.0.
        QTest::newRow("hard wrap at speed 1200")
            << 2u << QVector<uint32_t>{2} << 1200 << 2 << Flat{{0, 255, 255}, {255, 0, 0}};
    }

    void flowingHueSteps()
    {
        QFETCH(uint32_t, nbLeds);
        QFETCH(QVector<uint32_t>, lines);
        QFETCH(int, speed);
        QFETCH(int, frame);
        QFETCH(Flat, expected);
        FlowingEffect worker;
        QSignalSpy spy(&worker, qOverload<Frame>(&IEffectWorker::updateColors));
        worker.load(controller("flow", nbLeds, lines));
        worker.setSpeed(speed);
        for (int i = 0; i <= frame; ++i) {
            QVERIFY(QMetaObject::invokeMethod(&worker, "update"));
        }
        const Frame got = nested(spy, frame);
        QCOMPARE(got.size(), lines.size());
        for (int i = 0; i < lines.size(); ++i) {
            QCOMPARE(uint32_t(got.at(i).size()), lines.at(i));
        }
        compareNear(flatten(got), expected);
    }

    // A picture whose red says the column and green the row. The row is floor(height * position),
    // the position moving 30 rows a second times the speed whatever the height; LED i reads
    // column floor(width * i / nbLeds), whatever the lines.
    void colorMapReadsRowAndColumn_data()
    {
        QTest::addColumn<QSize>("picture");
        QTest::addColumn<uint32_t>("nbLeds");
        QTest::addColumn<double>("speed");
        QTest::addColumn<QVector<double>>("ticks");
        QTest::addColumn<int>("row");
        QTest::addColumn<QVector<int>>("columns");
        QTest::newRow("h300, short steps") << QSize(8, 300) << 4u << 1.0 << QVector<double>{0.05, 0.1, 0.033}
                                           << 5 << QVector<int>{0, 2, 4, 6};
        QTest::newRow("h300 wraps after 10 s")
            << QSize(8, 300) << 4u << 1.0 << QVector<double>{10.05} << 1 << QVector<int>{0, 2, 4, 6};
        QTest::newRow("h40, speed 2")
            << QSize(2, 40) << 5u << 2.0 << QVector<double>{0.125, 0.5} << 37 << QVector<int>{0, 0, 0, 1, 1};
    }

    void colorMapReadsRowAndColumn()
    {
        QFETCH(QSize, picture);
        QFETCH(uint32_t, nbLeds);
        QFETCH(double, speed);
        QFETCH(QVector<double>, ticks);
        QFETCH(int, row);
        QFETCH(QVector<int>, columns);
        QImage image(picture, QImage::Format_RGB32);
        for (int y = 0; y < picture.height(); ++y) {
            for (int x = 0; x < picture.width(); ++x) {
                image.setPixel(x, y, qRgb(x, y, 99));
            }
        }
        const QString dir = QCoreApplication::applicationDirPath() + "/effects/colorful/";
        QVERIFY(QDir().mkpath(dir) && image.save(dir + "Probe.png"));
        ColorMap worker(EffectWorkerOptions::make("com.orvanta.colorful.Probe", "", 0));
        QSignalSpy spy(&worker, qOverload<Flat>(&IEffectWorker::updateColors));
        worker.load(controller("map", nbLeds, {1, 1}));
        QCOMPARE(worker.speed(), 1.0);
        worker.setSpeed(speed);
        for (double seconds : ticks) {
            worker.tick(seconds);
        }
        QCOMPARE(spy.count(), ticks.size());
        Flat expected;
        for (int column : columns) {
            expected.append(OV_RGB{uint8_t(column), uint8_t(row), 99});
        }
        QCOMPARE(spy.last().at(0).value<Flat>(), expected);
    }

    void colorMapMissingPicture()
    {
        const QString path = QCoreApplication::applicationDirPath() + "/effects/colorful/Nowhere_1.png";
        ColorMap worker(EffectWorkerOptions::make("com.orvanta.colorful.Nowhere_1", "", 0));
        QSignalSpy spy(&worker, qOverload<Flat>(&IEffectWorker::updateColors));
        QTest::ignoreMessage(QtCriticalMsg, qPrintable("[ColorMap]: Not found file: " + path));
        worker.load(controller("missing", 7, {7}));
        // It runs on, on the 300 x 300 stand-in picture.
        QTRY_VERIFY_WITH_TIMEOUT(spy.count() >= 2, 10000);
        QCOMPARE(spy.last().at(0).value<Flat>().size(), 7);
    }

    // Four LEDs, blue ends, one red stop at 0.5, range 0.5: the image is 4 pixels wide and its
    // pixel centres sit at 1/8, 3/8, 5/8 and 7/8 of the loop, so pixels 0 and 3 are a quarter
    // red (64, 0, 191) and pixels 1 and 2 three quarters red (191, 0, 64). Speed 1 for 0.25 s
    // moves the phase by 0.25: forward to 0.25, reading pixels 1, 2, 3, 0; backward, wrapping,
    // to 0.75, reading pixels 3, 0, 1, 2. The sample counter runs on across the lines.
    void moodColoursByHand_data()
    {
        QTest::addColumn<uint32_t>("direction");
        QTest::addColumn<QVector<uint32_t>>("lines");
        QTest::addColumn<Flat>("leds");
        const OV_RGB quarter{64, 0, 191}, threeQuarters{191, 0, 64};
        const Flat forward{threeQuarters, threeQuarters, quarter, quarter};
        QTest::newRow("forward") << 0u << QVector<uint32_t>{4} << forward;
        QTest::newRow("forward over lines of 1 and 3") << 0u << QVector<uint32_t>{1, 3} << forward;
        QTest::newRow("backward") << 1u << QVector<uint32_t>{4}
                                  << Flat{quarter, quarter, threeQuarters, threeQuarters};
    }

    void moodColoursByHand()
    {
        QFETCH(uint32_t, direction);
        QFETCH(QVector<uint32_t>, lines);
        QFETCH(Flat, leds);
        writeStrapDefaults(R"({"colorStrapList": [{"name": "h", "speed": 1.0, "range": 0.5,
        "endsColor": [0, 0, 255], "keyColors": [{"key": 0.5, "color": [255, 0, 0]}]}]})");
        auto worker = mood("hand", 4, lines);
        QSignalSpy spy(worker.get(), qOverload<Frame>(&IEffectWorker::updateColors));
        worker->onCtlDirChanged(direction);
        worker->tick(0.25);
        QCOMPARE(nested(spy, 0).size(), lines.size());
        compareNear(flatten(nested(spy, 0)), leds);
    }

    void moodJsonFallbacks()
    {
        // No list at all: the one red-on-white strap.
        writeStrapDefaults(R"({"colorStrapList": "none"})");
        auto fallback = mood("fb");
        QCOMPARE(fallback->strapNames(), QStringList({"( 1 )"}));
        QCOMPARE(fallback->endsColor(), QColor(Qt::white));
        QCOMPARE(fallback->speed(), 1.0);
        QCOMPARE(fallback->keyColors(), QList<QGradientStop>({{0.5, QColor(255, 0, 0)}}));
        // Every key of the second strap absent or bad.
        writeStrapDefaults(R"({"colorStrapList": [{"name": "first"},
            {"endsColor": [1, 2], "keyColors": [{"color": [9, 9, 9]}, {"key": 0.9, "color": "red"}]}]})");
        auto worker = mood("bad");
        worker->setCurrentStrap(1);
        QCOMPARE(worker->strapName(), QString("( 2 )"));
        QCOMPARE(worker->speed(), 0.0);
        QCOMPARE(worker->range(), 0.5);
        QCOMPARE(worker->endsColor(), QColor(Qt::black));
        QCOMPARE(worker->keyColors(),
                 QList<QGradientStop>({{0.0, QColor(9, 9, 9)}, {0.9, QColor(Qt::white)}}));
        worker->unload();
        QVERIFY(!QUuid(savedStraps().at(1).toObject().value("uuid").toString()).isNull());
    }

    // The list is shared; the current strap and each strap's speed and range are the device's.
    void moodDeviceOverrides()
    {
        writeStrapDefaults(threeStraps);
        ConfigurationManager* store = ConfigurationManager::instance();
        store->setEffectJsonValue(
            kMood, "dev", "strapConfigs",
            QJsonObject{
                {"{22222222-2222-2222-2222-222222222222}", QJsonObject{{"speed", 0.3}, {"range", 0.9}}},
                {"{33333333-3333-3333-3333-333333333333}", QJsonObject{{"range", 0.1}}}});
        store->setEffectJsonValue(kMood, "dev", "currentStrap", 1);
        auto worker = mood("dev");
        QCOMPARE(worker->currentStrapIndex(), 1);
        QCOMPARE(worker->speed(), 0.3);
        QCOMPARE(worker->range(), 0.9);
        worker->setCurrentStrap(2);
        QCOMPARE(worker->speed(), 0.7); // the list's value where the device has none
        QCOMPARE(worker->range(), 0.1);
    }

    void moodRoundTrip()
    {
        writeStrapDefaults(threeStraps);
        {
            auto worker = mood("trip");
            worker->setCurrentStrap(1);
            worker->setSpeed(0.8);
            worker->setRange(0.6);
            worker->setStrapName("B2");
            worker->removeStrap(2); // the last: the one before becomes current
            QCOMPARE(worker->currentStrapIndex(), 1);
            QTest::ignoreMessage(QtCriticalMsg, "[MoodShadow]: Strap index is out of range");
            worker->removeStrap(5);
            worker->addStrap("fresh", 0.2);
            worker->unload();
        }
        const QJsonArray saved = savedStraps();
        QCOMPARE(saved.size(), 3);
        // The device's speed and range are its own; the list keeps every other device's defaults.
        QCOMPARE(saved.at(1).toObject(),
                 (QJsonObject{{"name", "B2"},
                              {"uuid", "{22222222-2222-2222-2222-222222222222}"},
                              {"speed", 1.0},
                              {"range", 0.5},
                              {"endsColor", QJsonArray{0, 0, 255}},
                              {"keyColors",
                               QJsonArray{QJsonObject{{"key", 0.25}, {"color", QJsonArray{0, 255, 0}}},
                                          QJsonObject{{"key", 0.75}, {"color", QJsonArray{255, 255, 0}}}}}}));
        // The saved list stands in for the defaults file, for every device.
        writeStrapDefaults(QByteArray());
        auto again = mood("trip");
        QCOMPARE(again->strapNames(), QStringList({"A", "B2", "fresh"}));
        QCOMPARE(again->currentStrapIndex(), 2);
        QCOMPARE(again->speed(), 0.2);
        QVERIFY(!QUuid(savedStraps().at(2).toObject().value("uuid").toString()).isNull());
        auto other = mood("someone");
        QCOMPARE(other->strapNames(), QStringList({"A", "B2", "fresh"}));
        QCOMPARE(other->currentStrapIndex(), 0);
    }

    // A frame that throws costs that frame: one log line, and the strip gets the last good one.
    void failingFrameSendsTheLastGoodOne()
    {
        LogCapture log;
        ProbeEffect probe;
        probe.goodTicks = 1;
        QSignalSpy spy(&probe, qOverload<Flat>(&IEffectWorker::updateColors));
        QTRY_VERIFY_WITH_TIMEOUT(spy.count() >= 4, 10000);
        for (const QList<QVariant>& frame : spy) {
            QCOMPARE(frame.at(0).value<Flat>(), Flat({{1, 2, 3}}));
        }
        QCOMPARE(log.count("A frame failed (probe)", QtCriticalMsg), 1);
    }

    // Values from hand-edited files stay within what the panels can set: a number beyond a bound
    // takes the bound, anything else the default.
    void badOptionValues_data()
    {
        QTest::addColumn<QString>("option");
        QTest::addColumn<QByteArray>("json");
        QTest::addColumn<QString>("expected");
        QTest::newRow("colour below 0") << "color" << QByteArray("-5") << "#000000";
        QTest::newRow("colour beyond 32 bits") << "color" << QByteArray("1e20") << "#ffffff";
        QTest::newRow("colour map speed below") << "map speed" << QByteArray("-3") << "0.5";
        QTest::newRow("colour map speed above") << "map speed" << QByteArray("1e300") << "4";
        QTest::newRow("strap speed above") << "speed" << QByteArray("7") << "1";
        QTest::newRow("strap range below") << "range" << QByteArray("-1") << "0.001";
        QTest::newRow("device's strap speed") << "device speed" << QByteArray("9") << "1";
        QTest::newRow("stop beyond the end") << "key" << QByteArray("1.5") << "1";
        QTest::newRow("channels beyond 0..255") << "endsColor" << QByteArray("[300, -4, 12.6]") << "#ff000d";
        QTest::newRow("current strap far beyond") << "currentStrap" << QByteArray("1e12") << "1";
    }

    void badOptionValues()
    {
        QFETCH(QString, option);
        QFETCH(QByteArray, json);
        QFETCH(QString, expected);
        const QJsonValue value = QJsonDocument::fromJson("[" + json + "]").array().at(0);
        ConfigurationManager* store = ConfigurationManager::instance();
        if (option == "color") {
            store->setEffectJsonValue("com.orvanta.singleColor.singleColor1", "bad", option, value);
            SingleColor worker;
            worker.load(controller("bad", 1, {1}));
            QCOMPARE(worker.currentColor().name(), expected);
            return;
        }
        if (option == "map speed") {
            store->setEffectJsonValue("com.orvanta.colorful.Probe", "bad", "speed", value);
            ColorMap worker(EffectWorkerOptions::make("com.orvanta.colorful.Probe", "", 0));
            worker.load(controller("bad", 1, {1}));
            QCOMPARE(QString::number(worker.speed()), expected);
            return;
        }
        const QString uuid = "{11111111-1111-1111-1111-111111111111}";
        QJsonObject stop{{"key", 0.5}, {"color", QJsonArray{1, 2, 3}}};
        if (option == "key") {
            stop.insert("key", value);
        }
        QJsonObject strap{{"name", "s"}, {"uuid", uuid}, {"keyColors", QJsonArray{stop}}};
        if (option == "speed" || option == "range" || option == "endsColor") {
            strap.insert(option, value);
        }
        const QJsonObject second{{"name", "t"}, {"uuid", "{22222222-2222-2222-2222-222222222222}"}};
        writeStrapDefaults(
            QJsonDocument(QJsonObject{{"colorStrapList", QJsonArray{strap, second}}}).toJson());
        if (option == "device speed") {
            store->setEffectJsonValue(kMood, "bad", "strapConfigs",
                                      QJsonObject{{uuid, QJsonObject{{"speed", value}}}});
        } else if (option == "currentStrap") {
            store->setEffectJsonValue(kMood, "bad", option, value);
        }
        auto worker = mood("bad");
        const QString got = option == "currentStrap" ? QString::number(worker->currentStrapIndex())
                            : option == "range"      ? QString::number(worker->range())
                            : option == "key"        ? QString::number(worker->keyColors().value(0).first)
                            : option == "endsColor"  ? worker->endsColor().name()
                                                     : QString::number(worker->speed());
        QCOMPARE(got, expected);
    }
};

QTEST_GUILESS_MAIN(TestColorEffects)
#include "tst_ColorEffects.moc"
