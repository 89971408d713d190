#include "DeviceRig.h"
#include "LogCapture.h"
#include "PixelOrder.h"
#include "PortalSimulator.h"
#include "PrivatePipeWire.h"
#include "PrivateXServer.h"
#include "PrivateXwayland.h"
#include "ScreenRig.h"
#include "effects/EffectsManager.h"
#include "effects/panels/EffectPanelMaker.h"
#include "effects/screensync/panels/ScreenSyncSOptWidget.h"
#include "service/config/ConfigurationManager.h"
#include "service/screen/AreaAverager.h"
#include "service/screen/DeskCaptureOption.h"
#include "service/screen/DeskCapturer.h"
#include "service/screen/DeskDuplManager.h"
#include "service/screen/portal/DeskCaptureBackendPortal.h"
#include "service/screen/portal/PipeWireCapture.h"
#include "service/screen/portal/PortalSources.h"

#include <QComboBox>
#include <QLabel>
#include <QPainter>
#include <QProcess>
#include <QPushButton>
#include <QScopeGuard>
#include <QTranslator>
#include <QtTest>

#include <spa/param/video/raw.h>

using namespace ScreenRig;

// Screen sync through the desktop portal: a private PipeWire and the portal simulator on its
// bus, the registry choosing the portal as a Wayland desktop's would, a real controller's strip.
class TestScreenPortal : public QObject
{
    Q_OBJECT

    const QSize screen{1920, 1080};
    std::unique_ptr<PrivatePipeWire> session;
    std::unique_ptr<PortalSimulator> portal;
    std::unique_ptr<EffectsManager> effects;
    QVector<QPoint> map5512;
    int serial = 0;

    static QImage pictureA(const QSize& size)
    {
        QImage image(size, QImage::Format_RGB32);
        image.fill(Qt::black);
        QPainter painter(&image);
        for (const auto& area : ScreenPainter::pictureA(size)) {
            painter.fillRect(area.first, area.second);
        }
        return image;
    }
    static QString portalKind() { return QStringLiteral("the desktop portal"); }
    static DeskDuplManager* registry() { return DeskDuplManager::instance(); }
    static QString storedToken()
    {
        return ConfigurationManager::instance()
            ->globalValue(QStringLiteral("screenCastRestoreToken"))
            .toString();
    }
    std::unique_ptr<DeviceRig> bindFull()
    {
        auto rig = std::make_unique<DeviceRig>();
        ControlOptions options = DeviceRig::defaultOptions(72);
        options.model = QStringLiteral("OV5512");
        options.id = QStringLiteral("OV5512:%1").arg(++serial);
        options.lines = {18, 36, 18};
        if (!rig->start(options)) {
            return nullptr;
        }
        effects->bind(rig->controller, fullId);
        return rig;
    }
    bool showsA(const DeviceRig& rig) const
    {
        const QVector<QPoint> points = readPoints(fullId, 72, QSize(120, 67), 0, map5512);
        return mismatchesA(rig.device.lastColors(), points, screen) == 0;
    }
    static bool allOf(const DeviceRig& rig, const QColor& colour)
    {
        const auto leds = rig.device.lastColors();
        return !leds.isEmpty() && std::all_of(leds.begin(), leds.end(), [&](const VirtualLedDevice::Rgb& c) {
            return near(colour, c.r, c.g, c.b);
        });
    }
    int calls(const QString& method, const QString& option = QString()) const
    {
        int n = 0;
        for (const PortalCall& call : portal->calls(method)) {
            n += option.isEmpty() || call.options.contains(option);
        }
        return n;
    }

private slots:
    void initTestCase()
    {
        QVERIFY(TestFiles::copyTree(QStringLiteral(ORVANTA_DATA_DIR "/controler_config"),
                                    QDir::currentPath() + QStringLiteral("/controler_config")));
        map5512 = modelMap(QStringLiteral("controler_config/OV5512.json"));
        ConfigurationManager::instance()->reset();
    }

    void cleanupTestCase()
    {
        effects.reset();
        if (portal) {
            registry()->shutdown();
            portal.reset();
        }
        TestFiles::flushDeletes();
    }

