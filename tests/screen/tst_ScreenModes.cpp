#include "AbsScreenSync.h"
#include "CinemaScreen.h"
#include "ConfigurationManager.h"
#include "EffectsManager.h"
#include "FullScreenMode.h"
#include "InternalEffectFactory.h"
#include "LogCapture.h"
#include "RecordingController.h"
#include "ScreenRig.h"
#include "TestFiles.h"

#include <QtTest>

#include <opencv2/imgproc.hpp>

using namespace ScreenRig;

namespace {

// Workers die on the work thread and log as they go: a row must not end before they are gone,
// or QtTest frees the row's name while that thread prints it.
QAtomicInt liveWorkers;

void watch(QObject* worker)
{
    liveWorkers.ref();
    QObject::connect(worker, &QObject::destroyed, [] { liveWorkers.deref(); });
}

// Red 2x, green 2y + 1: each LED tells which pixel it read.
QImage coordinateFrame(const QSize& size)
{
    QImage frame(size, QImage::Format_RGBA8888);
    for (int y = 0; y < size.height(); ++y) {
        for (int x = 0; x < size.width(); ++x) {
            frame.setPixel(x, y, qRgba(2 * x, 2 * y + 1, 0, 255));
        }
    }
    return frame;
}

QPoint decode(const OV_RGB& c)
{
    return QPoint((c.r + 1) / 2, c.g / 2);
}

ControlOptions stripOptions(const QString& model, QVector<uint32_t> lines, uint32_t dir = 0)
{
    ControlOptions o;
    o.model = model;
    o.id = model + QStringLiteral(":MODES");
    o.lines = lines;
    for (uint32_t n : lines) {
        o.nbLeds += n;
    }
    o.installDirection = dir;
    return o;
}

// A worker of the catalogue, loaded, whose colours are kept as they come.
struct Worker
{
    QSharedPointer<AbsScreenSync> worker;
    QVector<QVector<OV_RGB>> colors;
    int frames = 0;

    Worker(const QString& id, const ControlOptions& options)
    {
        InternalEffectFactory factory;
        worker.reset(qobject_cast<AbsScreenSync*>(factory.create(id)), &QObject::deleteLater);
        watch(worker.data());
        QObject::connect(worker.data(), qOverload<QVector<QVector<OV_RGB>>>(&IEffectWorker::updateColors),
                         worker.data(), [this](QVector<QVector<OV_RGB>> c) {
                             colors = c;
                             ++frames;
                         });
        worker->load(options);
    }
    // Queued, as a capture source delivers; true once the colours of it came back.
    bool feed(const QImage& frame)
    {
        const int before = frames;
        QMetaObject::invokeMethod(worker.data(), "frameInput", Qt::QueuedConnection, Q_ARG(QImage, frame));
        return QTest::qWaitFor([&] { return frames > before; }, 5000);
    }
    QVector<OV_RGB> flat() const
    {
        QVector<OV_RGB> all;
        for (const auto& line : colors) {
            all += line;
        }
        return all;
    }
};

} // namespace

// The frame pipeline on synthetic frames, with no X server: where every LED looks, blur,
// saturation, the LED map and the work thread's life.
class TestScreenModes : public QObject
{
    Q_OBJECT

    QVector<QPoint> map5512;

private slots:
    void initTestCase()
    {
        QVERIFY(qgetenv("DISPLAY").isEmpty());
        QVERIFY(TestFiles::copyTree(QStringLiteral(ORVANTA_DATA_DIR "/controler_config"),
                                    QDir::currentPath() + QStringLiteral("/controler_config")));
        map5512 = modelMap(QStringLiteral("controler_config/OV5512.json"));
        ConfigurationManager::instance()->reset();
        qRegisterMetaType<QVector<QVector<OV_RGB>>>();
    }

    void cleanup()
    {
        TestFiles::flushDeletes();
        QTRY_COMPARE(liveWorkers.loadAcquire(), 0);
    }

    void ledsReadTheirPixel_data()
    {
        QTest::addColumn<QString>("effect");
        QTest::addColumn<int>("leds");
        QTest::addColumn<uint32_t>("dir");
        QTest::addColumn<QSize>("frame");
        for (const QString& band : {topId, bottomId, leftId, rightId}) {
            for (int n : {1, 5, 24, 72}) {
                for (uint32_t dir : {0u, 1u, 2u}) {
                    QTest::addRow("%s %d dir %u", qPrintable(band.section('.', -1)), n, dir)
                        << band << n << dir << QSize(120, 67);
                }
            }
        }
        QTest::newRow("full screen") << fullId << 72 << 0u << QSize(120, 67);
        QTest::newRow("full screen mirrored") << fullId << 72 << 1u << QSize(120, 67);
        QTest::newRow("cinema 120x67") << cinemaId << 72 << 0u << QSize(120, 67);
        QTest::newRow("cinema 120x96") << cinemaId << 72 << 0u << QSize(120, 96);
    }

