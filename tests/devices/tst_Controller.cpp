#include "DeviceRig.h"

#include "LogCapture.h"
#include "service/config/ConfigurationManager.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QPointer>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QtTest>

#include <algorithm>
#include <cstring>

using Lines = QVector<QVector<OV_RGB>>;
using Rgb = VirtualLedDevice::Rgb;
using Rgbs = QVector<Rgb>;

namespace {

constexpr int kWait = 10000;
const QString kId = QStringLiteral("OV5512:41424344");

// Where the store keeps the rig controller's settings, written out.
QString storedFile()
{
    ConfigurationManager::instance()->flush();
    return ConfigurationManager::instance()->configPath() + "/controllers/OV5512%3A41424344.json";
}

// One line holding these bytes as its colours.
Lines line(const QByteArray& bytes)
{
    QVector<OV_RGB> leds(bytes.size() / 3);
    std::memcpy(leds.data(), bytes.constData(), size_t(bytes.size()));
    return {leds};
}

QByteArray lastSent(const QSignalSpy& spy)
{
    return spy.isEmpty() ? QByteArray() : spy.last().at(0).toByteArray();
}

} // namespace

// The controller model and the serial transport, against the virtual device on a real pty.
class TestController : public QObject
{
    Q_OBJECT
private slots:
    void init() { ConfigurationManager::instance()->reset(); }

    void framesAsTheDeviceReadsThem_data()
    {
        QTest::addColumn<uint>("nbLeds");
        QTest::addColumn<bool>("header");
        QTest::addColumn<Lines>("colors");
        QTest::addColumn<QByteArray>("expected"); // empty: nothing is sent

        QTest::newRow("lines of 2 and 1") << 3u << true << Lines{{{1, 2, 3}, {4, 5, 6}}, {{7, 8, 9}}}
                                          << QByteArray::fromHex("416461000003010203040506070809");
        QTest::newRow("no colours: padded")
            << 2u << true << Lines{} << QByteArray::fromHex("416461000002000000000000");
        QTest::newRow("short line: the rest padded")
            << 4u << true << Lines{{{9, 8, 7}}}
            << frameBytes(4, QByteArray::fromHex("090807") + QByteArray(9, 0));
        const QByteArray five = QByteArray::fromHex("0102030405060708090a0b0c0d0e0f");
        QTest::newRow("five colours over three LEDs: not cut")
            << 3u << true << line(five) << frameBytes(3, five);
        QByteArray full;
        for (int i = 0; i < 3 * 256; ++i) {
            full += char(i * 7);
        }
        QTest::newRow("256 LEDs: count 01 00") << 256u << true << line(full) << frameBytes(256, full);
        QTest::newRow("65535 LEDs: count ff ff")
            << 65535u << true << Lines{{{1, 1, 1}}}
            << frameBytes(65535, QByteArray(3, 1) + QByteArray(196602, 0));
        QTest::newRow("0 LEDs") << 0u << true << Lines{{{1, 2, 3}}} << QByteArray();
        QTest::newRow("65536 LEDs: count 00 00") << 65536u << true << Lines{{{1, 2, 3}}} << QByteArray();
        QTest::newRow("no header built yet") << 3u << false << Lines{{{1, 2, 3}}} << QByteArray();
    }

    void framesAsTheDeviceReadsThem()
    {
        QFETCH(uint, nbLeds);
        QFETCH(bool, header);
        QFETCH(Lines, colors);
        QFETCH(QByteArray, expected);
        DeviceRig rig;
        QVERIFY(rig.start(DeviceRig::defaultOptions(nbLeds), header));
        QSignalSpy sent(rig.controller.data(), &OVController::writeToPort);
        rig.controller->writeColors(colors);
        QCOMPARE(lastSent(sent), expected);
        QCOMPARE(sent.count(), expected.isEmpty() ? 0 : 1);
        if (!expected.isEmpty()) {
            QTRY_COMPARE_WITH_TIMEOUT(rig.device.frames().value(0), expected, kWait);
            QCOMPARE(int(rig.device.lastCount()), int(nbLeds));
            QCOMPARE(rig.device.decodeErrors(), 0);
        }
    }