    // Start replies as portals send them: each of id, position and size there or not.
    void sourcesOfStart_data()
    {
        QTest::addColumn<QList<QVariantMap>>("streams");
        QTest::addColumn<QStringList>("names");
        QTest::addColumn<QList<QRect>>("geometries");
        const QVariantMap full{{"id", "A"}, {"position", QPoint(0, 0)}, {"size", QSize(1920, 1080)}};
        const QVariantMap right{{"id", "B"}, {"position", QPoint(1920, 0)}, {"size", QSize(1280, 1024)}};
        QTest::newRow("none") << QList<QVariantMap>{} << QStringList{} << QList<QRect>{};
        QTest::newRow("everything") << QList<QVariantMap>{full} << QStringList{"portal:A"}
                                    << QList<QRect>{QRect(0, 0, 1920, 1080)};
        QTest::newRow("two, the second left of the first")
            << QList<QVariantMap>{right,
                                  {{"id", "A"}, {"position", QPoint(-1920, 0)}, {"size", QSize(1920, 1080)}}}
            << QStringList{"portal:B", "portal:A"}
            << QList<QRect>{QRect(1920, 0, 1280, 1024), QRect(-1920, 0, 1920, 1080)};
        QTest::newRow("no id: the index")
            << QList<QVariantMap>{{{"size", QSize(800, 600)}}, {{"size", QSize(640, 480)}}}
            << QStringList{"portal:1", "portal:2"}
            << QList<QRect>{QRect(0, 0, 800, 600), QRect(800, 0, 640, 480)};
        QTest::newRow("no position: left to right")
            << QList<QVariantMap>{{{"id", "A"}, {"size", QSize(1920, 1080)}},
                                  {{"id", "B"}, {"size", QSize(1280, 1024)}}}
            << QStringList{"portal:A", "portal:B"}
            << QList<QRect>{QRect(0, 0, 1920, 1080), QRect(1920, 0, 1280, 1024)};
        QTest::newRow("no size: none until negotiated")
            << QList<QVariantMap>{{{"id", "A"}, {"position", QPoint(5, 6)}}} << QStringList{"portal:A"}
            << QList<QRect>{QRect(QPoint(5, 6), QSize())};
        QTest::newRow("same id twice, wrong types")
            << QList<QVariantMap>{full, {{"id", "A"}, {"position", "left"}, {"size", 7}}}
            << QStringList{"portal:A", "portal:2"}
            << QList<QRect>{QRect(0, 0, 1920, 1080), QRect(QPoint(1920, 0), QSize())};
    }
    void sourcesOfStart()
    {
        QFETCH(QList<QVariantMap>, streams);
        QFETCH(QStringList, names);
        QFETCH(QList<QRect>, geometries);
        QList<PortalStreamEntry> entries;
        for (int i = 0; i < streams.size(); ++i) {
            entries.append({uint32_t(40 + i), streams[i]});
        }
        const QVector<PortalSource> sources = PortalSources::sourcesOf(entries);
        QCOMPARE(sources.size(), names.size());
        for (int i = 0; i < sources.size(); ++i) {
            QCOMPARE(sources[i].node, uint32_t(40 + i));
            QCOMPARE(sources[i].monitor.name, names[i]);
            QCOMPARE(sources[i].monitor.label, QStringLiteral("Screen %1").arg(i + 1));
            QCOMPARE(sources[i].monitor.geometry, geometries[i]);
        }
    }