    void ledsReadTheirPixel()
    {
        QFETCH(QString, effect);
        QFETCH(int, leds);
        QFETCH(uint32_t, dir);
        QFETCH(QSize, frame);
        const QVector<uint32_t> lines =
            leds == 72 ? QVector<uint32_t>{18, 36, 18} : QVector<uint32_t>{uint32_t(leds)};
        Worker w(effect, stripOptions(QStringLiteral("OV5512"), lines, dir));
        QVERIFY(w.feed(coordinateFrame(frame)));
        const QVector<QPoint> expected = readPoints(effect, leds, frame, int(dir), map5512);
        const QVector<OV_RGB> got = w.flat();
        QCOMPARE(got.size(), leds);
        // The cinema crop is stretched twice; a pixel either way of the worked-out one passes there.
        const int slack = effect == cinemaId ? 1 : 0;
        for (int k = 0; k < leds; ++k) {
            const QPoint off = decode(got[k]) - expected[k];
            QVERIFY2(qAbs(off.x()) <= slack && qAbs(off.y()) <= slack,
                     qPrintable(QStringLiteral("LED %1").arg(k)));
        }
    }

    void blurSpreadsByKernel_data()
    {
        QTest::addColumn<float>("blur");
        QTest::addColumn<int>("kernel");
        QTest::newRow("0.0") << 0.0f << 1;
        QTest::newRow("0.5") << 0.5f << 23;
        QTest::newRow("0.52") << 0.52f << 25;
        QTest::newRow("1.0") << 1.0f << 47;
    }

    void blurSpreadsByKernel()
    {
        QFETCH(float, blur);
        QFETCH(int, kernel);
        // One LED per column of the top band: the LEDs show one row of the blurred frame.
        Worker w(topId, stripOptions(QStringLiteral("NOMAP"), {120}));
        w.worker->setBlurStrength(blur);
        QImage frame(120, 67, QImage::Format_RGBA8888);
        frame.fill(QColor(0, 0, 0));
        for (int y = 0; y < 67; ++y) {
            frame.setPixel(60, y, qRgba(255, 255, 255, 255));
        }
        QVERIFY(w.feed(frame));
        const QVector<OV_RGB> row = w.flat();
        const cv::Mat g = cv::getGaussianKernel(kernel, 0.0, CV_64F);
        const int reach = (kernel - 1) / 2;
        QVERIFY2(qAbs(row[60].r - qRound(255.0 * g.at<double>(reach))) <= 1,
                 qPrintable(QString::number(row[60].r)));
        QCOMPARE(row[60 - reach - 1].r, uint8_t(0));
        QCOMPARE(row[60 + reach + 1].r, uint8_t(0));
        QCOMPARE(row[60].g, row[60].r); // grey stays grey
    }

    void saturation_data()
    {
        QTest::addColumn<float>("strength");
        QTest::addColumn<QColor>("in");
        QTest::addColumn<QColor>("out");
        QTest::newRow("-1 greys a colour at its value")
            << -1.0f << QColor(200, 100, 50) << QColor(200, 200, 200);
        QTest::newRow("+1 saturates, hue and value kept")
            << 1.0f << QColor(200, 100, 50) << QColor(200, 67, 0);
        QTest::newRow("+1 leaves grey") << 1.0f << QColor(128, 128, 128) << QColor(128, 128, 128);
        QTest::newRow("0 leaves a colour") << 0.0f << QColor(10, 200, 90) << QColor(10, 200, 90);
    }

    void saturation()
    {
        QFETCH(float, strength);
        QFETCH(QColor, in);
        QFETCH(QColor, out);
        Worker w(topId, stripOptions(QStringLiteral("NOMAP"), {1}));
        w.worker->setSaturationStrength(strength);
        QImage frame(120, 67, QImage::Format_RGBA8888);
        frame.fill(in);
        QVERIFY(w.feed(frame));
        const OV_RGB c = w.flat().first();
        QVERIFY2(near(out, c.r, c.g, c.b, 1),
                 qPrintable(QStringLiteral("%1,%2,%3").arg(c.r).arg(c.g).arg(c.b)));
    }

