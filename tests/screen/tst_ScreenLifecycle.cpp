#include "AbsScreenSync.h"
#include "ConfigurationManager.h"
#include "DeskCaptureBackendX11.h"
#include "DeskCaptureOption.h"
#include "DeskCapturer.h"
#include "DeskDuplManager.h"
#include "DeskFrameGrabberX11.h"
#include "DeviceRig.h"
#include "EffectsManager.h"
#include "LogCapture.h"
#include "PrivateXServer.h"
#include "PrivateXwayland.h"
#include "ScreenPainter.h"
#include "ScreenRig.h"
#include "TestFiles.h"

#include <QtEndian>
#include <QtTest>

#include <memory>

using namespace ScreenRig;

// Servers that come late, die and return, and servers without the extensions capture likes.
class TestScreenLifecycle : public QObject
{
    Q_OBJECT

    const QSize screen{1920, 1080};

    static bool stripBlack(const DeviceRig& rig)
    {
        for (const auto& led : rig.device.lastColors()) {
            if (led.r || led.g || led.b) {
                return false;
            }
        }
        return !rig.device.lastColors().isEmpty();
    }

    static bool frameShowsA(const QImage& frame, const QSize& screenSize)
    {
        if (frame.isNull()) {
            return false;
        }
        for (int y = 0; y < frame.height(); ++y) {
            for (int x = 0; x < frame.width(); ++x) {
                const auto expected = expectedA(screenSize, frame.size(), QPoint(x, y));
                const QRgb p = frame.pixel(x, y);
                if (expected && !near(*expected, qRed(p), qGreen(p), qBlue(p))) {
                    return false;
                }
            }
        }
        return true;
    }

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

    void serverLateDiesAndReturns()
    {
        // A display number that is free: a server's own pick, then the server goes.
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
            QVERIFY(painter.open(server.display()));
            QVERIFY(painter.paint(QRect(QPoint(), screen), ScreenPainter::pictureA(screen)));
            QTRY_COMPARE_WITH_TIMEOUT(ready.size(), round + 1, 3000);
            QCOMPARE(ready.last().at(0).toInt(), 0);
            if (round == 0) {
                source = registry->capturer(0);
            }
            QCOMPARE(registry->capturer(0), source); // the same object, the worker unbound
            QTRY_VERIFY_WITH_TIMEOUT(mismatchesA(rig.device.lastColors(), points, screen) == 0, 3000);
            if (round == 2) {
                break;
            }

            log.clear();
            painter.close();
            server.kill();
            QTRY_COMPARE_WITH_TIMEOUT(failed.size(), round + 1, 1000);
            QVERIFY(registry->allCapturer().isEmpty());
            QTRY_VERIFY_WITH_TIMEOUT(stripBlack(rig), 1000);
            const int quiet = workerFrames;
            QTest::qWait(300);
            QCOMPARE(workerFrames, quiet);
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

    void fallbacks_data()
    {
        QTest::addColumn<QStringList>("args");
        QTest::addColumn<QString>("mode0");
        QTest::addColumn<QString>("mode1");
        const QString server = QStringLiteral("RENDER scaling on the server");
        QTest::newRow("all") << QStringList()
                             << server + " in halving passes, the small frame read by MIT-SHM (memfd)"
                             << QStringLiteral("the full area read by MIT-SHM (memfd), averaged on the CPU");
        QTest::newRow("no MIT-SHM") << QStringList{"-extension", "MIT-SHM"}
                                    << server + " in halving passes, the small frame read by GetImage"
                                    << QStringLiteral("the full area read by GetImage, averaged on the CPU");
        QTest::newRow("no RENDER")
            << QStringList{"-extension", "RENDER"}
            << QStringLiteral("the full area read by MIT-SHM (memfd), averaged on the CPU (no RENDER)")
            << QStringLiteral("the full area read by MIT-SHM (memfd), averaged on the CPU");
        QTest::newRow("neither") << QStringList{"-extension", "MIT-SHM", "-extension", "RENDER"}
                                 << QStringLiteral(
                                        "the full area read by GetImage, averaged on the CPU (no RENDER)")
                                 << QStringLiteral("the full area read by GetImage, averaged on the CPU");
        QTest::newRow("no RANDR") << QStringList{"-extension", "RANDR"}
                                  << server + " in halving passes, the small frame read by MIT-SHM (memfd)"
                                  << QStringLiteral(
                                         "the full area read by MIT-SHM (memfd), averaged on the CPU");
    }

    void fallbacks()
    {
        QFETCH(QStringList, args);
        QFETCH(QString, mode0);
        QFETCH(QString, mode1);
        PrivateXServer server(args);
        QVERIFY2(server.start(), qPrintable(server.errorString()));
        ScreenPainter painter;
        QVERIFY2(painter.open(server.display()), qPrintable(server.display()));
        QVERIFY(painter.paint(QRect(QPoint(), screen), ScreenPainter::pictureA(screen)));

        LogCapture log;
        auto* option = new DeskCaptureOption(0);
        DeskDuplManager registry({new DeskCaptureBackendX11(server.display())}, option);
        option->setParent(&registry);
        QCOMPARE(registry.allCapturer(), QList<int>{0});
        const QString name = args.contains("RANDR") ? server.display() : QStringLiteral("screen");
        QCOMPARE(registry.capturerDesc(0), name + QStringLiteral(" 1920x1080+0+0"));

        QImage frame;
        const auto source = registry.capturer(0);
        QObject receiver; // frames still queued when the case ends die with it
        connect(source.data(), &IDeskCapture::frameTick, &receiver, [&frame](QImage f) { frame = f; });
        for (int mode : {0, 1}) {
            option->setCurMode(mode);
            frame = QImage();
            QTRY_VERIFY(frameShowsA(frame, screen));
            const QString line = QStringLiteral("in mode %1 by %2").arg(mode).arg(mode == 0 ? mode0 : mode1);
            QTRY_COMPARE(log.count(line), 1);
            QTest::qWait(200);
            QCOMPARE(log.count(line), 1); // once, not per frame
        }
        disconnect(source.data(), nullptr, &receiver, nullptr);
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