    // Every byte order a stream may agree, packed as the simulator packs it, averaged by the layout
    // the capture picks: red, green and blue land where the pipeline reads them, padding ignored.
    void byteOrders_data()
    {
        QTest::addColumn<int>("order");
        QTest::addColumn<uint32_t>("format");
        const uint32_t formats[] = {SPA_VIDEO_FORMAT_BGRx, SPA_VIDEO_FORMAT_RGBx, SPA_VIDEO_FORMAT_xBGR,
                                    SPA_VIDEO_FORMAT_xRGB, SPA_VIDEO_FORMAT_BGRA, SPA_VIDEO_FORMAT_RGBA};
        for (PixelOrder order : PixelOrders::all()) {
            QTest::newRow(qPrintable(PixelOrders::name(order))) << int(order) << formats[int(order)];
        }
    }
    void byteOrders()
    {
        QFETCH(int, order);
        QFETCH(uint32_t, format);
        QCOMPARE(PipeWireCapture::formatName(format), PixelOrders::name(PixelOrder(order)));
        // Two columns of different colours, 8 x 2 pixels, to a 2 x 1 frame.
        QImage picture(8, 2, QImage::Format_RGB32);
        picture.fill(QColor(10, 20, 30));
        for (int y = 0; y < 2; ++y) {
            for (int x = 4; x < 8; ++x) {
                picture.setPixelColor(x, y, QColor(200, 150, 100 + x));
            }
        }
        const QByteArray packed = PixelOrders::pack(picture, PixelOrder(order));
        AreaAverager::PixelLayout layout;
        QVERIFY(PipeWireCapture::layoutOf(format, &layout));
        QImage frame(2, 1, QImage::Format_RGBA8888);
        AreaAverager::average(reinterpret_cast<const uint8_t*>(packed.constData()), 8, 2, 32, layout, &frame);
        QCOMPARE(frame.pixelColor(0, 0), QColor(10, 20, 30));
        QCOMPARE(frame.pixelColor(1, 0), QColor(200, 150, 106)); // (104 + 105 + 106 + 107) / 4, rounded
        QVERIFY(!PipeWireCapture::layoutOf(SPA_VIDEO_FORMAT_I420, &layout));
    }

    // The first screen effect asks once, without a token: the dialog's one monitor is "Screen 1",
    // 120 x 67, picture A on the strip, the technique logged once, the token stored. The portal
    // (and the user's choice) persist: a new session from the token, no dialog, a new token.
    void firstBindThenRestore()
    {
        session = std::make_unique<PrivatePipeWire>();
        QVERIFY2(session->start(), qPrintable(session->errorString()));
        portal = std::make_unique<PortalSimulator>();
        QVERIFY2(portal->start(session->busAddress(), session->socketPath()),
                 qPrintable(portal->errorString()));
        SimulatedMonitor monitor;
        monitor.id = QStringLiteral("DP-1");
        portal->setChoice({PortalChoice::Share, {monitor}});
        portal->showPicture(0, pictureA(screen));
        qputenv("DBUS_SESSION_BUS_ADDRESS", session->busAddress().toLocal8Bit());
        qputenv("WAYLAND_DISPLAY", "wayland-orvanta-test");

        LogCapture log;
        QCOMPARE(registry()->state(), DeskDuplManager::State::Ready); // nothing asked yet, nothing to tell
        QVERIFY(log.contains("Screen capture through the desktop portal"));
        QCOMPARE(calls("SelectSources"), 0);
        QSignalSpy states(registry(), &DeskDuplManager::stateChanged);
        effects = std::make_unique<EffectsManager>();
        auto rig = bindFull();
        QVERIFY(rig);
        QVERIFY(waitMeasured("sources shared", 1000, [&] { return !registry()->allCapturer().isEmpty(); }));
        QCOMPARE(states.first().at(0).value<DeskCaptureState>(), DeskCaptureState::Asking);
        QCOMPARE(registry()->state(), DeskDuplManager::State::Ready);
        QCOMPARE(calls("SelectSources"), 1);
        QCOMPARE(calls("SelectSources", "restore_token"), 0);
        const QVariantMap selected = portal->calls("SelectSources").first().options;
        QCOMPARE(selected.value("persist_mode").toUInt(), 2u);
        QCOMPARE(selected.value("types").toUInt(), 1u);
        QCOMPARE(selected.value("cursor_mode").toUInt(), 1u);
        QVERIFY(selected.value("multiple").toBool());
        QCOMPARE(registry()->capturerDesc(registry()->allCapturer().first()),
                 QStringLiteral("Screen 1 1920x1080+0+0"));
        QCOMPARE(registry()->capturer(registry()->allCapturer().first())->outputSize(), QSize(120, 67));
        QVERIFY(waitMeasured("picture A on the strip", 1000, [&] { return showsA(*rig); }));
        const QString token = storedToken();
        QVERIFY(portal->validTokens().contains(token));
        QTRY_COMPARE(log.count("by PipeWire BGRx 1920x1080"), 1);

        // Idle: the stream pauses, the session closes after 10 s; a new effect brings it back silently.
        effects->unbind(rig->controller->controlOptions().id);
        QVERIFY(waitMeasured("stream paused", 2000,
                             [&] { return portal->streams().value(0).state == "paused"; }));
        QVERIFY(waitMeasured("session closed", 10000, [&] { return portal->openSessions() == 0; }));
        QCOMPARE(calls("Session.Close"), 1);
        QTRY_VERIFY(registry()->allCapturer().isEmpty());
        auto again = bindFull();
        QVERIFY(waitMeasured("restored picture A", 1000, [&] { return showsA(*again); }));
        QCOMPARE(calls("SelectSources"), 2);
        QCOMPARE(portal->calls("SelectSources").last().options.value("restore_token").toString(), token);
        QVERIFY(!portal->calls("Start").last().dialogShown);
        QVERIFY(storedToken() != token && portal->validTokens().contains(storedToken()));
        effects->unbind(again->controller->controlOptions().id);
    }