    void mapFromModelFile_data()
    {
        QTest::addColumn<QByteArray>("file");
        QTest::addColumn<QString>("logLine");
        QTest::addColumn<QVector<QPoint>>("points"); // LEDs 0, 1, 120, 129
        const QVector<QPoint> grid{{0, 0}, {1, 0}, {0, 1}, {9, 1}};
        QTest::newRow("missing") << QByteArray() << "Not found default LED configuration file" << grid;
        QTest::newRow("empty") << QByteArray("") << "Failed to parser default LED configuration json file"
                               << grid;
        QTest::newRow("not JSON") << QByteArray("screen")
                                  << "Failed to parser default LED configuration json file" << grid;
        QTest::newRow("entries") << QByteArray(R"({"screenWidth": 100, "screenHeight": 50, "ledMap": [
                {"id": 0, "x": 5, "y": 5}, {"id": 2, "x": 10, "y": 60}, {"id": 130, "x": 99, "y": 49},
                {"id": 131, "x": 1, "y": 1}, {"id": 1, "x": -1, "y": 7}]})")
                                 << QString() << QVector<QPoint>{{0, 7}, {10, 0}, {0, 1}, {99, 49}};
    }

    void mapFromModelFile()
    {
        QFETCH(QByteArray, file);
        QFETCH(QString, logLine);
        QFETCH(QVector<QPoint>, points);
        const QString path = QStringLiteral("controler_config/TESTMAP.json");
        QFile::remove(path);
        if (!file.isNull()) {
            QVERIFY(TestFiles::write(path, file));
        }
        LogCapture log;
        Worker w(fullId, stripOptions(QStringLiteral("TESTMAP"), {130}));
        auto* full = qobject_cast<FullScreenMode*>(w.worker.data());
        const QVector<QPoint> map = full->ledMapCopy();
        QCOMPARE(map.size(), 130);
        QCOMPARE((QVector<QPoint>{map[0], map[1], map[120], map[129]}), points);
        if (!logLine.isEmpty()) {
            QCOMPARE(log.count(logLine), 1);
        }
    }

    void mapEditingAndStorage()
    {
        QVERIFY(TestFiles::write(
            QStringLiteral("controler_config/TESTEDIT.json"),
            R"({"screenWidth": 120, "screenHeight": 67, "ledMap": [{"id": 1, "x": 100, "y": 60}]})"));
        const ControlOptions options = stripOptions(QStringLiteral("TESTEDIT"), {4});
        ConfigurationManager* store = ConfigurationManager::instance();
        store->setEffectJsonValue(
            fullId, options.id, QStringLiteral("map"),
            QJsonObject{{"screenWidth", 80},
                        {"screenHeight", 40},
                        {"ledMap", QJsonArray{QJsonObject{{"id", 1}, {"x", 70}, {"y", 30}}}}});
        {
            Worker w(fullId, options);
            auto* full = qobject_cast<FullScreenMode*>(w.worker.data());
            QCOMPARE(full->screenSize(), QSize(80, 40));
            QCOMPARE(full->ledMapCopy().first(), QPoint(70, 30)); // the user's map wins

            LogCapture log;
            full->setScreenSize(QSize(301, 10));
            full->setScreenSize(QSize(10, 201));
            QCOMPARE(log.count("The size is invalid"), 2);
            full->setScreenSize(QSize(300, 200));
            QCOMPARE(full->screenSize(), QSize(300, 200));
            full->setScreenSize(QSize(50, 20));
            QCOMPARE(full->ledMapCopy().first(), QPoint(49, 20 - 1)); // pulled in

            full->setLEDPos(1, QPoint(50, 0));
            full->setLEDPos(4, QPoint(1, 1));
            full->setLEDPos(1, QPoint(49, 19));
            QCOMPARE(log.count("is out of range"), 2);
            QCOMPARE(full->ledMapCopy().at(1), QPoint(49, 19));

            full->resetLEDMap(); // the model's file, not the user's map
            QCOMPARE(full->screenSize(), QSize(120, 67));
            QCOMPARE(full->ledMapCopy().first(), QPoint(100, 60));
            w.worker->setBlurStrength(0.25f);
            w.worker->setSaturationStrength(-0.5f);
            w.worker->unload();
        }
        TestFiles::flushDeletes();
        Worker again(fullId, options);
        auto* full = qobject_cast<FullScreenMode*>(again.worker.data());
        QCOMPARE(full->ledMapCopy().first(), QPoint(100, 60));
        QCOMPARE(again.worker->currentBlurStrength(), 0.25);
        QCOMPARE(again.worker->currentSaturationStrength(), -0.5);
    }

    void modelMapsKeepTheirRules_data()
    {
        QTest::addColumn<QString>("model");
        QTest::addColumn<QVector<int>>("lines");
        QTest::newRow("OV5512") << "OV5512" << QVector<int>{18, 36, 18};
        QTest::newRow("OV2408") << "OV2408" << QVector<int>{24};
    }

    void modelMapsKeepTheirRules()
    {
        QFETCH(QString, model);
        QFETCH(QVector<int>, lines);
        const QJsonObject file = TestFiles::readJson(QStringLiteral("controler_config/") + model + ".json");
        QCOMPARE(file.value("screenWidth").toInt(), 120);
        QCOMPARE(file.value("screenHeight").toInt(), 67);
        const QVector<QPoint> map = modelMap(QStringLiteral("controler_config/") + model + ".json");
        int total = 0;
        for (int n : lines) {
            total += n;
        }
        QCOMPARE(map.size(), total);
        QCOMPARE(file.value("ledMap").toArray().size(), total); // every id once
        // Edges in strip order: (edge axis, coordinate, step sign along the other axis).
        struct Edge
        {
            bool vertical;
            int at;
            int sign;
        };
        const QVector<Edge> edges = lines.size() == 1
                                        ? QVector<Edge>{{false, 63, +1}}
                                        : QVector<Edge>{{true, 3, -1}, {false, 3, +1}, {true, 116, +1}};
        int k = 0;
        for (int line = 0; line < lines.size(); ++line) {
            const Edge e = edges[line];
            for (int i = 0; i < lines[line]; ++i, ++k) {
                const QPoint p = map[k];
                QCOMPARE(e.vertical ? p.x() : p.y(), e.at);
                if (i > 0) {
                    const int step = e.vertical ? p.y() - map[k - 1].y() : p.x() - map[k - 1].x();
                    QVERIFY2(step * e.sign > 0, qPrintable(QString::number(k)));
                }
            }
        }
    }

    void screenshotAfterFiveSeconds()
    {
        qApp->setProperty("isScreenshot", true);
        Worker w(topId, stripOptions(QStringLiteral("NOMAP"), {8}));
        qApp->setProperty("isScreenshot", false);
        const QString folder =
            ConfigurationManager::instance()->configPath() + QStringLiteral("/capturerScreenshot");
        QDir(folder).removeRecursively();
        QDir().mkpath(folder);
        QImage frame(120, 67, QImage::Format_RGBA8888);
        frame.fill(QColor(10, 20, 30));
        QTimer feeder;
        connect(&feeder, &QTimer::timeout, this, [&] {
            QMetaObject::invokeMethod(w.worker.data(), "frameInput", Qt::QueuedConnection,
                                      Q_ARG(QImage, frame));
        });
        feeder.start(100);
        QTest::qWait(4500);
        QVERIFY(QDir(folder).entryList(QDir::Files).isEmpty());
        QTRY_COMPARE_WITH_TIMEOUT(QDir(folder).entryList(QDir::Files).size(), 1, 3000);
        const QString name = QDir(folder).entryList(QDir::Files).first();
        QVERIFY(name.startsWith(topId) && name.endsWith(".png"));
        QTRY_COMPARE(QImage(folder + "/" + name).size(), QSize(120, 67));
    }

    void workThreadLife()
    {
        EffectsManager manager;
        const QStringList modes{fullId, topId, bottomId, leftId, rightId, cinemaId};
        QSharedPointer<RecordingController> controllers[2] = {
            QSharedPointer<RecordingController>(new RecordingController("OV5512:T1", 72, {18, 36, 18}),
                                                &QObject::deleteLater),
            QSharedPointer<RecordingController>(new RecordingController("OV5512:T2", 24, {24}),
                                                &QObject::deleteLater)};
        for (const auto& controller : controllers) {
            controller->controlOptions().brightness = 1.0f;
        }
        QImage frame(120, 67, QImage::Format_RGBA8888);
        frame.fill(QColor(0, 90, 200));
        QThread* firstThread = nullptr;
        for (int i = 0; i < 200; ++i) {
            RecordingController* controller = controllers[i % 2].data();
            {
                const IEffectWorkerPtr worker = manager.bind(controllers[i % 2], modes[i % modes.size()]);
                QVERIFY(worker);
                watch(worker.data());
                QVERIFY(AbsScreenSync::currentWorkThread());
                if (i == 0) {
                    firstThread = AbsScreenSync::currentWorkThread();
                }
                const int before = controller->frames.size();
                QMetaObject::invokeMethod(worker.data(), "frameInput", Qt::QueuedConnection,
                                          Q_ARG(QImage, frame));
                QTRY_VERIFY(controller->frames.size() > before);
                QCOMPARE(controller->frames.last().first().first(), (OV_RGB{0, 90, 200}));
            }
            if (i % 50 == 49) {
                // All unbound: the thread ends, and the next worker starts a new one.
                manager.unbind(controllers[0]->controlOptions().id);
                manager.unbind(controllers[1]->controlOptions().id);
                TestFiles::flushDeletes();
                QTRY_COMPARE(AbsScreenSync::instances(), 0);
                QVERIFY(!AbsScreenSync::currentWorkThread());
            }
        }
        QVERIFY(firstThread);
    }
};

QTEST_MAIN(TestScreenModes)
#include "tst_ScreenModes.moc"
