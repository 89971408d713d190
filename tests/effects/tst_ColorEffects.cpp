#include "AbsAnimatedEffect.h"
#include "ColorMap.h"
#include "ConfigurationManager.h"
#include "FlowingEffect.h"
#include "InternalEffectFactory.h"
#include "MoodShadow.h"
#include "SFrmColorMap.h"
#include "SingleColor.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QPainter>
#include <QSignalSpy>
#include <QThread>
#include <QUuid>
#include <QtTest>

#include <memory>

using Frame = QVector<QVector<OV_RGB>>;
using Flat = QVector<OV_RGB>;
Q_DECLARE_METATYPE(QVector<uint32_t>)

namespace {

ControlOptions controller(const QString& id, uint32_t nbLeds, QVector<uint32_t> lines)
{
    ControlOptions options;
    options.id = id;
    options.model = id;
    options.nbLeds = nbLeds;
    options.lines = lines;
    return options;
}

EffectWorkerOptions record(const QString& id)
{
    return EffectWorkerOptions::make(id, id, 0);
}

OV_RGB rgb(int r, int g, int b)
{
    return OV_RGB{uint8_t(r), uint8_t(g), uint8_t(b)};
}

bool near(const OV_RGB& a, const OV_RGB& b)
{
    return qAbs(a.r - b.r) <= 1 && qAbs(a.g - b.g) <= 1 && qAbs(a.b - b.b) <= 1;
}

QString show(const OV_RGB& c)
{
    return QStringLiteral("(%1,%2,%3)").arg(c.r).arg(c.g).arg(c.b);
}

Frame nested(const QSignalSpy& spy, int i)
{
    return spy.at(i).at(0).value<Frame>();
}

Flat flat(const QSignalSpy& spy, int i)
{
    return spy.at(i).at(0).value<Flat>();
}

Flat flatten(const Frame& frame)
{
    Flat all;
    for (const Flat& line : frame) {
        all += line;
    }
    return all;
}

// Pictures for colour maps: red says the column, green the row.
void writePicture(const QString& name, int width, int height)
{
    QImage image(width, height, QImage::Format_RGB32);
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            image.setPixel(x, y, qRgb(x, y, 99));
        }
    }
    QDir().mkpath(QCoreApplication::applicationDirPath() + "/effects/colorful");
    QVERIFY(image.save(QCoreApplication::applicationDirPath() + "/effects/colorful/" + name + ".png"));
}

// The strap defaults in the working directory, or none.
void writeStrapDefaults(const QByteArray& content)
{
    QDir().mkpath("effects");
    QFile::remove("effects/colorStraps.json");
    if (content.isNull()) {
        return;
    }
    QFile file("effects/colorStraps.json");
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(content);
}

// A mood shadow loaded for `device` on a strip of ten LEDs.
std::unique_ptr<MoodShadow> mood(const QString& device)
{
    auto worker = std::make_unique<MoodShadow>(record("com.orvanta.colorful.moodShadow"));
    worker->load(controller(device, 10, {10}));
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
    {"name": "C", "uuid": "{33333333-3333-3333-3333-333333333333}", "speed": 2.0, "range": 1.0,
     "endsColor": [255, 255, 255], "keyColors": []}
]})";

// An animation that only records the times it is given.
class ProbeEffect : public AbsAnimatedEffect
{
public:
    QVector<double> ticks;

    int32_t load(const ControlOptions&) override { return 0; }
    EffectWorkerOptions workerOptions() const override { return record("com.orvanta.test.probe"); }
    void unload() override {}
    void tick(double seconds) override { ticks.append(seconds); }
};

} // namespace

