#include "PortalSimulator.h"
#include "PrivatePipeWire.h"
#include "PrivateXServer.h"
#include "PrivateXwayland.h"
#include "Sandbox.h"
#include "ScreenRig.h"
#include "VirtualLedDevice.h"

#include <QJsonArray>
#include <QProcess>
#include <QtTest>

#include <signal.h>

using namespace ScreenRig;

// The program with a strip stored on full screen captures the X server in mode 1 (asked first) and
// shows the screen on the strip; at SIGTERM it leaves it dark (no late frame from the work thread)
// and stores the effect's settings. On a Wayland desktop it shares the screen through the portal.
class TestScreenProgram : public QObject
{
    Q_OBJECT

    // The program's folders and a strip stored on full screen, on a virtual device at ttyOV0.
    static QProcessEnvironment programEnvironment(const QTemporaryDir& root)
    {
        TestFiles::write(root.filePath("config/orvanta") + "/controllers/OV5512%3A41424344.json",
                         R"({"nbLeds": 72, "lines": [18, 36, 18], "brightness": 1.0, "enable": true,
                             "workMode": "com.orvanta.screenSync",
                             "subMode": "com.orvanta.screenSync.fullScreen"})");
        QDir().mkpath(root.filePath("runtime"));
        QFile::setPermissions(root.filePath("runtime"),
                              QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("HOME", root.path());
        env.insert("XDG_CONFIG_HOME", root.filePath("config"));
        env.insert("XDG_DATA_HOME", root.filePath("data"));
        env.insert("XDG_RUNTIME_DIR", root.filePath("runtime"));
        env.insert("QT_QPA_PLATFORM", "offscreen"); // the window elsewhere, the capture on DISPLAY
        env.insert("ORVANTA_EXTRA_PORTS", root.filePath("ttyOV0"));
        env.insert("LSAN_OPTIONS", "suppressions=" ORVANTA_LSAN_SUPPRESSIONS ":fast_unwind_on_malloc=0");
        return env;
    }
    static bool allRed(const VirtualLedDevice& device)
    {
        const auto leds = device.lastColors();
        return leds.size() == 72 && std::all_of(leds.begin(), leds.end(), [](const VirtualLedDevice::Rgb& c) {
                   return near(QColor(Qt::red), c.r, c.g, c.b);
               });
    }

private slots:
    void fullScreenFromTheProgram()
    {
        const QSize screen(1920, 1080);
        PrivateXServer server;
        QVERIFY2(server.start(), qPrintable(server.errorString()));
        ScreenPainter painter;
        QVERIFY(painter.open(server.display()) &&
                painter.paint(QRect(QPoint(), screen), ScreenPainter::pictureA(screen)));

        Sandbox box;
        const QString config = box.configDir();
        QVERIFY(TestFiles::write(config + "/controllers/OV5512%3A41424344.json",
                                 R"({"nbLeds": 72, "lines": [18, 36, 18], "brightness": 1.0, "enable": true,
                                     "workMode": "com.orvanta.screenSync",
                                     "subMode": "com.orvanta.screenSync.fullScreen"})"));
        VirtualLedDevice device;
        QVERIFY(device.open(box.root.filePath("ttyOV0")));

        QProcess program; // the window offscreen, the capture on DISPLAY
        box.prepare(program, {"--winrt_capture_first"},
                    {{"DISPLAY", server.display()}, {"ORVANTA_EXTRA_PORTS", box.root.filePath("ttyOV0")}});
        program.start();
        QVERIFY(program.waitForStarted());

        const QVector<QPoint> points = readPoints(fullId, 72, QSize(120, 67), 0,
                                                  modelMap(ORVANTA_DATA_DIR "/controler_config/OV5512.json"));
        int judged = 0;
        QTRY_VERIFY_WITH_TIMEOUT(
            mismatchesA(device.lastColors(), points, screen, &judged) == 0 && judged > 50, 30000);
        QVERIFY(box.mainLog().contains("in mode 1 by"));

        QCOMPARE(::kill(pid_t(program.processId()), SIGTERM), 0);
        QVERIFY(program.waitForFinished(30000));
        QVERIFY2(program.exitStatus() == QProcess::NormalExit && program.exitCode() == 0,
                 program.readAllStandardError().right(3000).constData());
        QTRY_COMPARE(device.lastColors(), QVector<VirtualLedDevice::Rgb>(72));
        const QJsonObject stored =
            TestFiles::readJson(config + "/effects/" + fullId + ".json").value("OV5512:41424344").toObject();
        QVERIFY(stored.contains("sourceIndex") && stored.contains("blurStrength") &&
                stored.contains("saturationStrength"));
        QCOMPARE(stored.value("map").toObject().value("ledMap").toArray().size(), 72);
    }