    void brightnessTruncates_data()
    {
        QTest::addColumn<float>("brightness");
        QTest::addColumn<int>("channel");
        QTest::addColumn<int>("expected");
        QTest::newRow("0.5 x 255 -> 127, not 128") << 0.5f << 255 << 127;
        QTest::newRow("2.0 x 200 = 400 wraps to 144") << 2.0f << 200 << 144;
        QTest::newRow("-0.5 x 255 = -127 keeps its low byte 129") << -0.5f << 255 << 129;
    }

    void brightnessTruncates()
    {
        QFETCH(float, brightness);
        QFETCH(int, channel);
        QFETCH(int, expected);
        DeviceRig rig;
        QVERIFY(rig.start(DeviceRig::defaultOptions(2)));
        rig.controller->setBrightness(brightness);
        const uint8_t c = uint8_t(channel), e = uint8_t(expected);
        rig.controller->update(QVector<OV_RGB>{{c, c, c}, {c, 0, 0}});
        QTRY_COMPARE_WITH_TIMEOUT(rig.device.lastColors(), (Rgbs{{e, e, e}, {e, 0, 0}}), kWait);
    }

    void sameValueSettersDoNothing()
    {
        DeviceRig rig;
        QVERIFY(rig.start(DeviceRig::defaultOptions(2)));
        OVController* ctl = rig.controller.data();
        QSignalSpy sent(ctl, &OVController::writeToPort);
        QSignalSpy brightness(ctl, &AbsRGBController::brightnessChanged);
        QSignalSpy kindName(ctl, &AbsRGBController::kindNameChanged);
        QSignalSpy enable(ctl, &AbsRGBController::enableChanged);
        QSignalSpy direction(ctl, &AbsRGBController::installDirectionChanged);
        QSignalSpy workMode(ctl, &AbsRGBController::workModeChanged);
        QSignalSpy subMode(ctl, &AbsRGBController::subModeChanged);
        const auto setAll = [ctl] {
            ctl->setBrightness(0.5f);
            ctl->setKindName("Desk");
            ctl->setEnable(false);
            ctl->setInstallDirection(1);
            ctl->setWorkMode("com.orvanta.colorful");
            ctl->setSubMode("com.orvanta.colorful.flowingEffect");
        };
        // Each change is announced once; brightness and enable send a frame.
        for (int round = 0; round < 2; ++round) {
            setAll();
            for (const QSignalSpy* spy : {&brightness, &kindName, &enable, &direction, &workMode, &subMode}) {
                QCOMPARE(spy->count(), 1);
            }
            QCOMPARE(sent.count(), 2);
            // With the stored file gone, the second round must not write it again.
            QCOMPARE(QFile::remove(storedFile()), round == 0);
        }
    }

    void enableGivesBlackAndRestores()
    {
        DeviceRig rig;
        QVERIFY(rig.start(DeviceRig::defaultOptions(3)));
        OVController* ctl = rig.controller.data();
        QSignalSpy sent(ctl, &OVController::writeToPort);
        ctl->update(QVector<OV_RGB>{{10, 20, 30}, {40, 50, 60}, {70, 80, 90}});
        ctl->setEnable(false);
        QCOMPARE(lastSent(sent), frameBytes(3, QByteArray(9, 0))); // at once, not at the next refresh
        QCOMPARE(ConfigurationManager::instance()->controllerJsonObj(kId).value("enable"), QJsonValue(false));
        // Deliveries while off stay black but are kept.
        ctl->update(QVector<OV_RGB>{{1, 2, 3}, {4, 5, 6}, {7, 8, 9}});
        QCOMPARE(lastSent(sent), frameBytes(3, QByteArray(9, 0)));
        ctl->setEnable(true);
        QCOMPARE(lastSent(sent), frameBytes(3, QByteArray::fromHex("010203040506070809")));
        QTRY_COMPARE_WITH_TIMEOUT(rig.device.lastColors(), (Rgbs{{1, 2, 3}, {4, 5, 6}, {7, 8, 9}}), kWait);
    }

