#include "LogCapture.h"
#include "RecordingController.h"
#include "ScreenRig.h"
#include "effects/EffectsManager.h"
#include "effects/InternalEffectFactory.h"
#include "effects/screensync/AbsScreenSync.h"
#include "effects/screensync/FullScreenMode.h"
#include "service/config/ConfigurationManager.h"
#include "service/screen/AreaAverager.h"
#include "service/screen/DeskCapturer.h"
#include "service/screen/x11/X11RenderScaler.h"

#include <QtTest>

#include <opencv2/imgproc.hpp>

using namespace ScreenRig;

namespace {

// Workers die on the work thread and log as they go: a row must not end before they are gone,
// or QtTest frees the row's name while that thread prints it.
QAtomicInt liveWorkers;

// A worker of the catalogue loaded on a strip of the model's lines, keeping its colours in strip
// order as they come.
struct Worker
{
    QSharedPointer<AbsScreenSync> worker;
    QVector<OV_RGB> colors;
    int frames = 0;

    Worker(const QString& id, const QString& model, QVector<uint32_t> lines, uint32_t dir = 0)
    {
        worker.reset(qobject_cast<AbsScreenSync*>(InternalEffectFactory().create(id)), &QObject::deleteLater);
        liveWorkers.ref();
        QObject::connect(worker.data(), &QObject::destroyed, [] { liveWorkers.deref(); });
        QObject::connect(worker.data(), qOverload<QVector<QVector<OV_RGB>>>(&IEffectWorker::updateColors),
                         worker.data(), [this](QVector<QVector<OV_RGB>> lines) {
                             colors = std::accumulate(lines.cbegin(), lines.cend(), QVector<OV_RGB>());
                             ++frames;
                         });
        ControlOptions o;
        o.model = model;
        o.id = model + QStringLiteral(":MODES");
        o.lines = lines;
        o.nbLeds = std::accumulate(lines.cbegin(), lines.cend(), 0u);
        o.installDirection = dir;
        worker->load(o);
    }
    FullScreenMode* full() const { return qobject_cast<FullScreenMode*>(worker.data()); }
    // Queued, as a capture source delivers; true once the colours of it came back.
    bool feed(const QImage& frame)
    {
        const int before = frames;
        QMetaObject::invokeMethod(worker.data(), "frameInput", Qt::QueuedConnection, Q_ARG(QImage, frame));
        return QTest::qWaitFor([&] { return frames > before; }, 5000);
    }
};

// Packs picture as a display server would lay it out, for the CPU averaging.
QByteArray packed(const QImage& picture, const AreaAverager::PixelLayout& layout)
{
    const int stride = AreaAverager::strideOf(picture.width(), layout);
    const int bytes = layout.bitsPerPixel / 8;
    QByteArray data(stride * picture.height(), '\0');
    for (int y = 0; y < picture.height(); ++y) {
        for (int x = 0; x < picture.width(); ++x) {
            const QColor c = picture.pixelColor(x, y);
            const int channels[3] = {c.red(), c.green(), c.blue()};
            uint32_t value = 0;
            for (int i = 0; i < 3; ++i) {
                const uint32_t mask = layout.masks[i];
                const uint32_t most = mask >> __builtin_ctz(mask);
                value |= ((uint32_t(channels[i]) * most + 127) / 255) << __builtin_ctz(mask);
            }
            char* at = data.data() + y * stride + x * bytes;
            for (int b = 0; b < bytes; ++b) { // in the server's byte order
                const int shift = 8 * (layout.swapBytes ? bytes - 1 - b : b);
                at[b] = char((value >> shift) & 0xff);
            }
        }
    }
    return data;
}

} // namespace

// The pipeline on synthetic frames, no X server; each row's worker starts and ends the thread.
class TestScreenModes : public QObject
{
    Q_OBJECT

