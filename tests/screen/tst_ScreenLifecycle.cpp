#include "AbsScreenSync.h"
#include "ConfigurationManager.h"
#include "DeskCaptureBackendX11.h"
#include "DeskCaptureOption.h"
#include "DeskDuplManager.h"
#include "DeskFrameGrabberX11.h"
#include "DeviceRig.h"
#include "EffectsManager.h"
#include "LogCapture.h"
#include "PrivateXServer.h"
#include "PrivateXwayland.h"
#include "ScreenRig.h"

#include <QtEndian>
#include <QtTest>

#include <memory>

using namespace ScreenRig;

// Servers that come late, die and return, and servers without the extensions capture likes.
class TestScreenLifecycle : public QObject
{
    Q_OBJECT

    const QSize screen{1920, 1080};

    static QImage grabSmall(DeskFrameGrabberX11& grabber, const QRect& area)
    {
        QImage frame;
        grabber.grab(area, QSize(120, 67), 0, &frame);
        return frame;
    }

    // Fills rect of an XWD framebuffer file (Xvfb -fbdir) that the server maps as its screen.
    static bool writeFramebuffer(const QString& path, const QRect& rect, const QColor& colour)
    {
        QFile file(path);
        if (!file.open(QIODevice::ReadWrite)) {
            return false;
        }
        const QByteArray header = file.read(100);
        auto field = [&header](int i) { return qFromBigEndian<quint32>(header.constData() + 4 * i); };
        if (header.size() < 100 || field(11) != 32) { // 32 bits a pixel
            return false;
        }
        const qint64 pixels = qint64(field(0)) + qint64(field(19)) * 12; // header, then the colour map
        const quint32 value = qToLittleEndian(quint32(colour.rgb() & 0xffffff));
        const QByteArray line = QByteArray(reinterpret_cast<const char*>(&value), 4).repeated(rect.width());
        for (int y = rect.top(); y <= rect.bottom(); ++y) {
            if (!file.seek(pixels + qint64(y) * field(12) + rect.x() * 4) ||
                file.write(line) != line.size()) {
                return false;
            }
        }
        return true;
    }

private slots:
    void initTestCase()
    {
        QVERIFY(TestFiles::copyTree(QStringLiteral(ORVANTA_DATA_DIR "/controler_config"),
                                    QDir::currentPath() + QStringLiteral("/controler_config")));
        ConfigurationManager::instance()->reset();
    }

    // DISPLAY names a server not yet running: no source, one warning, a bound worker waits. The
    // server starts: picture A on the strip. Killed: one warning, the strip black, no worker frame
    // after. Restarted: the same source and worker, picture A back, unbound; twice.
    void serverLateDiesAndReturns()
    {
        PrivateXServer server({}, QStringLiteral("1920x1080x24"), true);
        QVERIFY2(server.start(), qPrintable(server.errorString()));
        server.kill();
        qputenv("DISPLAY", server.display().toLocal8Bit());

        LogCapture log;
        DeskDuplManager* registry = DeskDuplManager::instance();
        QVERIFY(registry->allCapturer().isEmpty());
        QCOMPARE(log.count("screen sync needs an X11 desktop"), 1);

        EffectsManager effects;
        DeviceRig rig;
        ControlOptions options = DeviceRig::defaultOptions(72);
        options.lines = {18, 36, 18};
        QVERIFY(rig.start(options));
        const IEffectWorkerPtr worker = effects.bind(rig.controller, fullId);
        QCOMPARE(log.count("[AbsScreenSync]: Cannot connect to any capture"), 1);
        int workerFrames = 0;
        connect(worker.data(), qOverload<QVector<QVector<OV_RGB>>>(&IEffectWorker::updateColors), this,
                [&workerFrames] { ++workerFrames; });
        const QVector<QPoint> points = readPoints(fullId, 72, QSize(120, 67), 0,
                                                  modelMap(QStringLiteral("controler_config/OV5512.json")));
        QSignalSpy ready(registry, &DeskDuplManager::capturerReady);
        QSignalSpy failed(registry, &DeskDuplManager::capturerFailed);
        QSharedPointer<IDeskCapture> source;
        for (int round = 0; round < 3; ++round) {
            QVERIFY2(server.start(), qPrintable(server.errorString()));
            ScreenPainter painter;
            QVERIFY(painter.open(server.display()) &&
                    painter.paint(QRect(QPoint(), screen), ScreenPainter::pictureA(screen)));
            QTRY_COMPARE_WITH_TIMEOUT(ready.size(), round + 1, 3000);
            QCOMPARE(ready.last().at(0).toInt(), 0);
            source = round == 0 ? registry->capturer(0) : source;
            QCOMPARE(registry->capturer(0), source);
            QTRY_VERIFY_WITH_TIMEOUT(mismatchesA(rig.device.lastColors(), points, screen) == 0, 3000);
            if (round == 2) {
                break;
            }

            log.clear();
            painter.close();
            server.kill();
            QTRY_VERIFY_WITH_TIMEOUT(failed.size() == round + 1 && registry->allCapturer().isEmpty(), 1000);
            QTRY_COMPARE_WITH_TIMEOUT(rig.device.lastColors(), QVector<VirtualLedDevice::Rgb>(72), 1000);
            const int quiet = workerFrames;
            QVERIFY(!QTest::qWaitFor([&] { return workerFrames > quiet; }, 500));
            QCOMPARE(log.count("Lost the connection"), 1);
        }
        effects.unbind(rig.controller->controlOptions().id);
        registry->shutdown();
    }