    // The user stops sharing from the desktop: "stopped", the strip dark, no question asked by
    // itself. A dialog declined through the panel's button: "declined". The button again, shared:
    // picture A. The panel says each in both languages, the log once.
    void stoppedDeclinedAskedAgain()
    {
        EffectPanelMaker::install();
        ScreenSyncSOptWidget* panel = ScreenSyncSOptWidget::instance();
        QVERIFY(panel);
        auto* notice = panel->findChild<QLabel*>("noticeLabel");
        auto* button = panel->findChild<QPushButton*>("shareButton");
        QTranslator english;
        QVERIFY(english.load(QStringLiteral(ORVANTA_QM_PATH)));
        const auto says = [&](const char* chinese, const char* inEnglish) {
            const bool first = notice->isVisibleTo(panel) && notice->text() == QString::fromUtf8(chinese);
            QCoreApplication::installTranslator(&english);
            QCoreApplication::sendPostedEvents(nullptr, QEvent::LanguageChange);
            const bool second = notice->text() == QLatin1String(inEnglish);
            QCoreApplication::removeTranslator(&english);
            QCoreApplication::sendPostedEvents(nullptr, QEvent::LanguageChange);
            return first && second && notice->text() == QString::fromUtf8(chinese);
        };
        auto rig = bindFull();
        QVERIFY(rig);
        QVERIFY(waitMeasured("picture A", 1000, [&] { return showsA(*rig); }));
        QVERIFY(!notice->isVisibleTo(panel) && panel->findChild<QComboBox*>("comboBox")->isVisibleTo(panel));

        LogCapture log;
        const int asked = calls("SelectSources");
        portal->closeSessions();
        QVERIFY(waitMeasured("strip dark", 1000, [&] { return allOf(*rig, Qt::black); }));
        QCOMPARE(registry()->state(), DeskDuplManager::State::Stopped);
        QVERIFY(says("桌面已停止屏幕共享。", "The desktop stopped screen sharing."));
        QVERIFY(button->isVisibleTo(panel));
        QTest::qWait(3 * DeskCaptureBackendPortal::firstRetryMs / 2); // a retry would have come by now
        QCOMPARE(calls("SelectSources"), asked);
        QCOMPARE(log.count("The desktop stopped screen sharing."), 1);

        ConfigurationManager::instance()->setGlobalValue(QStringLiteral("screenCastRestoreToken"),
                                                         QJsonValue());
        portal->setChoice({PortalChoice::Decline, {SimulatedMonitor()}});
        QSignalSpy states(registry(), &DeskDuplManager::stateChanged);
        button->click();
        QVERIFY(waitMeasured("declined", 1000,
                             [&] { return registry()->state() == DeskCaptureState::Declined; }));
        QCOMPARE(states.first().at(0).value<DeskCaptureState>(), DeskCaptureState::Asking);
        QVERIFY(says("屏幕共享已被拒绝。", "Screen sharing was declined."));
        QVERIFY(storedToken().isEmpty());
        QCOMPARE(log.count("Screen sharing was declined."), 1);
        {
            auto another = bindFull(); // a new screen effect doesn't ask after a refusal
            QVERIFY(another);
            QTest::qWait(3 * DeskCaptureBackendPortal::firstRetryMs / 2);
            QCOMPARE(calls("SelectSources"), asked + 1);
            effects->unbind(another->controller->controlOptions().id);
        }

        SimulatedMonitor monitor;
        monitor.id = QStringLiteral("DP-1");
        portal->setChoice({PortalChoice::Share, {monitor}});
        button->click();
        QVERIFY(waitMeasured("picture A after the button", 1000, [&] { return showsA(*rig); }));
        QCOMPARE(calls("SelectSources"), asked + 2);
        QVERIFY(!notice->isVisibleTo(panel) && panel->findChild<QComboBox*>("comboBox")->isVisibleTo(panel));
        effects->unbind(rig->controller->controlOptions().id);
    }