    QVector<QPoint> map5512;

private slots:
    void initTestCase()
    {
        QVERIFY(TestFiles::copyTree(QStringLiteral(ORVANTA_DATA_DIR "/controler_config"),
                                    QDir::currentPath() + QStringLiteral("/controler_config")));
        map5512 = modelMap(QStringLiteral("controler_config/OV5512.json"));
        ConfigurationManager::instance()->reset();
    }

    // The CPU averaging of mode 1 on plain pictures in each pixel layout a server may use: a
    // uniform picture keeps its colour, fine detail averages instead of being sampled, and the
    // last rows and column of an odd size reach the frame.
    void cpuAveraging_data()
    {
        const QSize hd(1920, 1080), odd(1001, 777);
        QTest::addColumn<QString>("layout"); // bits a pixel, and whether the server swaps bytes
        QTest::addColumn<QSize>("source");
        QTest::addColumn<QString>("picture");
        QTest::addColumn<int>("tolerance");
        QTest::addColumn<int>("rows"); // of the output; 0: as the source's aspect gives
        QTest::newRow("uniform, 32 bits") << "32" << hd << "uniform" << 0 << 0;
        QTest::newRow("uniform, 32 bits, bytes swapped") << "32 swapped" << hd << "uniform" << 0 << 0;
        QTest::newRow("uniform, 24 bits packed") << "24" << odd << "uniform" << 0 << 0;
        QTest::newRow("uniform, 16 bits 565") << "16" << odd << "uniform" << 5 << 0;
        QTest::newRow("checkerboard: means, not samples") << "32" << hd << "checker" << 1 << 0;
        QTest::newRow("1080p, the bottom 8 rows") << "32" << hd << "bottom" << 0 << 0;
        QTest::newRow("1001 wide, the last column") << "24 swapped" << odd << "right" << 0 << 0;
        QTest::newRow("1001 wide, 32 bits, the last column") << "32" << odd << "right" << 0 << 0;
        QTest::newRow("600 rows to one, 32 bits") << "32" << QSize(240, 600) << "uniform" << 0 << 1;
    }
    void cpuAveraging()
    {
        QFETCH(QString, layout);
        QFETCH(QSize, source);
        QFETCH(QString, picture);
        QFETCH(int, tolerance);
        QFETCH(int, rows);
        AreaAverager::PixelLayout pixels;
        pixels.bitsPerPixel = layout.section(' ', 0, 0).toInt();
        pixels.swapBytes = layout.endsWith("swapped");
        if (pixels.bitsPerPixel == 16) {
            pixels.masks[0] = 0xf800;
            pixels.masks[1] = 0x07e0;
            pixels.masks[2] = 0x001f;
        }
        const QColor uniform(200, 120, 40);
        QImage in(source, QImage::Format_RGB32);
        in.fill(picture == "uniform" ? uniform : QColor(Qt::black));
        for (int y = 0; y < source.height(); ++y) {
            for (int x = 0; x < source.width(); ++x) {
                if ((picture == "checker" && (x + y) % 2) ||
                    (picture == "bottom" && y >= source.height() - 8) ||
                    (picture == "right" && x == source.width() - 1)) {
                    in.setPixelColor(x, y, Qt::white);
                }
            }
        }
        const QByteArray data = packed(in, pixels);
        QImage out(120, rows > 0 ? rows : DeskCapturer::aspectHeight(120, source), QImage::Format_RGBA8888);
        AreaAverager::average(reinterpret_cast<const uint8_t*>(data.constData()), source.width(),
                              source.height(), AreaAverager::strideOf(source.width(), pixels), pixels, &out);
        const QColor expected = picture == "uniform" ? uniform : QColor(128, 128, 128);
        const QPoint edge = picture == "bottom"  ? QPoint(60, out.height() - 1)
                            : picture == "right" ? QPoint(out.width() - 1, out.height() / 2)
                                                 : QPoint(-1, -1);
        for (int y = 0; y < out.height(); ++y) {
            for (int x = 0; x < out.width(); ++x) {
                const QColor c = out.pixelColor(x, y);
                QCOMPARE(c.alpha(), 255);
                if (edge.x() < 0) {
                    QVERIFY2(qAbs(c.red() - expected.red()) <= tolerance &&
                                 qAbs(c.green() - expected.green()) <= tolerance &&
                                 qAbs(c.blue() - expected.blue()) <= tolerance,
                             qPrintable(QStringLiteral("%1,%2: %3").arg(x).arg(y).arg(c.name())));
                } else if (QPoint(x, y) == edge) {
                    QVERIFY2(c.red() > 16 && c.red() == c.blue(), qPrintable(c.name()));
                }
            }
        }
        QVERIFY(edge.x() < 0 || out.pixelColor(0, 0) == QColor(Qt::black));
    }