    // A Wayland desktop (a headless compositor, no DISPLAY) with the portal on its session bus:
    // the screen's red on the strip; after SIGTERM the restore token is stored, and the next start
    // sends it and asks nobody.
    void portalFromTheProgram()
    {
        PrivateXwayland compositor;
        QVERIFY2(compositor.start(), qPrintable(compositor.errorString()));
        PrivatePipeWire session;
        QVERIFY2(session.start(), qPrintable(session.errorString()));
        PortalSimulator portal;
        QVERIFY2(portal.start(session.busAddress(), session.socketPath()), qPrintable(portal.errorString()));
        SimulatedMonitor monitor;
        monitor.id = QStringLiteral("eDP-1");
        portal.setChoice({PortalChoice::Share, {monitor}});
        portal.fill(0, Qt::red);

        QTemporaryDir root(QDir::tempPath() + "/p-XXXXXX");
        QVERIFY(root.isValid());
        QProcessEnvironment env = programEnvironment(root);
        env.remove("DISPLAY");
        env.insert("WAYLAND_DISPLAY", compositor.waylandDisplay());
        env.insert("DBUS_SESSION_BUS_ADDRESS", session.busAddress());
        VirtualLedDevice device;
        QVERIFY(device.open(root.filePath("ttyOV0")));
        QString token;
        for (int run = 0; run < 2; ++run) {
            QProcess program;
            program.setProcessEnvironment(env);
            program.setWorkingDirectory(root.path());
            program.start(ORVANTA_BINARY_PATH, QStringList());
            QVERIFY(program.waitForStarted());
            if (!waitMeasured("red on the strip", 3000, [&] { return allRed(device); })) {
                QString log;
                const QDir logs(root.filePath("data/orvanta/logs"));
                for (const QString& name : logs.entryList({"*.log"}, QDir::Files)) {
                    log += QString::fromUtf8(TestFiles::read(logs.filePath(name))).right(4000);
                }
                QStringList calls;
                for (const PortalCall& call : portal.calls()) {
                    calls << call.method;
                }
                QFAIL(qPrintable(QString::number(run) + QStringLiteral(" ") + calls.join(' ') + "\n" + log));
            }
            QCOMPARE(::kill(pid_t(program.processId()), SIGTERM), 0);
            QVERIFY(program.waitForFinished(30000));
            QVERIFY2(program.exitStatus() == QProcess::NormalExit && program.exitCode() == 0,
                     program.readAllStandardError().right(3000).constData());
            QTRY_COMPARE(device.lastColors(), QVector<VirtualLedDevice::Rgb>(72)); // dark at exit
            const QList<PortalCall> selected = portal.calls("SelectSources");
            QCOMPARE(selected.size(), run + 1);
            QCOMPARE(selected.last().options.value("restore_token").toString(), token);
            QCOMPARE(portal.calls("Start").last().dialogShown, run == 0);
            token = TestFiles::readJson(root.filePath("config/orvanta/global.json"))
                        .value("screenCastRestoreToken")
                        .toString();
            QVERIFY(portal.validTokens().contains(token));
        }
    }
};

QTEST_GUILESS_MAIN(TestScreenProgram)
#include "tst_ScreenProgram.moc"