    // With nothing delivered the controller repeats its last frame every 800 ms, and says so; the
    // statistics lines of controller and port come along.
    void silenceRepeatsTheLastFrame()
    {
        LogCapture log;
        DeviceRig rig;
        QVERIFY(rig.start(DeviceRig::defaultOptions(2)));
        rig.controller->setBrightness(0.5f);
        rig.controller->setSubMode("com.orvanta.test.still");
        QElapsedTimer waited;
        waited.start();
        rig.controller->update(QVector<OV_RGB>{{255, 0, 32}});
        const QByteArray frame = frameBytes(2, QByteArray::fromHex("7f0010000000"));
        QTRY_COMPARE_WITH_TIMEOUT(rig.device.lastFrame(), frame, kWait);
        rig.device.clearFrames();
        // The port's mean is the interval between writes, logged once they add up past 5 s.
        const QString mean = "[[loop]][OVSerialPort]: Mean write time: ";
        QTRY_VERIFY_WITH_TIMEOUT(log.contains(mean, QtInfoMsg), 30000);
        const QString entry = log.lines().filter(mean).first();
        const double meanMs = entry.mid(entry.indexOf(mean) + mean.size()).chopped(2).toDouble();
        QVERIFY2(meanMs > 0, qPrintable(entry));

        // Each repeat comes with the warning, which the controller gives for a gap of 800 ms or more.
        const QVector<QByteArray> repeats = rig.device.frames();
        qInfo() << repeats.size() << "repeats in" << waited.elapsed() << "ms, mean write time" << meanMs
                << "ms";
        QVERIFY(repeats.size() >= 5);
        for (const QByteArray& f : repeats) {
            QCOMPARE(f, frame);
        }
        QVERIFY(log.count("[[loop]][Controller]: " + kId +
                              ": The automatic refresh of the controller is triggered",
                          QtWarningMsg) >= repeats.size());
        const QRegularExpression stats(
            "^\\[\\[loop\\]\\]\\[Controller\\]OV5512:41424344, Avg update interval: "
            "[0-9.]+ms, \r\n  Current worker: com\\.orvanta\\.test\\.still\r\n"
            "  Current raw led data: \r\n7f0010\r\n \r\n$");
        QVERIFY(!log.lines().filter(stats).isEmpty());
        // The next statistics line, seconds later, leaves the LED dump out.
        QTRY_VERIFY_WITH_TIMEOUT(log.count("Avg update interval: ") >= 2, 30000);
        QCOMPARE(log.lines().filter("Current raw led data").size(), 1);
    }

    void errorCodes_data()
    {
        QTest::addColumn<int>("error");
        QTest::addColumn<int>("code"); // -1: ignored, the code stays
        QTest::newRow("NoError while healthy") << int(QSerialPort::NoError) << -1;
        QTest::newRow("DeviceNotFoundError") << int(QSerialPort::DeviceNotFoundError) << 3;
        QTest::newRow("ParityError") << int(QSerialPort::ParityError) << -1;
        QTest::newRow("WriteError") << int(QSerialPort::WriteError) << 2;
        QTest::newRow("ResourceError") << int(QSerialPort::ResourceError) << 2;
        QTest::newRow("NotOpenError") << int(QSerialPort::NotOpenError) << 3;
        QTest::newRow("beyond NotOpenError") << int(QSerialPort::NotOpenError) + 1 << -1;
    }

    void errorCodes()
    {
        QFETCH(int, error);
        QFETCH(int, code);
        DeviceRig rig;
        QVERIFY(rig.start(DeviceRig::defaultOptions(3)));
        QSignalSpy status(rig.controller.data(), &AbsRGBController::statusChanged);
        QSerialPort* serial = rig.controller->serialPort()->serialPort();
        // The handler runs queued, in order: a marker of another code tells when the error was seen,
        // and the marker's repeat emits nothing.
        const auto marker = code == 3 ? QSerialPort::WriteError : QSerialPort::DeviceNotFoundError;
        emit serial->errorOccurred(QSerialPort::SerialPortError(error));
        emit serial->errorOccurred(marker);
        emit serial->errorOccurred(marker);
        QTRY_VERIFY_WITH_TIMEOUT(
            !status.isEmpty() && status.last().at(0).value<uint32_t>() == (code == 3 ? 2u : 3u), kWait);
        QCOMPARE(status.count(), code < 0 ? 1 : 2);
        if (code >= 0) {
            QCOMPARE(status.first().at(0).value<uint32_t>(), uint32_t(code));
        }
    }

