#include "PrivateXServer.h"
#include "ScreenRig.h"
#include "VirtualLedDevice.h"

#include <QJsonArray>
#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

#include <signal.h>

using namespace ScreenRig;

// The program with a strip stored on full screen captures the X server in mode 1 (asked first) and
// shows the screen on the strip; at SIGTERM it leaves it dark (no late frame from the work thread)
// and stores the effect's settings.
class TestScreenProgram : public QObject
{
    Q_OBJECT

private slots:
    void fullScreenFromTheProgram()
    {
        const QSize screen(1920, 1080);
        PrivateXServer server;
        QVERIFY2(server.start(), qPrintable(server.errorString()));
        ScreenPainter painter;
        QVERIFY(painter.open(server.display()) &&
                painter.paint(QRect(QPoint(), screen), ScreenPainter::pictureA(screen)));

        // Short, because the program's local socket path must fit in sun_path.
        QTemporaryDir root(QDir::tempPath() + "/p-XXXXXX");
        QVERIFY(root.isValid());
        const QString config = root.filePath("config/orvanta");
        QVERIFY(TestFiles::write(config + "/controllers/OV5512%3A41424344.json",
                                 R"({"nbLeds": 72, "lines": [18, 36, 18], "brightness": 1.0, "enable": true,
                                     "workMode": "com.orvanta.screenSync",
                                     "subMode": "com.orvanta.screenSync.fullScreen"})"));
        QDir().mkpath(root.filePath("runtime"));
        QFile::setPermissions(root.filePath("runtime"),
                              QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
        VirtualLedDevice device;
        QVERIFY(device.open(root.filePath("ttyOV0")));

        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("HOME", root.path());
        env.insert("XDG_CONFIG_HOME", root.filePath("config"));
        env.insert("XDG_DATA_HOME", root.filePath("data"));
        env.insert("XDG_RUNTIME_DIR", root.filePath("runtime"));
        env.insert("QT_QPA_PLATFORM", "offscreen"); // the window elsewhere, the capture on DISPLAY
        env.insert("DISPLAY", server.display());
        env.insert("ORVANTA_EXTRA_PORTS", root.filePath("ttyOV0"));
        env.insert("LSAN_OPTIONS", "suppressions=" ORVANTA_LSAN_SUPPRESSIONS ":fast_unwind_on_malloc=0");
        QProcess program;
        program.setProcessEnvironment(env);
        program.setWorkingDirectory(root.path());
        program.start(ORVANTA_BINARY_PATH, {"--winrt_capture_first"});
        QVERIFY(program.waitForStarted());

        const QVector<QPoint> points = readPoints(fullId, 72, QSize(120, 67), 0,
                                                  modelMap(ORVANTA_DATA_DIR "/controler_config/OV5512.json"));
        int judged = 0;
        QTRY_VERIFY_WITH_TIMEOUT(
            mismatchesA(device.lastColors(), points, screen, &judged) == 0 && judged > 50, 30000);
        QString log;
        const QDir logs(root.filePath("data/orvanta/logs"));
        for (const QString& name : logs.entryList({"*.log"}, QDir::Files)) {
            log += name.startsWith("loop_") ? QString()
                                            : QString::fromUtf8(TestFiles::read(logs.filePath(name)));
        }
        QVERIFY(log.contains("in mode 1 by"));

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
};

QTEST_GUILESS_MAIN(TestScreenProgram)
#include "tst_ScreenProgram.moc"