    // A portal before version 4 keeps no token: nothing to restore from, so the session stays
    // while the program runs, listened or not.
    void oldPortalStays()
    {
        portal->closeSessions();
        QTRY_COMPARE(registry()->state(), DeskDuplManager::State::Stopped);
        portal->setVersion(3);
        const auto back = qScopeGuard([&] { portal->setVersion(4); });
        const int closes = calls("Session.Close");
        registry()->requestSources(true);
        auto rig = bindFull();
        QVERIFY(rig);
        QVERIFY(waitMeasured("picture A", 1000, [&] { return showsA(*rig); }));
        const QVariantMap selected = portal->calls("SelectSources").last().options;
        QVERIFY(!selected.contains("persist_mode") && !selected.contains("restore_token"));
        QVERIFY(storedToken().isEmpty());
        effects->unbind(rig->controller->controlOptions().id);
        QTest::qWait(DeskCaptureBackendPortal::idleCloseMs + 2000); // past the idle close a token allows
        QCOMPARE(portal->openSessions(), 1);
        QCOMPARE(calls("Session.Close"), closes);
    }

    // Two screens shared, a strip on each. One stream ends: that source fails, its strip goes
    // black, the other runs on; the session comes back from the token with the same ids and both
    // pictures. A stream resized to 1280 x 1024 asks for 120 x 96. The portal killed: the sources
    // go; back with the token once it returns. At the end, shutdown leaves no session.
    void twoScreensEndResizeKill()
    {
        portal->closeSessions(); // the case before left one open
        QTRY_VERIFY(registry()->allCapturer().isEmpty());
        SimulatedMonitor left, right;
        left.id = QStringLiteral("DP-1");
        right.id = QStringLiteral("DP-2");
        right.position = QPoint(1920, 0);
        right.order = PixelOrder::xRGB;
        right.sendSize = false; // listed once its stream tells its size
        portal->setChoice({PortalChoice::Share, {left, right}});
        portal->fill(0, Qt::red);
        portal->fill(1, Qt::blue);
        // A new choice: the dialog, not the stored one-screen choice.
        ConfigurationManager::instance()->setGlobalValue(QStringLiteral("screenCastRestoreToken"),
                                                         QJsonValue());
        registry()->requestSources(true);
        QVERIFY(waitMeasured("two sources", 1000, [&] { return registry()->allCapturer().size() == 2; }));
        const QList<int> ids = registry()->allCapturer();
        QCOMPARE(registry()->capturerDesc(ids[1]), QStringLiteral("Screen 2 1920x1080+1920+0"));
        auto first = bindFull();
        QVERIFY(first);
        QVERIFY(waitMeasured("red", 1000, [&] { return allOf(*first, Qt::red); }));
        // A cursor-only update and a corrupted (white) buffer: neither reaches the strip.
        bool white = false;
        QObject receiver;
        connect(registry()->capturer(ids[0]).data(), &IDeskCapture::frameTick, &receiver,
                [&](QImage frame) { white = white || frame.pixelColor(0, 0) == QColor(Qt::white); });
        for (const auto kind : {ScreenStreams::Broken::EmptyChunk, ScreenStreams::Broken::Corrupted}) {
            const quint64 sent = portal->streams().value(0).frames;
            portal->sendBroken(0, kind);
            QVERIFY(waitMeasured("broken buffer sent", 100,
                                 [&] { return portal->streams().value(0).frames > sent; }));
        }
        portal->fill(0, Qt::green); // a good frame after them
        QVERIFY(waitMeasured("green", 1000, [&] { return allOf(*first, Qt::green); }));
        QVERIFY(!white);
        portal->fill(0, Qt::red);
        const QString second = QStringLiteral("OV5512:%1").arg(serial + 1);
        ConfigurationManager::instance()->setEffectVariant(fullId, second, QStringLiteral("sourceIndex"),
                                                           ids[1]);
        auto other = bindFull();
        QVERIFY(other);
        QVERIFY(waitMeasured("blue", 1000, [&] { return allOf(*other, Qt::blue); }));

        QSignalSpy failed(registry(), &DeskDuplManager::capturerFailed);
        const QString token = storedToken();
        portal->endStream(1);
        QVERIFY(waitMeasured("second strip black", 1000, [&] { return allOf(*other, Qt::black); }));
        QVERIFY(failed.contains({ids[1]}) && !failed.contains({ids[0]}));
        QVERIFY(allOf(*first, Qt::red));
        QVERIFY(waitMeasured("blue back", 2000, [&] { return allOf(*other, Qt::blue); }));
        QCOMPARE(registry()->allCapturer(), ids);
        QCOMPARE(portal->calls("SelectSources").last().options.value("restore_token").toString(), token);
        QVERIFY(allOf(*first, Qt::red));

        portal->resizeStream(0, QSize(1280, 1024));
        QVERIFY(waitMeasured("120 x 96", 1000,
                             [&] { return registry()->capturer(ids[0])->outputSize() == QSize(120, 96); }));
        QCOMPARE(registry()->capturerDesc(ids[0]), QStringLiteral("Screen 1 1280x1024+0+0"));

        const int asked = calls("SelectSources");
        portal->kill();
        QVERIFY(waitMeasured("sources gone, strips black", 1000, [&] {
            return registry()->allCapturer().isEmpty() && allOf(*first, Qt::black) &&
                   allOf(*other, Qt::black);
        }));
        QVERIFY2(portal->start(session->busAddress(), session->socketPath()),
                 qPrintable(portal->errorString()));
        QVERIFY(waitMeasured("sources back", 2000, [&] { return registry()->allCapturer() == ids; }));
        QCOMPARE(calls("SelectSources"), asked + 1);
        QVERIFY(portal->calls("SelectSources").last().options.contains("restore_token"));
        QVERIFY(waitMeasured("red back", 1000, [&] { return allOf(*first, Qt::red); }));

        // Shutdown with live streams: the session closed, the video joined before the capture threads.
        const int closes = calls("Session.Close");
        QElapsedTimer clock;
        clock.start();
        registry()->shutdown();
        qInfo("shutdown: %lld ms (target 1000 ms)", qint64(clock.elapsed()));
        QVERIFY(waitMeasured("no session", 1000, [&] { return portal->openSessions() == 0; }));
        QCOMPARE(calls("Session.Close"), closes + 1);
    }