class TestColorEffects : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase()
    {
        qRegisterMetaType<Frame>("QVector<QVector<OV_RGB>>");
        qRegisterMetaType<Flat>("QVector<OV_RGB>");
        // The factory registers the record type.
        InternalEffectFactory factory;
        Q_UNUSED(factory);
    }

    void init()
    {
        ConfigurationManager::instance()->reset();
        writeStrapDefaults(QByteArray());
    }

    void cleanup() { QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete); }

    void animatedTickIsMeasured()
    {
        QObject owner;
        auto* probe = new ProbeEffect;
        probe->setParent(&owner);
        QTRY_VERIFY_WITH_TIMEOUT(probe->ticks.size() >= 2, 10000);
        // The event loop is held up: the timer is late, and the next tick is one tick with the
        // whole time, not a catch-up of several.
        QThread::msleep(300);
        const int before = probe->ticks.size();
        QTRY_VERIFY_WITH_TIMEOUT(probe->ticks.size() >= before + 1, 10000);
        QVERIFY2(probe->ticks.at(before) >= 0.28, qPrintable(QString::number(probe->ticks.at(before))));
        QVERIFY(probe->ticks.at(before) < 10.0);
    }

    void singleColorFillsLines()
    {
        SingleColor worker;
        QSignalSpy spy(&worker, qOverload<Frame>(&IEffectWorker::updateColors));
        worker.load(controller("lines", 9, {2, 0, 3}));
        // White until told otherwise; load emits the first frame itself.
        QCOMPARE(spy.count(), 1);
        QCOMPARE(nested(spy, 0), Frame({Flat(2, rgb(255, 255, 255)), Flat(), Flat(3, rgb(255, 255, 255))}));
        worker.setColor(QColor(12, 34, 56));
        QCOMPARE(nested(spy, spy.count() - 1),
                 Frame({Flat(2, rgb(12, 34, 56)), Flat(), Flat(3, rgb(12, 34, 56))}));
        // Twenty-five a second, whether or not anything changed.
        const int before = spy.count();
        QTRY_VERIFY_WITH_TIMEOUT(spy.count() >= before + 3, 10000);
        QCOMPARE(nested(spy, spy.count() - 1), nested(spy, before - 1));
    }

    void singleColorRoundTrip()
    {
        {
            SingleColor worker;
            worker.load(controller("keep", 2, {2}));
            worker.setColor(QColor(40, 50, 60));
            worker.unload();
        }
        ConfigurationManager* store = ConfigurationManager::instance();
        QCOMPARE(store->effectVariant("com.orvanta.singleColor.singleColor1", "keep", "color").toUInt(),
                 QColor(40, 50, 60).rgb());
        SingleColor again;
        QSignalSpy spy(&again, qOverload<Frame>(&IEffectWorker::updateColors));
        again.load(controller("keep", 2, {2}));
        QCOMPARE(again.currentColor(), QColor(40, 50, 60));
        QCOMPARE(nested(spy, 0), Frame({Flat(2, rgb(40, 50, 60))}));
        // A stored value that is not a number counts as lost: white again.
        store->setEffectJsonValue("com.orvanta.singleColor.singleColor1", "broken", "color", QString("red"));
        SingleColor broken;
        broken.load(controller("broken", 1, {1}));
        QCOMPARE(broken.currentColor(), QColor(Qt::white));
    }

    void flowingHueSteps_data()
    {
        QTest::addColumn<uint32_t>("nbLeds");
        QTest::addColumn<QVector<uint32_t>>("lines");
        QTest::addColumn<int>("speed");
        QTest::addColumn<int>("frame");
        QTest::addColumn<QVector<QVector<int>>>("expected");

        // Six LEDs: one sixth of the circle per LED; the first LED is one step past the frame's hue.
        const QVector<QVector<int>> rainbow{{255, 255, 0}, {0, 255, 0},   {0, 255, 255},
                                            {0, 0, 255},   {255, 0, 255}, {255, 0, 0}};
        QTest::newRow("hue runs on across lines") << 6u << QVector<uint32_t>{2, 4} << 0 << 0 << rainbow;
        // Speed 200 is 0.1 hue per frame; the third frame starts at hue 0.2: LEDs at 0.45, 0.7, 0.95, 0.2.
        QTest::newRow("third frame at speed 200")
            << 4u << QVector<uint32_t>{4} << 200 << 2
            << QVector<QVector<int>>{{0, 255, 178}, {51, 0, 255}, {255, 0, 76}, {204, 255, 0}};
        // The step follows nbLeds while the loop follows the lines.
        QTest::newRow("lines shorter than nbLeds")
            << 6u << QVector<uint32_t>{3} << 0 << 0
            << QVector<QVector<int>>{{255, 255, 0}, {0, 255, 0}, {0, 255, 255}};
    }

    void flowingHueSteps()
    {
        QFETCH(uint32_t, nbLeds);
        QFETCH(QVector<uint32_t>, lines);
        QFETCH(int, speed);
        QFETCH(int, frame);
        QFETCH(QVector<QVector<int>>, expected);

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
        const Flat leds = flatten(got);
        QCOMPARE(leds.size(), expected.size());
        for (int i = 0; i < leds.size(); ++i) {
            const OV_RGB want = rgb(expected[i][0], expected[i][1], expected[i][2]);
            QVERIFY2(
                near(leds.at(i), want),
                qPrintable(QString("LED %1: %2 instead of %3").arg(i).arg(show(leds.at(i)), show(want))));
        }
    }

    void flowingHardWrap()
    {
        // Speed 1200 is 0.6 hue per frame: 0, 0.6, then 1.2 resets to 0.0 rather than to 0.2.
        FlowingEffect worker;
        QSignalSpy spy(&worker, qOverload<Frame>(&IEffectWorker::updateColors));
        worker.load(controller("wrap", 2, {2}));
        worker.setSpeed(1200);
        for (int i = 0; i < 4; ++i) {
            QVERIFY(QMetaObject::invokeMethod(&worker, "update"));
        }
        // Two LEDs: steps of 0.5. Frame hue 0: LEDs at 0.5 (cyan) and 1.0 -> 0.0 (red).
        QCOMPARE(nested(spy, 0), Frame({{rgb(0, 255, 255), rgb(255, 0, 0)}}));
        // Frame hue 0.6: LEDs at 0.1 and 0.6.
        const Frame second = nested(spy, 1);
        QVERIFY(near(second[0][0], rgb(255, 153, 0)));
        QVERIFY(near(second[0][1], rgb(0, 102, 255)));
        // Hard reset: the third frame is the first again, not one at hue 0.2.
        QCOMPARE(nested(spy, 2), nested(spy, 0));
        QCOMPARE(nested(spy, 3), second);
    }

    void colorMapRows_data()
    {
        QTest::addColumn<int>("height");
        QTest::addColumn<double>("speed");
        QTest::addColumn<QVector<double>>("ticks");
        QTest::addColumn<QVector<int>>("rows");

        // 30 rows a second times the speed, whatever the height; the row is floor(height * position).
        QTest::newRow("h300, short steps")
            << 300 << 1.0 << QVector<double>{0.05, 0.1, 0.033} << QVector<int>{1, 4, 5};
        QTest::newRow("h300 wraps after 10 s") << 300 << 1.0 << QVector<double>{10.05} << QVector<int>{1};
        QTest::newRow("h40, speed 2") << 40 << 2.0 << QVector<double>{0.125, 0.5} << QVector<int>{7, 37};
    }

    void colorMapRows()
    {
        QFETCH(int, height);
        QFETCH(double, speed);
        QFETCH(QVector<double>, ticks);
        QFETCH(QVector<int>, rows);
        const QString name = QStringLiteral("Rows_%1").arg(height);
        writePicture(name, 4, height);
        ColorMap worker(record("com.orvanta.colorful." + name));
        QSignalSpy spy(&worker, qOverload<Flat>(&IEffectWorker::updateColors));
        worker.load(controller("rows", 4, {4}));
        QCOMPARE(worker.speed, 1.0);
        worker.speed = speed;
        for (double seconds : ticks) {
            worker.tick(seconds);
        }
        QCOMPARE(spy.count(), ticks.size());
        for (int i = 0; i < rows.size(); ++i) {
            const Flat leds = flat(spy, i);
            QCOMPARE(leds.size(), 4);
            QCOMPARE(int(leds.at(0).g), rows.at(i));
            QCOMPARE(int(leds.at(3).g), rows.at(i));
        }
    }

    void colorMapColumns_data()
    {
        QTest::addColumn<int>("width");
        QTest::addColumn<uint32_t>("nbLeds");
        QTest::addColumn<QVector<int>>("columns");
        QTest::newRow("4 LEDs over 8 columns") << 8 << 4u << QVector<int>{0, 2, 4, 6};
        QTest::newRow("5 LEDs over 2 columns") << 2 << 5u << QVector<int>{0, 0, 0, 1, 1};
    }

    void colorMapColumns()
    {
        QFETCH(int, width);
        QFETCH(uint32_t, nbLeds);
        QFETCH(QVector<int>, columns);
        const QString name = QStringLiteral("Cols_%1").arg(width);
        writePicture(name, width, 10);
        ColorMap worker(record("com.orvanta.colorful." + name));
        QSignalSpy spy(&worker, qOverload<Flat>(&IEffectWorker::updateColors));
        // The line structure plays no part: one flat run of nbLeds.
        worker.load(controller("cols", nbLeds, {1, 1}));
        worker.tick(0.05); // row 1 of 10 (position 0.15)
        const Flat leds = flat(spy, 0);
        QCOMPARE(leds.size(), columns.size());
        for (int i = 0; i < columns.size(); ++i) {
            QCOMPARE(leds.at(i), rgb(columns.at(i), 1, 99));
        }
    }

    // The panel's slider: two straight pieces that meet at 100.
    void colorMapSlider_data()
    {
        QTest::addColumn<int>("value");
        QTest::addColumn<double>("speed");
        QTest::newRow("0") << 0 << 0.5;
        QTest::newRow("99") << 99 << 0.995;
        QTest::newRow("100") << 100 << 1.0;
        QTest::newRow("200") << 200 << 4.0;
    }
    void colorMapSlider()
    {
        QFETCH(int, value);
        QFETCH(double, speed);
        QVERIFY(qAbs(SFrmColorMap::speedOf(value) - speed) < 1e-9);
        QCOMPARE(SFrmColorMap::valueOf(SFrmColorMap::speedOf(value)), value);
    }

    void colorMapMissingPicture()
    {
        const QString path = QCoreApplication::applicationDirPath() + "/effects/colorful/Nowhere_1.png";
        ColorMap worker(record("com.orvanta.colorful.Nowhere_1"));
        QSignalSpy spy(&worker, qOverload<Flat>(&IEffectWorker::updateColors));
        QTest::ignoreMessage(QtCriticalMsg, qPrintable("[ColorMap]: Not found file: " + path));
        worker.load(controller("missing", 7, {7}));
        // It runs on, on the 300 x 300 stand-in picture.
        worker.tick(0.04);
        worker.tick(0.04);
        QCOMPARE(spy.count(), 2);
        QCOMPARE(flat(spy, 1).size(), 7);
        QTRY_VERIFY_WITH_TIMEOUT(spy.count() >= 4, 10000);
    }

    void moodPhase_data()
    {
        QTest::addColumn<uint32_t>("direction");
        QTest::addColumn<QVector<double>>("ticks");
        QTest::addColumn<double>("phase");
        // n 100, range 0.5, speed 1: w 100, so the step is the tick's seconds.
        QTest::newRow("backwards from 0 wraps") << 1u << QVector<double>{0.1} << 0.9;
        QTest::newRow("forwards past 1 does not wrap") << 0u << QVector<double>{0.95, 0.1} << 1.05;
    }

    void moodPhase()
    {
        QFETCH(uint32_t, direction);
        QFETCH(QVector<double>, ticks);
        QFETCH(double, phase);
        writeStrapDefaults(R"({"colorStrapList": [{"name": "p", "speed": 1.0, "range": 0.5,
        "endsColor": [0, 0, 0], "keyColors": [{"key": 0.5, "color": [255, 0, 0]}]}]})");
        MoodShadow worker(record("com.orvanta.colorful.moodShadow"));
        worker.load(controller("phase", 100, {100}));
        worker.onCtlDirChanged(direction);
        for (double seconds : ticks) {
            worker.tick(seconds);
        }
        QVERIFY2(qAbs(worker.currentPhase() - phase) < 1e-9,
                 qPrintable(QString::number(worker.currentPhase())));
    }

    // Four LEDs, blue ends, one red stop at 0.5, range 0.5: the image is 4 pixels wide and its
    // pixel centres sit at 1/8, 3/8, 5/8 and 7/8 of the loop, so pixels 0 and 3 are a quarter
    // red (64, 0, 191) and pixels 1 and 2 three quarters red (191, 0, 64). Speed 1 for 0.25 s
    // moves the phase by 0.25: forward to 0.25, reading pixels 1, 2, 3, 0; backward to 0.75,
    // reading pixels 3, 0, 1, 2.
    void moodColoursByHand_data()
    {
        QTest::addColumn<uint32_t>("direction");
        QTest::addColumn<Flat>("leds");
        const OV_RGB quarter = rgb(64, 0, 191);
        const OV_RGB threeQuarters = rgb(191, 0, 64);
        QTest::newRow("forward") << 0u << Flat{threeQuarters, threeQuarters, quarter, quarter};
        QTest::newRow("backward") << 1u << Flat{quarter, quarter, threeQuarters, threeQuarters};
    }

    void moodColoursByHand()
    {
        QFETCH(uint32_t, direction);
        QFETCH(Flat, leds);
        writeStrapDefaults(R"({"colorStrapList": [{"name": "h", "speed": 1.0, "range": 0.5,
        "endsColor": [0, 0, 255], "keyColors": [{"key": 0.5, "color": [255, 0, 0]}]}]})");
        MoodShadow worker(record("com.orvanta.colorful.moodShadow"));
        QSignalSpy spy(&worker, qOverload<Frame>(&IEffectWorker::updateColors));
        worker.load(controller("hand", 4, {4}));
        worker.onCtlDirChanged(direction);
        worker.tick(0.25);
        const Flat got = flatten(nested(spy, 0));
        QCOMPARE(got.size(), leds.size());
        for (int i = 0; i < leds.size(); ++i) {
            QVERIFY2(near(got.at(i), leds.at(i)), qPrintable(QString::number(i) + ": " + show(got.at(i))));
        }
    }

    void moodCounterRunsAcrossLines()
    {
        writeStrapDefaults(R"({"colorStrapList": [{"name": "l", "speed": 0.0, "range": 0.5,
        "endsColor": [0, 0, 255], "keyColors": [{"key": 0.5, "color": [255, 255, 0]}]}]})");
        MoodShadow split(record("com.orvanta.colorful.moodShadow"));
        MoodShadow whole(record("com.orvanta.colorful.moodShadow"));
        QSignalSpy splitSpy(&split, qOverload<Frame>(&IEffectWorker::updateColors));
        QSignalSpy wholeSpy(&whole, qOverload<Frame>(&IEffectWorker::updateColors));
        split.load(controller("two", 50, {30, 20}));
        whole.load(controller("one", 50, {50}));
        split.tick(0.1);
        whole.tick(0.1);
        const Frame lines = nested(splitSpy, 0);
        QCOMPARE(lines.size(), 2);
        QCOMPARE(lines.at(0).size(), 30);
        QCOMPARE(lines.at(1).size(), 20);
        // 50 consecutive samples: the second line goes on at sample 30, not back at 0.
        QCOMPARE(flatten(lines), flatten(nested(wholeSpy, 0)));
        QVERIFY(lines.at(1).first() != lines.at(0).first());
    }

    void moodFallbackStrap()
    {
        // No defaults file and nothing stored.
        auto worker = mood("fb");
        QCOMPARE(worker->strapCount(), 1);
        QCOMPARE(worker->strapName(), QString("( 1 )"));
        QCOMPARE(worker->endsColor(), QColor(Qt::white));
        QCOMPARE(worker->speed(), 1.0);
        QCOMPARE(worker->range(), 0.5);
        QCOMPARE(worker->keyColors(), QList<QGradientStop>({QGradientStop(0.5, QColor(255, 0, 0))}));
        // A file whose list is not an array counts as missing.
        writeStrapDefaults(R"({"colorStrapList": "none"})");
        auto other = mood("fb");
        QCOMPARE(other->strapNames(), QStringList({"( 1 )"}));
    }

    void moodDeviceOverrides()
    {
        writeStrapDefaults(threeStraps);
        ConfigurationManager* store = ConfigurationManager::instance();
        const QString id = "com.orvanta.colorful.moodShadow";
        store->setEffectJsonValue(
            id, "dev", "strapConfigs",
            QJsonObject{
                {"{22222222-2222-2222-2222-222222222222}", QJsonObject{{"speed", 0.3}, {"range", 0.9}}},
                {"{33333333-3333-3333-3333-333333333333}", QJsonObject{{"range", 0.1}}}});
        store->setEffectJsonValue(id, "dev", "currentStrap", 1);
        auto worker = mood("dev");
        QCOMPARE(worker->currentStrapIndex(), 1);
        QCOMPARE(worker->speed(), 0.3);
        QCOMPARE(worker->range(), 0.9);
        worker->setCurrentStrap(2);
        QCOMPARE(worker->speed(), 2.0); // the list's value where the device has none
        QCOMPARE(worker->range(), 0.1);
        worker->setCurrentStrap(0);
        QCOMPARE(worker->speed(), 0.5);
        QCOMPARE(worker->range(), 0.25);
    }

    void moodRoundTrip()
    {
        writeStrapDefaults(threeStraps);
        const QString id = "com.orvanta.colorful.moodShadow";
        {
            auto worker = mood("trip");
            worker->setCurrentStrap(1);
            worker->setSpeed(0.8);
            worker->setRange(0.6);
            worker->setStrapName("B2");
            worker->addStrap("fresh", 0.2);
            worker->unload();
        }
        // The saved list now stands in for the defaults file, for every device.
        writeStrapDefaults(QByteArray());
        auto again = mood("trip");
        QCOMPARE(again->strapNames(), QStringList({"A", "B2", "C", "fresh"}));
        QCOMPARE(again->currentStrapIndex(), 3);
        again->setCurrentStrap(1);
        QCOMPARE(again->speed(), 0.8);
        QCOMPARE(again->range(), 0.6);
        // The new strap got a fresh uuid on this load.
        again->unload();
        const QJsonArray list = savedStraps();
        QVERIFY(!QUuid(list.at(3).toObject().value("uuid").toString()).isNull());

        auto other = mood("someone");
        QCOMPARE(other->strapNames(), QStringList({"A", "B2", "C", "fresh"}));
        QCOMPARE(other->currentStrapIndex(), 0);
    }
};

QTEST_GUILESS_MAIN(TestColorEffects)
#include "tst_ColorEffects.moc"