    void releaseSendsBlackLast()
    {
        DeviceRig rig;
        QVERIFY(rig.start(DeviceRig::defaultOptions(5)));
        // Fewer colours than LEDs: the black frame still covers all five.
        rig.controller->update(QVector<OV_RGB>{{200, 100, 50}, {1, 2, 3}});
        QTRY_VERIFY_WITH_TIMEOUT(rig.device.frameCount() >= 1, kWait);
        QPointer<QThread> thread = rig.controller->findChild<QThread*>();
        QVERIFY(thread);
        QTest::ignoreMessage(QtDebugMsg, "[OVController]: OV5512:41424344The port is released, the black "
                                         "buffer is writeen: true, nbLEDS:5");
        rig.controller.reset();
        QVERIFY(thread.isNull()); // the thread has ended and gone with the controller
        const QByteArray black = frameBytes(5, QByteArray(15, 0));
        QTRY_COMPARE_WITH_TIMEOUT(rig.device.lastFrame(), black, kWait);
        QCOMPARE(rig.device.frames().count(black), 1);
        QCOMPARE(rig.device.decodeErrors(), 0);
    }

    // Settings are written under model:serial and read back under the id, which differ without
    // a serial: such a device never reads back what it wrote.
    void persistenceWithoutSerial()
    {
        ControlOptions o = DeviceRig::defaultOptions(3);
        o.serial = "";
        o.id = "OV5512";
        DeviceRig rig;
        QVERIFY(rig.start(o));
        OVController* ctl = rig.controller.data();
        ctl->setKindName("Shelf");
        ctl->setBrightness(0.25f);
        ctl->setEnable(false);
        ctl->setInstallDirection(2);
        ctl->setWorkMode("com.orvanta.colorful");
        ctl->setSubMode("com.orvanta.colorful.flowing");
        ctl->setLayout(7, {3, 4});
        QCOMPARE(ConfigurationManager::instance()->controllerJsonObj("OV5512:"),
                 QJsonDocument::fromJson(R"({"kindName": "Shelf", "brightness": 0.25, "enable": false,
                     "installDirection": 2, "workMode": "com.orvanta.colorful",
                     "subMode": "com.orvanta.colorful.flowing", "nbLeds": 7, "lines": [3, 4]})")
                     .object());
        QVERIFY(!ctl->loadConfig());
    }

    // A stored object with keys missing: the read defaults, not those of a fresh record, and no
    // "nbLeds" silences the device until a layout gives it LEDs.
    void loadConfigDefaults()
    {
        ConfigurationManager::instance()->controllerJsonObj(kId) =
            QJsonObject{{"installDirection", 1}, {"lines", QJsonArray{5, "x", 2.7}}};
        DeviceRig rig;
        QVERIFY(rig.start(DeviceRig::defaultOptions(3)));
        OVController* ctl = rig.controller.data();
        QVERIFY(ctl->loadConfig());
        const ControlOptions& o = ctl->controlOptions();
        QCOMPARE(o.kindName, rig.device.slavePath());
        QCOMPARE(o.brightness, 0.8f);
        QCOMPARE(o.enable, true);
        QCOMPARE(o.installDirection, 1u);
        QCOMPARE(o.nbLeds, 0u);
        QCOMPARE(o.lines, QVector<uint32_t>({5, 0, 2}));

        QSignalSpy sent(ctl, &OVController::writeToPort);
        ctl->updateFrameHeader();
        ctl->update(QVector<OV_RGB>{{1, 2, 3}});
        ctl->setBrightness(0.5f);
        QCOMPARE(sent.count(), 0);
        ctl->setLayout(2, {2});
        ctl->update(QVector<OV_RGB>{{8, 8, 8}});
        QCOMPARE(lastSent(sent), frameBytes(2, QByteArray::fromHex("040404000000")));
    }
};

QTEST_GUILESS_MAIN(TestController)
#include "tst_Controller.moc"