    void notADesktop_data()
    {
        QTest::addColumn<bool>("xwayland");
        QTest::newRow("nonsense") << false;
        QTest::newRow("Xwayland") << true; // its root shows only the X11 windows
    }

    void notADesktop()
    {
        QFETCH(bool, xwayland);
        PrivateXwayland compositor;
        if (xwayland) {
            QVERIFY2(compositor.start(), qPrintable(compositor.errorString()));
        }
        LogCapture log;
        DeskCaptureOption option(0);
        DeskDuplManager registry({new DeskCaptureBackendX11(xwayland ? compositor.display()
                                                                     : QStringLiteral("no such display:x"))},
                                 &option);
        QVERIFY(registry.allCapturer().isEmpty());
        QVERIFY(registry.capturer(0).isNull());
        QCOMPARE(log.count("screen sync needs an X11 desktop"), 1);
        QCOMPARE(log.count("is Xwayland"), xwayland ? 1 : 0);
    }

    // Each server on a backend of its own: picture A right in both modes, the technique by what the
    // server offers logged once per mode (neither extension: no-RENDER's CPU path, no-SHM's reads).
    void fallbacks_data()
    {
        QTest::addColumn<QStringList>("args");
        QTest::addColumn<bool>("shm");
        QTest::addColumn<bool>("render");
        QTest::newRow("no MIT-SHM") << QStringList{"-extension", "MIT-SHM"} << false << true;
        QTest::newRow("no RENDER") << QStringList{"-extension", "RENDER"} << true << false;
        QTest::newRow("no RANDR") << QStringList{"-extension", "RANDR"} << true << true;
    }
    void fallbacks()
    {
        QFETCH(QStringList, args);
        QFETCH(bool, shm);
        QFETCH(bool, render);
        PrivateXServer server(args);
        QVERIFY2(server.start(), qPrintable(server.errorString()));
        ScreenPainter painter;
        QVERIFY(painter.open(server.display()) &&
                painter.paint(QRect(QPoint(), screen), ScreenPainter::pictureA(screen)));

        LogCapture log;
        auto* option = new DeskCaptureOption(0);
        DeskDuplManager registry({new DeskCaptureBackendX11(server.display())}, option);
        option->setParent(&registry);
        QCOMPARE(registry.allCapturer(), QList<int>{0});
        const QString name = args.contains("RANDR") ? server.display() : QStringLiteral("screen");
        QCOMPARE(registry.capturerDesc(0), name + QStringLiteral(" 1920x1080+0+0"));

        QImage frame;
        int frames = 0;
        const auto source = registry.capturer(0);
        QObject receiver; // frames still queued when the case ends die with it
        connect(source.data(), &IDeskCapture::frameTick, &receiver, [&](QImage f) {
            frame = f;
            ++frames;
        });
        const auto showsA = [&] {
            for (int p = 0; p < frame.width() * frame.height(); ++p) {
                const QPoint at(p % frame.width(), p / frame.width());
                const auto expected = expectedA(screen, frame.size(), at);
                if (expected && !near(*expected, qRed(frame.pixel(at)), qGreen(frame.pixel(at)),
                                      qBlue(frame.pixel(at)))) {
                    return false;
                }
            }
            return !frame.isNull();
        };
        for (int mode : {0, 1}) {
            option->setCurMode(mode);
            frame = QImage();
            QTRY_VERIFY(showsA());
            const QString tag = QStringLiteral("in mode %1 by").arg(mode);
            QTRY_COMPARE(log.lines().filter(tag).size(), 1);
            const QStringList lines = log.lines().filter(tag);
            QVERIFY2(lines.first().contains(shm ? "MIT-SHM" : "GetImage") &&
                         lines.first().contains(mode == 0 && render ? "on the server" : "on the CPU"),
                     qPrintable(lines.first()));
            const int seen = frames;
            QTRY_VERIFY(frames > seen + 5);
            QCOMPARE(log.lines().filter(tag).size(), 1); // once, not per frame
        }
        registry.shutdown();
    }

