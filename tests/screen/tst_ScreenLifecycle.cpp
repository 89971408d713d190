#include "DeviceRig.h"
#include "LogCapture.h"
#include "PrivateXServer.h"
#include "PrivateXwayland.h"
#include "ScreenRig.h"
#include "effects/EffectsManager.h"
#include "effects/screensync/AbsScreenSync.h"
#include "service/config/ConfigurationManager.h"
#include "service/screen/DeskCaptureOption.h"
#include "service/screen/DeskCapturer.h"
#include "service/screen/DeskDuplManager.h"
#include "service/screen/x11/DeskCaptureBackendX11.h"
#include "service/screen/x11/DeskFrameGrabberX11.h"

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
    // server starts: picture A on the strip. Killed: one warning, the strip black, nothing but
    // black from the worker after. Restarted: the same source and worker, picture A back; twice.
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
        QVector<bool> black; // each colour set the worker sent, in order
        QObject receiver;    // colours still queued when the case ends die with it
        const QVector<QVector<OV_RGB>> allBlack{QVector<OV_RGB>(18), QVector<OV_RGB>(36),
                                                QVector<OV_RGB>(18)};
        connect(worker.data(), qOverload<QVector<QVector<OV_RGB>>>(&IEffectWorker::updateColors), &receiver,
                [&](QVector<QVector<OV_RGB>> lines) { black.append(lines == allBlack); });
        const QVector<QPoint> points = readPoints(fullId, 72, QSize(120, 67), 0,
                                                  modelMap(QStringLiteral("controler_config/OV5512.json")));
        QSignalSpy ready(registry, &DeskDuplManager::capturerReady);
        QSignalSpy failed(registry, &DeskDuplManager::capturerFailed);
        QSharedPointer<IDeskCapture> source;
        int dark = -1;
        for (int round = 0; round < 3; ++round) {
            QVERIFY(dark < 0 || !black.mid(dark).contains(false));
            QVERIFY2(server.start(), qPrintable(server.errorString()));
            ScreenPainter painter;
            QVERIFY(painter.open(server.display()) &&
                    painter.paint(QRect(QPoint(), screen), ScreenPainter::pictureA(screen)));
            QVERIFY(waitMeasured("source back", 2000, [&] { return ready.size() == round + 1; }));
            QCOMPARE(ready.last().at(0).toInt(), 0);
            source = round == 0 ? registry->capturer(0) : source;
            QCOMPARE(registry->capturer(0), source);
            QVERIFY(waitMeasured("picture A on the strip", 1000,
                                 [&] { return mismatchesA(rig.device.lastColors(), points, screen) == 0; }));
            if (round == 2) {
                break;
            }

            log.clear();
            painter.close();
            server.kill();
            QVERIFY(waitMeasured("strip black", 1000, [&] {
                return registry->allCapturer().isEmpty() && !failed.isEmpty() && failed.last().at(0) == 0 &&
                       rig.device.lastColors() == QVector<VirtualLedDevice::Rgb>(72) &&
                       log.contains("is gone and no other is left");
            }));
            dark = black.lastIndexOf(false) + 1;
            QCOMPARE(log.count("Lost the connection"), 1);
            QCOMPARE(log.count("is gone and no other is left"), 1);
        }
        effects.unbind(rig.controller->controlOptions().id);
        registry->shutdown();
    }

    // The server's client limit reached, the source's own grabber can't connect: logged once,
    // failed once, dark, tried again with back-off. Room made: logged once, ready, picture A.
    void grabberRetries()
    {
        PrivateXServer server({QStringLiteral("-maxclients"), QStringLiteral("64")});
        QVERIFY2(server.start(), qPrintable(server.errorString()));
        ScreenPainter painter;
        QVERIFY(painter.open(server.display()) &&
                painter.paint(QRect(QPoint(), screen), ScreenPainter::pictureA(screen)));
        LogCapture log;
        DeskCaptureOption option(0);
        DeskDuplManager registry({new DeskCaptureBackendX11(server.display())}, &option);
        QSignalSpy ready(&registry, &DeskDuplManager::capturerReady);
        QSignalSpy failed(&registry, &DeskDuplManager::capturerFailed);
        std::vector<xcb_connection_t*> fillers;
        while (fillers.size() < 300) {
            fillers.push_back(xcb_connect(server.display().toLocal8Bit().constData(), nullptr));
            if (xcb_connection_has_error(fillers.back())) {
                break;
            }
        }
        auto* source = qobject_cast<DeskCapturer*>(registry.capturer(0).data());
        QVector<QImage> frames;
        QObject receiver;
        connect(source, &IDeskCapture::frameTick, &receiver, [&frames](QImage f) { frames.append(f); });
        QVERIFY(waitMeasured("three tries", 3000, [&] { return source->connectCount() >= 3; }));
        QCOMPARE(failed.size(), 1);
        QCOMPARE(log.count("cannot connect to the display"), 1);
        QCOMPARE(frames.size(), 1);
        QCOMPARE(frames.first().pixelColor(60, 33), QColor(Qt::black));
        for (xcb_connection_t* c : fillers) {
            xcb_disconnect(c);
        }
        QVERIFY(waitMeasured("back", 4000, [&] { return ready.size() == 1 && frames.size() > 1; }));
        QCOMPARE(log.count("is back"), 1);
        QCOMPARE(frames.last().pixelColor(60, 33), QColor(Qt::black)); // the centre of picture A
        QCOMPARE(frames.last().pixelColor(60, 5), QColor(Qt::red));
        registry.shutdown();
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

    // Every pixel of an area reaches the frame: a white band on the last rows or column shows in
    // mode 0 as in mode 1's exact means. Mode 1 reads the part of a monitor on the screen, and
    // says once what it clipped or can't read.
    void edgesReachTheFrame_data()
    {
        QTest::addColumn<QRect>("area");
        QTest::addColumn<QRect>("band");
        QTest::addColumn<QString>("logged");
        QTest::newRow("1080p, bottom 8 rows") << QRect(0, 0, 1920, 1080) << QRect(0, 1072, 1920, 8) << "";
        QTest::newRow("1001 wide, last column") << QRect(0, 0, 1001, 777) << QRect(1000, 0, 1, 777) << "";
        QTest::newRow("beyond the right edge")
            << QRect(1600, 0, 640, 360) << QRect(1919, 0, 1, 360) << "reaches beyond the screen";
        QTest::newRow("off the screen") << QRect(2000, 0, 640, 360) << QRect() << "Cannot read";
    }
    void edgesReachTheFrame()
    {
        QFETCH(QRect, area);
        QFETCH(QRect, band);
        QFETCH(QString, logged);
        PrivateXServer server;
        QVERIFY2(server.start(), qPrintable(server.errorString()));
        ScreenPainter painter;
        QVERIFY(painter.open(server.display()) &&
                painter.paint(QRect(QPoint(), screen), {{QRect(QPoint(), screen), Qt::black},
                                                        {band, band.isEmpty() ? Qt::black : Qt::white}}));
        LogCapture log;
        std::unique_ptr<DeskFrameGrabberX11> grabber(DeskFrameGrabberX11::open(server.display()));
        const QSize size(120, DeskCapturer::aspectHeight(120, area.size()));
        QImage frames[2];
        for (int i = 0; i < 3; ++i) {
            QCOMPARE(grabber->grab(area, size, 1, &frames[1]) == DeskFrameGrabber::Result::Frame,
                     !band.isEmpty());
        }
        QCOMPARE(log.count("[DeskDuplManager]"), logged.isEmpty() ? 0 : 1);
        QVERIFY(logged.isEmpty() || log.contains(logged));
        if (band.isEmpty()) {
            return;
        }
        // The middle of the frame's edge at the band.
        const QPoint at = band.width() > band.height() ? QPoint(size.width() / 2, size.height() - 1)
                                                       : QPoint(size.width() - 1, size.height() / 2);
        const int mode1 = qRed(frames[1].pixel(at));
        QVERIFY2(mode1 > 16, qPrintable(QString::number(mode1)));
        if (logged.isEmpty()) { // on the screen: mode 0 sees what mode 1 sees
            QVERIFY(grabber->grab(area, size, 0, &frames[0]) == DeskFrameGrabber::Result::Frame);
            const int mode0 = qRed(frames[0].pixel(at));
            qInfo("mode 0 %d, mode 1 %d", mode0, mode1);
            QVERIFY(qAbs(mode0 - mode1) <= 16);
        }
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
