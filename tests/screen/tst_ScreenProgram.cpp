#include "PrivateXServer.h"
#include "ScreenRig.h"
#include "TestFiles.h"
#include "VirtualLedDevice.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

#include <signal.h>

using namespace ScreenRig;

// The installed program with a strip stored on full screen: it captures the private X server,
// lights the strip with what the screen shows, and on SIGTERM releases the strip dark and keeps
// the effect's settings, which the next start shows.
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
        QVERIFY(painter.open(server.display()));
        QVERIFY(painter.paint(QRect(QPoint(0, 0), screen), ScreenPainter::pictureA(screen)));

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
        auto start = [&](const QStringList& args) {
            program.setProcessEnvironment(env);
            program.setWorkingDirectory(root.path());
            program.start(ORVANTA_BINARY_PATH, args);
            return program.waitForStarted();
        };
        auto stop = [&] {
            return ::kill(pid_t(program.processId()), SIGTERM) == 0 && program.waitForFinished(30000) &&
                   program.exitStatus() == QProcess::NormalExit && program.exitCode() == 0;
        };
        QVERIFY(start({"--winrt_capture_first"}));

        const QVector<QPoint> points = readPoints(fullId, 72, QSize(120, 67), 0,
                                                  modelMap(ORVANTA_DATA_DIR "/controler_config/OV5512.json"));
        int judged = 0;
        QTRY_VERIFY_WITH_TIMEOUT(
            mismatchesA(device.lastColors(), points, screen, &judged) == 0 && judged > 50, 30000);
        auto mainLog = [&] {
            QString text;
            const QDir logs(root.filePath("data/orvanta/logs"));
            for (const QString& name : logs.entryList({"*.log"}, QDir::Files)) {
                text += name.startsWith("loop_") ? QString()
                                                 : QString::fromUtf8(TestFiles::read(logs.filePath(name)));
            }
            return text;
        };
        QVERIFY(mainLog().contains("in mode 1 by the full area read by"));

        const int framesBeforeStop = device.frameCount();
        QVERIFY2(stop(), program.readAllStandardError().right(3000).constData());
        // The strip was released dark, and the program said so.
        QVERIFY(mainLog().contains("The port is released, the black buffer is writeen: true"));
        QTRY_VERIFY(device.frameCount() > framesBeforeStop);
        QCOMPARE(device.lastColors(), QVector<VirtualLedDevice::Rgb>(72));
        const QJsonObject stored =
            TestFiles::readJson(config + "/effects/" + fullId + ".json").value("OV5512:41424344").toObject();
        for (const char* key : {"map", "sourceIndex", "blurStrength", "saturationStrength"}) {
            QVERIFY2(stored.contains(key), key);
        }
        QCOMPARE(stored.value("map").toObject().value("ledMap").toArray().size(), 72);

        // Started again on values set since: no colour, and the first LED moved to the black middle.
        QJsonObject values = stored;
        values.insert("saturationStrength", -1.0);
        QJsonObject map = values.value("map").toObject();
        QJsonArray leds = map.value("ledMap").toArray();
        for (int i = 0; i < leds.size(); ++i) {
            QJsonObject led = leds[i].toObject();
            if (led.value("id").toInt() == 1) {
                led.insert("x", 60);
                led.insert("y", 33);
                leds[i] = led;
            }
        }
        map.insert("ledMap", leds);
        values.insert("map", map);
        const QString file = config + "/effects/" + fullId + ".json";
        QJsonObject all = TestFiles::readJson(file);
        all.insert("OV5512:41424344", values);
        QVERIFY(TestFiles::write(file, QJsonDocument(all).toJson()));
        QVERIFY(start({}));
        auto greyWithDarkFirst = [&] {
            const auto shown = device.lastColors();
            int white = 0;
            for (const auto& c : shown) {
                if (qAbs(c.r - c.g) > 8 || qAbs(c.g - c.b) > 8) {
                    return false;
                }
                white += c.r > 240;
            }
            return shown.size() == 72 && shown[0] == VirtualLedDevice::Rgb{0, 0, 0} && white > 50;
        };
        QTRY_VERIFY_WITH_TIMEOUT(greyWithDarkFirst(), 30000);
        QVERIFY2(stop(), program.readAllStandardError().right(3000).constData());
    }
};

QTEST_GUILESS_MAIN(TestScreenProgram)
#include "tst_ScreenProgram.moc"