    // Mode 0 redoes only what the server reports drawn: the result must be the full pass's, on a
    // monitor at an offset too, and for a change across the monitor's edge.
    void partialPassEqualsFull_data()
    {
        QTest::addColumn<QRect>("area");
        QTest::addColumn<QRect>("change");
        QTest::newRow("odd spot") << QRect(0, 0, 1920, 1080) << QRect(333, 211, 150, 97);
        QTest::newRow("tiny, right monitor") << QRect(960, 0, 960, 1080) << QRect(1001, 517, 3, 5);
        QTest::newRow("across its edge") << QRect(960, 0, 960, 1080) << QRect(900, 1000, 200, 80);
    }

    void partialPassEqualsFull()
    {
        QFETCH(QRect, area);
        QFETCH(QRect, change);
        PrivateXServer server;
        QVERIFY2(server.start(), qPrintable(server.errorString()));
        ScreenPainter painter;
        QVERIFY(painter.open(server.display()));
        QVERIFY(painter.paint(QRect(QPoint(), screen), ScreenPainter::pictureA(screen)));
        std::unique_ptr<DeskFrameGrabberX11> kept(DeskFrameGrabberX11::open(server.display()));
        const QImage before = grabSmall(*kept, area);
        QVERIFY(painter.paint(change, {{QRect(QPoint(), change.size()), Qt::yellow}}));
        const QImage partial = grabSmall(*kept, area);
        std::unique_ptr<DeskFrameGrabberX11> fresh(DeskFrameGrabberX11::open(server.display()));
        QVERIFY(partial != before);
        QVERIFY(partial == grabSmall(*fresh, area));
    }

    // A server whose screen changes without reports (here its framebuffer file is written behind
    // its back): the next check finds it, says so once, and every frame takes the full pass.
    void unreportedChange()
    {
        QTemporaryDir folder;
        PrivateXServer server({QStringLiteral("-fbdir"), folder.path()});
        QVERIFY2(server.start(), qPrintable(server.errorString()));
        ScreenPainter painter;
        QVERIFY(painter.open(server.display()));
        QVERIFY(painter.paint(QRect(QPoint(), screen), ScreenPainter::pictureA(screen)));
        LogCapture log;
        const QRect all(QPoint(), screen);
        std::unique_ptr<DeskFrameGrabberX11> grabber(DeskFrameGrabberX11::open(server.display()));
        grabSmall(*grabber, all); // the first frames redo what was drawn before
        QImage frame = grabSmall(*grabber, all);
        QCOMPARE(frame.pixelColor(60, 33), QColor(Qt::black));
        const QString framebuffer = folder.filePath(QStringLiteral("Xvfb_screen0"));
        QVERIFY(writeFramebuffer(framebuffer, QRect(660, 330, 600, 420), Qt::white));
        for (int i = 0; i < 40 && !log.contains("without reporting damage"); ++i) {
            frame = grabSmall(*grabber, all);
        }
        QCOMPARE(log.count("without reporting damage"), 1);
        QCOMPARE(frame.pixelColor(60, 33), QColor(Qt::white));
        QVERIFY(writeFramebuffer(framebuffer, QRect(660, 330, 600, 420), Qt::green));
        QCOMPARE(grabSmall(*grabber, all).pixelColor(60, 33), QColor(Qt::green));
    }
};

QTEST_MAIN(TestScreenLifecycle)
#include "tst_ScreenLifecycle.moc"