    // The backend a session gets, its state once a worker asked, and the one line telling it: a
    // real X server; Xwayland or a bare Wayland display with the portal; either without it; no
    // display at all. A portal that comes after the start is found at the next request.
    void choice_data()
    {
        QTest::addColumn<QString>("display"); // "x11", "xwayland" or none
        QTest::addColumn<bool>("wayland");
        QTest::addColumn<bool>("withPortal");
        QTest::addColumn<QString>("kind");
        QTest::addColumn<DeskCaptureState>("state");
        const QString portalKind = QStringLiteral("the desktop portal");
        QTest::newRow("Xvfb") << "x11" << false << true << "X11" << DeskCaptureState::Ready;
        QTest::newRow("Xwayland, portal")
            << "xwayland" << true << true << portalKind << DeskCaptureState::Ready;
        QTest::newRow("Wayland, portal") << "" << true << true << portalKind << DeskCaptureState::Ready;
        QTest::newRow("Wayland, no portal")
            << "" << true << false << "" << DeskCaptureState::XwaylandWithoutSharing;
        QTest::newRow("Xwayland, no portal")
            << "xwayland" << false << false << "X11" << DeskCaptureState::XwaylandWithoutSharing;
        QTest::newRow("nothing") << "" << false << true << "" << DeskCaptureState::NoSource;
    }
    void choice()
    {
        QFETCH(QString, display);
        QFETCH(bool, wayland);
        QFETCH(bool, withPortal);
        QFETCH(QString, kind);
        QFETCH(DeskCaptureState, state);
        PrivateXServer server;
        PrivateXwayland compositor;
        QString name;
        if (display == "x11") {
            QVERIFY2(server.start(), qPrintable(server.errorString()));
            name = server.display();
        } else if (display == "xwayland") {
            QVERIFY2(compositor.start(), qPrintable(compositor.errorString()));
            name = compositor.display();
        }
        qputenv("DISPLAY", name.toLocal8Bit());
        qputenv("WAYLAND_DISPLAY", wayland ? QByteArray("wayland-orvanta-test") : QByteArray());
        if (!withPortal) {
            portal->leaveBus();
        }
        const auto restore = qScopeGuard([&] {
            qputenv("DISPLAY", "");
            qputenv("WAYLAND_DISPLAY", "wayland-orvanta-test");
            portal->start(session->busAddress(), session->socketPath());
        });

        LogCapture log;
        DeskCaptureOption option(0);
        DeskDuplManager chosen(&option);
        chosen.requestSources(false);
        QVERIFY(waitMeasured("state", 1000, [&] { return chosen.state() == state; }));
        QCOMPARE(log.count("Screen capture through"), kind.isEmpty() ? 0 : 1);
        QCOMPARE(log.count("Screen capture through " + kind), kind.isEmpty() ? 0 : 1);
        if (state != DeskCaptureState::Ready) {
            QCOMPARE(log.count(DeskDuplManager::noticeOf(state)), 1);
        }
        if (wayland && !withPortal && display.isEmpty()) {
            // The portal comes later: the next request finds it.
            QVERIFY2(portal->start(session->busAddress(), session->socketPath()),
                     qPrintable(portal->errorString()));
            chosen.requestSources(false);
            QVERIFY(waitMeasured("portal found", 1000,
                                 [&] { return chosen.state() == DeskCaptureState::Ready; }));
            QCOMPARE(log.count("Screen capture through " + portalKind()), 1);
        }
        chosen.shutdown();
    }

