#include "PrivateXServer.h"
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
};

QTEST_GUILESS_MAIN(TestScreenProgram)
#include "tst_ScreenProgram.moc"