    // For any monitor size, mode 0's passes end on the target, each an exact halving of an even
    // size or the one step of a ratio between 0.75 and 1.5: no row weighs next to nothing.
    void passesLoseNoRow()
    {
        for (int to : {67, 93, 96, 120, 135}) {
            for (int from = to, size = to, others = 0; from <= 8192; ++from, size = from, others = 0) {
                for (const X11RenderScaler::Step& step : X11RenderScaler::axisSteps(from, to)) {
                    const bool halving = step.scale == 2.0 && step.size * 2 == size;
                    others += !halving;
                    QVERIFY(halving || (step.scale >= 0.75 && step.scale <= 1.5 &&
                                        step.scale == double(size) / step.size));
                    size = step.size;
                }
                QVERIFY2(size == to && others <= 1, qPrintable(QStringLiteral("%1 to %2").arg(from).arg(to)));
            }
        }
    }

    void cleanup()
    {
        TestFiles::flushDeletes();
        QTRY_COMPARE(liveWorkers.loadAcquire(), 0);
    }

    // A frame coded red 2x, green 2y + 1 tells which pixel each LED read.
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
        QImage coded(frame, QImage::Format_RGBA8888);
        for (int y = 0; y < frame.height(); ++y) {
            for (int x = 0; x < frame.width(); ++x) {
                coded.setPixel(x, y, qRgba(2 * x, 2 * y + 1, 0, 255));
            }
        }
        const QVector<uint32_t> lines =
            leds == 72 ? QVector<uint32_t>{18, 36, 18} : QVector<uint32_t>{uint32_t(leds)};
        Worker w(effect, QStringLiteral("OV5512"), lines, dir);
        QVERIFY(w.feed(coded));
        const QVector<QPoint> expected = readPoints(effect, leds, frame, int(dir), map5512);
        QCOMPARE(w.colors.size(), leds);
        // The cinema crop is stretched twice; a pixel either way of the worked-out one passes there.
        const int slack = effect == cinemaId ? 1 : 0;
        for (int k = 0; k < leds; ++k) {
            const QPoint off = QPoint((w.colors[k].r + 1) / 2, w.colors[k].g / 2) - expected[k];
            QVERIFY2(qAbs(off.x()) <= slack && qAbs(off.y()) <= slack,
                     qPrintable(QStringLiteral("LED %1").arg(k)));
        }
    }

    // A white column on black, one LED per column of the top band: it spreads exactly (k - 1) / 2
    // pixels each way, with the kernel's weight in the middle; at saturation +1 grey stays grey.
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
        Worker w(topId, QStringLiteral("NOMAP"), {120});
        w.worker->setBlurStrength(blur);
        w.worker->setSaturationStrength(1.0f);
        QImage frame(120, 67, QImage::Format_RGBA8888);
        frame.fill(QColor(0, 0, 0));
        for (int y = 0; y < 67; ++y) {
            frame.setPixel(60, y, qRgba(255, 255, 255, 255));
        }
        QVERIFY(w.feed(frame));
        const int reach = (kernel - 1) / 2;
        const double middle = cv::getGaussianKernel(kernel, 0.0, CV_64F).at<double>(reach);
        QVERIFY2(qAbs(w.colors[60].r - qRound(255.0 * middle)) <= 1,
                 qPrintable(QString::number(w.colors[60].r)));
        QCOMPARE(w.colors[60 - reach - 1].r, uint8_t(0));
        QCOMPARE(w.colors[60 + reach + 1].r, uint8_t(0));
        QVERIFY(w.colors[60].g == w.colors[60].r && w.colors[60].b == w.colors[60].r);
    }

    // Values a panel can't set, from a hand-edited file: held to the panel's range with one
    // warning, and a frame goes through (blur -1 made OpenCV throw out of the queued slot).
    void storedValuesHeldToPanel_data()
    {
        QTest::addColumn<QString>("key");
        QTest::addColumn<QByteArray>("stored");
        QTest::addColumn<double>("expected");
        QTest::newRow("blur -1") << "blurStrength" << QByteArray("-1") << 0.0;
        QTest::newRow("blur 50") << "blurStrength" << QByteArray("50") << 1.0;
        QTest::newRow("blur as text") << "blurStrength" << QByteArray("\"much\"") << 0.0;
        QTest::newRow("saturation 5") << "saturationStrength" << QByteArray("5") << 1.0;
        QTest::newRow("saturation -7") << "saturationStrength" << QByteArray("-7") << -1.0;
        QTest::newRow("map 2e9 wide") << "map" << QByteArray(R"({"screenWidth": 2e9})") << 300.0;
        QTest::newRow("map -5 high") << "map" << QByteArray(R"({"screenHeight": -5})") << 5.0;
    }
    void storedValuesHeldToPanel()
    {
        QFETCH(QString, key);
        QFETCH(QByteArray, stored);
        QFETCH(double, expected);
        const QString model = QStringLiteral("HELD%1").arg(QTest::currentDataTag()).remove(' ');
        ConfigurationManager::instance()->setEffectJsonValue(
            fullId, model + ":MODES", key, QJsonDocument::fromJson("[" + stored + "]").array().first());
        LogCapture log;
        Worker w(fullId, model, {18, 36, 18});
        const QSize size = w.full()->screenSize();
        const double value = key == "blurStrength"         ? w.worker->currentBlurStrength()
                             : key == "saturationStrength" ? w.worker->currentSaturationStrength()
                             : stored.contains("Width")    ? size.width()
                                                           : size.height();
        QCOMPARE(value, expected);
        QCOMPARE(log.count("outside"), 1);
        QImage frame(120, 67, QImage::Format_RGBA8888);
        frame.fill(QColor(0, 90, 200));
        QVERIFY(w.feed(frame));
    }

    // On a strip of 130 (LEDs 0, 1, 120, 129 looked at): a model's file not JSON or missing leaves
    // the grid, logged; its entries apply, each axis alone. The user's map wins; sizes and places
    // within bounds only; reset reads the file alone; unload stores what the next worker reads.
    void ledMap()
    {
        const QString path = QStringLiteral("controler_config/TESTMAP.json");
        const auto probe = [](const Worker& w) {
            const QVector<QPoint> map = w.full()->ledMapCopy();
            return QVector<QPoint>{map[0], map[1], map[120], map[129]};
        };
        const QVector<QPoint> grid{{0, 0}, {1, 0}, {0, 1}, {9, 1}};
        LogCapture log;
        QVERIFY(TestFiles::write(path, "screen"));
        {
            Worker w(fullId, QStringLiteral("TESTMAP"), {130});
            QCOMPARE(probe(w), grid);
            QCOMPARE(log.count("Failed to parser default LED configuration json file"), 1);
            QVERIFY(QFile::remove(path));
            w.full()->resetLEDMap();
            QCOMPARE(probe(w), grid);
            QCOMPARE(log.count("Not found default LED configuration file"), 1);
        }
        QVERIFY(TestFiles::write(path, R"({"screenWidth": 100, "screenHeight": 50, "ledMap": [
                {"id": 0, "x": 5, "y": 5}, {"id": 2, "x": 10, "y": 60}, {"id": 130, "x": 99, "y": 49},
                {"id": 131, "x": 1, "y": 1}, {"id": -2147483648, "x": 3, "y": 3}, {"id": 1, "x": -1, "y": 7}]})"));
        const QVector<QPoint> fromFile{{0, 7}, {10, 0}, {0, 1}, {99, 49}};
        ConfigurationManager::instance()->setEffectJsonValue(
            fullId, "TESTMAP:MODES", "map",
            QJsonDocument::fromJson(
                R"({"screenWidth": 80, "screenHeight": 40, "ledMap": [{"id": 1, "x": 70, "y": 30}]})")
                .object());
        {
            Worker w(fullId, QStringLiteral("TESTMAP"), {130});
            FullScreenMode* full = w.full();
            QCOMPARE(full->screenSize(), QSize(80, 40));
            QCOMPARE(full->ledMapCopy().first(), QPoint(70, 30));
            full->setScreenSize(QSize(301, 10));
            full->setScreenSize(QSize(50, 20));
            QCOMPARE(log.count("The size is invalid"), 1);
            QCOMPARE(full->ledMapCopy().first(), QPoint(49, 19)); // pulled in
            full->setLEDPos(1, QPoint(50, 0));
            full->setLEDPos(1, QPoint(49, 18));
            QCOMPARE(log.count("is out of range"), 1);
            QCOMPARE(full->ledMapCopy().at(1), QPoint(49, 18));
            full->resetLEDMap();
            QCOMPARE(full->screenSize(), QSize(100, 50));
            QCOMPARE(probe(w), fromFile);
            w.worker->setBlurStrength(0.25f);
            w.worker->setSaturationStrength(-0.5f);
            w.worker->unload();
        }
        TestFiles::flushDeletes();
        Worker again(fullId, QStringLiteral("TESTMAP"), {130});
        QCOMPARE(probe(again), fromFile);
        QCOMPARE(again.worker->currentBlurStrength(), 0.25);
        QCOMPARE(again.worker->currentSaturationStrength(), -0.5);
    }
    // Each model's map: 120 x 67, every LED once, each line along its edge 3 pixels in, in strip
    // order (one line: the bottom, left to right; three: left upward, top, right downward).
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
        const QString path = QStringLiteral("controler_config/") + model + ".json";
        const QJsonObject file = TestFiles::readJson(path);
        QCOMPARE(QSize(file.value("screenWidth").toInt(), file.value("screenHeight").toInt()),
                 QSize(120, 67));
        const QVector<QPoint> map = modelMap(path);
        QCOMPARE(file.value("ledMap").toArray().size(), std::accumulate(lines.cbegin(), lines.cend(), 0));
        struct Edge
        {
            bool vertical;
            int at;
            int sign; // of the step along the edge
        };
        const QVector<Edge> edges = lines.size() == 1
                                        ? QVector<Edge>{{false, 63, +1}}
                                        : QVector<Edge>{{true, 3, -1}, {false, 3, +1}, {true, 116, +1}};
        for (int line = 0, k = 0; line < lines.size(); ++line) {
            const Edge e = edges[line];
            for (int i = 0; i < lines[line]; ++i, ++k) {
                QCOMPARE(e.vertical ? map[k].x() : map[k].y(), e.at);
                const int step =
                    e.vertical ? map[k].y() - map[qMax(k - 1, 0)].y() : map[k].x() - map[qMax(k - 1, 0)].x();
                QVERIFY2(i == 0 || step * e.sign > 0, qPrintable(QString::number(k)));
            }
        }
    }

    // With "isScreenshot", the first frame more than 5 s after the worker was made leaves one PNG
    // of the working picture under the configuration folder. Each frame has its colour: the PNG
    // shows one fed after the 5 s had surely begun, and no later than the first surely after.
    void screenshotAfterFiveSeconds()
    {
        const QString folder =
            ConfigurationManager::instance()->configPath() + QStringLiteral("/capturerScreenshot");
        QDir(folder).removeRecursively();
        QElapsedTimer clock; // started before the worker's own
        clock.start();
        qApp->setProperty("isScreenshot", true);
        Worker w(topId, QStringLiteral("NOMAP"), {8});
        qApp->setProperty("isScreenshot", false);
        const qint64 made = clock.elapsed();
        const auto colour = [](int i) { return QColor(10 + i % 240, 50, 90); };
        int first = -1; // the first frame fed with more than 5 s on the worker's clock for sure
        int last = 0;   // frames up to this one were done before 5 s on any clock
        for (int i = 0; first < 0; ++i) {
            QImage frame(120, 67, QImage::Format_RGBA8888);
            frame.fill(colour(i));
            first = clock.elapsed() - made > 5000 ? i : -1;
            QVERIFY(w.feed(frame));
            last = clock.elapsed() <= 5000 ? i + 1 : last;
            QTest::qWait(100); // a frame every tenth of a second, as the capture would send
        }
        QTRY_COMPARE(QDir(folder).entryList(QDir::Files).size(), 1);
        const QString name = QDir(folder).entryList(QDir::Files).first();
        QVERIFY(name.startsWith(topId) && name.endsWith(".png"));
        QImage shot;
        QTRY_VERIFY((shot = QImage(folder + "/" + name)).pixelColor(5, 5).isValid());
        const int shown = shot.pixelColor(5, 5).red() - 10;
        qInfo("screenshot of frame %d; frames 0 to %d were done by 5 s, %d surely fed after", shown, last - 1,
              first);
        QVERIFY(shown >= last && shown <= first && shot.pixelColor(5, 5) == colour(shown));
    }

    // Binds cycling the six modes over two strips: a mode switch makes the new worker while the
    // old one dies on the work thread. Each new worker answers its frame; with all unbound the
    // thread ends, and the next worker starts another.
    void workThreadLife()
    {
        EffectsManager manager;
        const QStringList modes{fullId, topId, bottomId, leftId, rightId, cinemaId};
        const QSharedPointer<RecordingController> strips[2] = {
            {new RecordingController("OV5512:T1", 72, {18, 36, 18}), &QObject::deleteLater},
            {new RecordingController("OV2408:T2", 24, {24}), &QObject::deleteLater}};
        QImage frame(120, 67, QImage::Format_RGBA8888);
        frame.fill(QColor(0, 90, 200));
        for (int i = 0; i < 200; ++i) {
            RecordingController* strip = strips[i % 2].data();
            strip->controlOptions().brightness = 1.0f;
            IEffectWorkerPtr worker = manager.bind(strips[i % 2], modes[i % modes.size()]);
            QVERIFY(worker && AbsScreenSync::currentWorkThread());
            const int before = strip->frames.size();
            QMetaObject::invokeMethod(worker.data(), "frameInput", Qt::QueuedConnection,
                                      Q_ARG(QImage, frame));
            QTRY_VERIFY(strip->frames.size() > before);
            QCOMPARE(strip->frames.last().first().first(), (OV_RGB{0, 90, 200}));
            worker.reset();
            if (i % 50 == 49) {
                manager.unbind(strips[0]->controlOptions().id);
                manager.unbind(strips[1]->controlOptions().id);
                TestFiles::flushDeletes();
                QTRY_COMPARE(AbsScreenSync::instances(), 0);
                QVERIFY(!AbsScreenSync::currentWorkThread());
            }
        }
    }
};

QTEST_MAIN(TestScreenModes)
#include "tst_ScreenModes.moc"