    // Every state without a source as the panel tells it, in Chinese and in English (the log's
    // line), with the button that asks again where the user declined or stopped. On an X server
    // (the run noticeScreenshots makes) the panel is kept as pictures too.
    void notices_data()
    {
        QTest::addColumn<DeskCaptureState>("state");
        QTest::addColumn<QString>("chinese");
        QTest::addColumn<QString>("english");
        QTest::addColumn<bool>("asksAgain");
        const QString none =
            QStringLiteral("Screen sync needs an X11 session or screen sharing (xdg-desktop-portal).");
        const QString noneZh = QStringLiteral("屏幕同步需要 X11 会话或屏幕共享（xdg-desktop-portal）。");
        QTest::newRow("no-source") << DeskCaptureState::NoSource << noneZh << none << false;
        QTest::newRow("display-lost") << DeskCaptureState::DisplayLost << noneZh << none << false;
        QTest::newRow("xwayland") << DeskCaptureState::XwaylandWithoutSharing
                                  << "此处无法共享屏幕：请安装桌面的门户后端。"
                                  << "No screen sharing here: install your desktop's portal backend."
                                  << false;
        QTest::newRow("asking") << DeskCaptureState::Asking << "请选择要共享的屏幕..."
                                << "Choose the screens to share..." << false;
        QTest::newRow("declined") << DeskCaptureState::Declined << "屏幕共享已被拒绝。"
                                  << "Screen sharing was declined." << true;
        QTest::newRow("stopped") << DeskCaptureState::Stopped << "桌面已停止屏幕共享。"
                                 << "The desktop stopped screen sharing." << true;
    }
    void notices()
    {
        QFETCH(DeskCaptureState, state);
        QFETCH(QString, chinese);
        QFETCH(QString, english);
        QFETCH(bool, asksAgain);
        EffectPanelMaker::install();
        ScreenSyncSOptWidget* panel = ScreenSyncSOptWidget::instance();
        QVERIFY(panel && registry()->allCapturer().isEmpty());
        auto* notice = panel->findChild<QLabel*>("noticeLabel");
        auto* button = panel->findChild<QPushButton*>("shareButton");
        QTranslator translator;
        QVERIFY(translator.load(QStringLiteral(ORVANTA_QM_PATH)));
        const auto back = qScopeGuard([&] {
            QCoreApplication::removeTranslator(&translator);
            QCoreApplication::sendPostedEvents(nullptr, QEvent::LanguageChange);
            emit registry()->stateChanged(registry()->state());
        });
        emit registry()->stateChanged(state);
        QCOMPARE(english, QString::fromLatin1(DeskDuplManager::noticeOf(state)));
        const bool onScreen = QGuiApplication::platformName() == QLatin1String("xcb");
        if (onScreen) {
            panel->show();
            QVERIFY(QTest::qWaitForWindowExposed(panel));
        }
        for (const char* language : {"zh", "en"}) {
            if (language == QLatin1String("en")) {
                QCoreApplication::installTranslator(&translator);
                QCoreApplication::sendPostedEvents(nullptr, QEvent::LanguageChange);
            }
            QVERIFY(notice->isVisibleTo(panel) &&
                    !panel->findChild<QComboBox*>("comboBox")->isVisibleTo(panel));
            QCOMPARE(notice->text(), language == QLatin1String("en") ? english : chinese);
            QCOMPARE(button->isVisibleTo(panel), asksAgain);
            QCOMPARE(button->text(), language == QLatin1String("en") ? QStringLiteral("Share the screen...")
                                                                     : QStringLiteral("共享屏幕..."));
            if (onScreen) {
                QVERIFY(QDir().mkpath("screenshots"));
                QTest::qWait(50);
                QVERIFY(panel->grab().save(QStringLiteral("screenshots/notice_%1_%2_%3x.png")
                                               .arg(QTest::currentDataTag(), language)
                                               .arg(panel->devicePixelRatioF())));
            }
        }
        panel->hide();
    }

    // The notices on a private X server at this scale and at twice it, by a run of this program
    // with only them, the registry seeing no display: pictures in screenshots/ to look at.
    void noticeScreenshots()
    {
        PrivateXServer server;
        QVERIFY2(server.start(), qPrintable(server.errorString()));
        for (const char* scale : {"1", "2"}) {
            QProcess run;
            QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
            env.insert("QT_SCALE_FACTOR", scale);
            env.insert("QT_QPA_PLATFORM", "xcb");
            env.insert("QT_XCB_GL_INTEGRATION", "none");
            env.insert("DISPLAY", "");
            env.insert("WAYLAND_DISPLAY", "");
            run.setProcessEnvironment(env);
            run.setProcessChannelMode(QProcess::MergedChannels);
            run.start(QCoreApplication::applicationFilePath(), {"notices", "-display", server.display()});
            QVERIFY(run.waitForFinished(120000));
            QVERIFY2(run.exitStatus() == QProcess::NormalExit && run.exitCode() == 0,
                     run.readAll().right(3000).constData());
            QVERIFY(QFileInfo::exists(QStringLiteral("screenshots/notice_stopped_en_%1x.png").arg(scale)));
        }
    }
};

QTEST_MAIN(TestScreenPortal)
#include "tst_ScreenPortal.moc"
