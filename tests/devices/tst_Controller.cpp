#include "DeviceRig.h"

#include "ConfigurationManager.h"

#include <QDirIterator>
#include <QJsonArray>
#include <QJsonObject>
#include <QPointer>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QtTest>

namespace {

using Lines = QVector<QVector<OV_RGB>>;
constexpr int kWait = 10000;

QStringList storedFiles()
{
    ConfigurationManager::instance()->flush();
    QStringList out;
    QDirIterator it(ConfigurationManager::instance()->configPath(), {QStringLiteral("*.json")}, QDir::Files,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        out << it.next();
    }
    return out;
}

QVector<VirtualLedDevice::Rgb> rgb(const QVector<OV_RGB>& in)
{
    QVector<VirtualLedDevice::Rgb> out;
    for (const OV_RGB& c : in) {
        out.append({c.r, c.g, c.b});
    }
    return out;
}

QByteArray lastSent(const QSignalSpy& spy)
{
    return spy.isEmpty() ? QByteArray() : spy.last().at(0).toByteArray();
}

} // namespace

class TestController : public QObject
{
    Q_OBJECT
private slots:
    void init() { ConfigurationManager::instance()->reset(); }

    void brightnessTruncates_data()
    {
        QTest::addColumn<float>("brightness");
        QTest::addColumn<int>("channel");
        QTest::addColumn<int>("expected");
        QTest::newRow("0.5 x 255 -> 127, not 128") << 0.5f << 255 << 127;
        QTest::newRow("0.8 x 255 -> 204") << 0.8f << 255 << 204;
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
        const uint8_t c = uint8_t(channel);
        rig.controller->update(QVector<OV_RGB>{{c, c, c}, {c, 0, 0}});
        const uint8_t e = uint8_t(expected);
        const QVector<VirtualLedDevice::Rgb> want{{e, e, e}, {e, 0, 0}};
        QTRY_COMPARE_WITH_TIMEOUT(rig.device.lastColors(), want, kWait);
    }

    void sameValueSettersDoNothing()
    {
        DeviceRig rig;
        QVERIFY(rig.start(DeviceRig::defaultOptions(2)));
        OVController* ctl = rig.controller.data();
        ctl->update(QVector<OV_RGB>{{255, 255, 255}});
        QSignalSpy sent(ctl, &OVController::writeToPort);
        QSignalSpy brightness(ctl, &AbsRGBController::brightnessChanged);
        QSignalSpy kindName(ctl, &AbsRGBController::kindNameChanged);
        QSignalSpy enable(ctl, &AbsRGBController::enableChanged);
        QSignalSpy sub(ctl, &AbsRGBController::subModeChanged);

        ctl->setBrightness(0.5f);
        QCOMPARE(brightness.count(), 1);
        QCOMPARE(brightness.at(0).at(0).toFloat(), 0.5f);
        QCOMPARE(sent.count(), 1);
        QCOMPARE(lastSent(sent), frameBytes(2, QByteArray::fromHex("7f7f7f000000")));
        ctl->setKindName(QStringLiteral("Desk"));
        ctl->setInstallDirection(1);
        ctl->setWorkMode(QStringLiteral("com.orvanta.colorful"));
        ctl->setSubMode(QStringLiteral("com.orvanta.colorful.singleColor"));
        QCOMPARE(kindName.count(), 1);
        QCOMPARE(sub.count(), 1);
        QCOMPARE(sent.count(), 1); // only brightness reaches the bytes
        QVERIFY(!storedFiles().isEmpty());

        // With the stored files gone, a setter that changes nothing must not write them again.
        for (const QString& f : storedFiles()) {
            QVERIFY(QFile::remove(f));
        }
        ctl->setBrightness(0.5f);
        ctl->setKindName(QStringLiteral("Desk"));
        ctl->setEnable(true);
        ctl->setInstallDirection(1);
        ctl->setWorkMode(QStringLiteral("com.orvanta.colorful"));
        ctl->setSubMode(QStringLiteral("com.orvanta.colorful.singleColor"));
        QCOMPARE(brightness.count(), 1);
        QCOMPARE(kindName.count(), 1);
        QCOMPARE(enable.count(), 0);
        QCOMPARE(sub.count(), 1);
        QCOMPARE(sent.count(), 1);
        QVERIFY(storedFiles().isEmpty());

        // A real change is saved again.
        ctl->setBrightness(0.25f);
        QCOMPARE(sent.count(), 2);
        QCOMPARE(storedFiles().size(), 1);
    }

    void enableGivesBlackAndRestores()
    {
        DeviceRig rig;
        QVERIFY(rig.start(DeviceRig::defaultOptions(3)));
        OVController* ctl = rig.controller.data();
        QSignalSpy sent(ctl, &OVController::writeToPort);
        QSignalSpy enabled(ctl, &AbsRGBController::enableChanged);
        const QVector<OV_RGB> picture{{10, 20, 30}, {40, 50, 60}, {70, 80, 90}};
        ctl->update(picture);
        QTRY_COMPARE_WITH_TIMEOUT(rig.device.lastColors(), rgb(picture), kWait);

        ctl->setEnable(false);
        QCOMPARE(enabled.count(), 1);
        QCOMPARE(enabled.at(0).at(0).toBool(), false);
        QCOMPARE(lastSent(sent), frameBytes(3, QByteArray(9, 0))); // at once, not at the next refresh
        QTRY_COMPARE_WITH_TIMEOUT(rig.device.lastColors(), QVector<VirtualLedDevice::Rgb>(3), kWait);
        QCOMPARE(ConfigurationManager::instance()
                     ->controllerJsonObj(QStringLiteral("OV5512:41424344"))
                     .value(QStringLiteral("enable")),
                 QJsonValue(false));

        // Deliveries while off stay black but are kept.
        const QVector<OV_RGB> next{{1, 2, 3}, {4, 5, 6}, {7, 8, 9}};
        ctl->update(next);
        QCOMPARE(lastSent(sent), frameBytes(3, QByteArray(9, 0)));

        ctl->setEnable(true);
        QCOMPARE(enabled.count(), 2);
        QCOMPARE(lastSent(sent), frameBytes(3, QByteArray::fromHex("010203040506070809")));
        QTRY_COMPARE_WITH_TIMEOUT(rig.device.lastColors(), rgb(next), kWait);
    }

    void silenceRepeatsTheLastFrame()
    {
        DeviceRig rig;
        QVERIFY(rig.start(DeviceRig::defaultOptions(2)));
        rig.controller->setBrightness(0.5f);
        rig.controller->setSubMode(QStringLiteral("com.orvanta.test.still"));
        const QString id = QStringLiteral("OV5512:41424344");
        QTest::ignoreMessage(
            QtWarningMsg,
            qPrintable(QStringLiteral("[[loop]][Controller]: ") + id +
                       QStringLiteral(": The automatic refresh of the controller is triggered")));
        // Once the intervals add up past three seconds the statistics line shows the scaled data.
        QTest::ignoreMessage(QtDebugMsg,
                             QRegularExpression(QStringLiteral(
                                 "^\\[\\[loop\\]\\]\\[Controller\\]OV5512:41424344, Avg update interval: "
                                 "[0-9.]+ms, \r\n  Current worker: com\\.orvanta\\.test\\.still\r\n"
                                 "  Current raw led data: \r\n7f0010\r\n \r\n$")));
        QElapsedTimer waited;
        waited.start();
        rig.controller->update(QVector<OV_RGB>{{255, 0, 32}});
        const QByteArray frame = frameBytes(2, QByteArray::fromHex("7f0010000000"));
        QTRY_COMPARE_WITH_TIMEOUT(rig.device.lastFrame(), frame, kWait);
        rig.device.clearFrames(); // earlier frames came from the setters
        const int first = rig.device.frameCount();
        // Nothing is delivered: the controller refreshes by itself, not faster than every 800 ms.
        QTRY_VERIFY_WITH_TIMEOUT(rig.device.frameCount() >= first + 5, 30000);
        QVERIFY2(waited.elapsed() >= 5 * 800, qPrintable(QString::number(waited.elapsed())));
        for (const QByteArray& f : rig.device.frames()) {
            QCOMPARE(f, frame);
        }
    }

    void deviceVanishing()
    {
        DeviceRig rig;
        QVERIFY(rig.start(DeviceRig::defaultOptions(3)));
        QSignalSpy status(rig.controller.data(), &AbsRGBController::statusChanged);
        rig.controller->update(QVector<OV_RGB>{{1, 2, 3}});
        QTRY_VERIFY_WITH_TIMEOUT(rig.device.frameCount() >= 1, kWait);

        rig.device.close();
        QTRY_COMPARE_WITH_TIMEOUT(status.count(), 1, kWait);
        const uint32_t code = status.at(0).at(0).value<uint32_t>();
        QVERIFY2(code == 2 || code == 3, qPrintable(QString::number(code)));
        QVERIFY(!status.at(0).at(1).toString().isEmpty());
        QCOMPARE(rig.controller->controlOptions().status, code);

        // Writing to the dead port fails again; the same code is not announced twice.
        for (int i = 0; i < 5; ++i) {
            rig.controller->update(QVector<OV_RGB>{{uint8_t(i), 0, 0}});
        }
        // Once the port thread has handled those writes their errors are queued ahead of a marker
        // error of the other code, so the marker must be the second announcement.
        OVSerialPort* port = rig.controller->serialPort();
        QMetaObject::invokeMethod(
            port, [port] { port->flushPending(0); }, Qt::BlockingQueuedConnection);
        const auto marker = code == 2 ? QSerialPort::DeviceNotFoundError : QSerialPort::WriteError;
        emit port->serialPort()->errorOccurred(marker);
        QTRY_COMPARE_WITH_TIMEOUT(status.count(), 2, kWait);
        QCOMPARE(status.at(1).at(0).value<uint32_t>(), code == 2 ? 3u : 2u);
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
        // The handler runs queued in order: a marker of another code tells when the error was seen.
        const auto marker = code == 3 ? QSerialPort::WriteError : QSerialPort::DeviceNotFoundError;
        emit serial->errorOccurred(QSerialPort::SerialPortError(error));
        emit serial->errorOccurred(marker);
        emit serial->errorOccurred(marker); // a repeat: nothing
        QTRY_VERIFY_WITH_TIMEOUT(
            !status.isEmpty() && status.last().at(0).value<uint32_t>() == (code == 3 ? 2u : 3u), kWait);
        QCOMPARE(status.count(), code < 0 ? 1 : 2);
        if (code >= 0) {
            QCOMPARE(status.first().at(0).value<uint32_t>(), uint32_t(code));
        }
    }

    void releaseSendsBlackLast()
    {
        VirtualLedDevice device;
        device.setKeepFrames(true);
        QVERIFY(device.open());
        auto* port = new OVSerialPort();
        QVERIFY(port->open(device.slavePath()));
        ControlOptions o = DeviceRig::defaultOptions(5);
        auto* ctl = new OVController(o, port);
        ctl->updateFrameHeader();
        // Fewer colours than LEDs: the black frame still covers all five.
        ctl->update(QVector<OV_RGB>{{200, 100, 50}, {1, 2, 3}});
        QTRY_VERIFY_WITH_TIMEOUT(device.frameCount() >= 1, kWait);
        QPointer<QThread> thread = ctl->findChild<QThread*>();
        QVERIFY(thread);

        QTest::ignoreMessage(QtDebugMsg, "[OVController]: OV5512:41424344The port is released, the black "
                                         "buffer is writeen: true, nbLEDS:5");
        QTest::ignoreMessage(QtDebugMsg, "[AbsRGBController] OV5512:41424344 destructed");
        delete ctl;
        QVERIFY(thread.isNull()); // the thread has ended and gone with the controller
        const QByteArray black = frameBytes(5, QByteArray(15, 0));
        QTRY_COMPARE_WITH_TIMEOUT(device.lastFrame(), black, kWait);
        QCOMPARE(device.frames().last(), black);
        QCOMPARE(device.frames().count(black), 1);
        QCOMPARE(device.decodeErrors(), 0);
    }

    // A device that reads slower than frames come: at most one frame waits behind the one being
    // written, and the newest colours win.
    void slowReaderGetsTheLatestFrame()
    {
        DeviceRig rig;
        rig.device.setReadRate(8000);
        QVERIFY(rig.start(DeviceRig::defaultOptions(300)));
        OVSerialPort* port = rig.controller->serialPort();
        const qint64 frameSize = 6 + 3 * 300;
        qint64 most = 0;
        for (int i = 1; i <= 75; ++i) { // 3 s at 25 frames per second, about three times the link
            rig.controller->update(QVector<OV_RGB>(300, OV_RGB{uint8_t(i), 0, 0}));
            QTest::qWait(40);
            qint64 queued = 0;
            QMetaObject::invokeMethod(
                port, [port] { return port->queuedBytes(); }, Qt::BlockingQueuedConnection, &queued);
            most = qMax(most, queued);
        }
        QVERIFY2(most <= 2 * frameSize, qPrintable(QString::number(most)));
        QTRY_COMPARE_WITH_TIMEOUT(rig.device.lastColors().value(299).r, uint8_t(75), kWait);
        QVERIFY(rig.device.frameCount() < 60);
        QCOMPARE(rig.device.decodeErrors(), 0);
    }

    void persistenceKeys_data()
    {
        QTest::addColumn<QString>("serial");
        QTest::addColumn<QString>("id");
        QTest::addColumn<QString>("writeKey");
        QTest::addColumn<bool>("readsBack");
        QTest::newRow("with serial: same key") << "41424344"
                                               << "OV5512:41424344"
                                               << "OV5512:41424344" << true;
        QTest::newRow("no serial: writes MODEL:, reads MODEL") << ""
                                                               << "OV5512"
                                                               << "OV5512:" << false;
    }

    void persistenceKeys()
    {
        QFETCH(QString, serial);
        QFETCH(QString, id);
        QFETCH(QString, writeKey);
        QFETCH(bool, readsBack);
        ConfigurationManager* config = ConfigurationManager::instance();
        ControlOptions o = DeviceRig::defaultOptions(3);
        o.serial = serial;
        o.id = id;
        {
            DeviceRig rig;
            QVERIFY(rig.start(o));
            OVController* ctl = rig.controller.data();
            QVERIFY(!ctl->loadConfig()); // nothing stored yet: defaults stay
            ctl->setKindName(QStringLiteral("Shelf"));
            ctl->setBrightness(0.25f);
            ctl->setEnable(false);
            ctl->setInstallDirection(2);
            ctl->setWorkMode(QStringLiteral("com.orvanta.colorful"));
            ctl->setSubMode(QStringLiteral("com.orvanta.colorful.flowing"));
            ctl->setLayout(7, {3, 4});
        }
        const QJsonObject expected{{"kindName", "Shelf"},
                                   {"brightness", 0.25},
                                   {"enable", false},
                                   {"installDirection", 2},
                                   {"workMode", "com.orvanta.colorful"},
                                   {"subMode", "com.orvanta.colorful.flowing"},
                                   {"nbLeds", 7},
                                   {"lines", QJsonArray({3, 4})}};
        QCOMPARE(config->controllerJsonObj(writeKey), expected);

        DeviceRig again;
        QVERIFY(again.start(o));
        ControlOptions& loaded = again.controller->controlOptions();
        QCOMPARE(again.controller->loadConfig(), readsBack);
        if (readsBack) {
            QCOMPARE(loaded.kindName, QStringLiteral("Shelf"));
            QCOMPARE(loaded.brightness, 0.25f);
            QCOMPARE(loaded.installDirection, 2u);
            QCOMPARE(loaded.lines, QVector<uint32_t>({3, 4}));
            QCOMPARE(loaded.subMode, QStringLiteral("com.orvanta.colorful.flowing"));
        } else {
            QVERIFY(config->controllerJsonObj(id).isEmpty());
            QCOMPARE(loaded.brightness, 1.0f);
            QCOMPARE(loaded.nbLeds, 3u);
        }
    }

    void loadDefaultsAndMissingLeds()
    {
        ConfigurationManager* config = ConfigurationManager::instance();
        QJsonObject& stored = config->controllerJsonObj(QStringLiteral("OV5512:41424344"));
        stored = QJsonObject{{QStringLiteral("installDirection"), 1},
                             {QStringLiteral("lines"), QJsonArray{5, QStringLiteral("x"), 2.7, -3}}};
        DeviceRig rig;
        QVERIFY(rig.start(DeviceRig::defaultOptions(3)));
        OVController* ctl = rig.controller.data();
        QVERIFY(ctl->loadConfig());
        const ControlOptions& o = ctl->controlOptions();
        QCOMPARE(o.kindName, rig.device.slavePath()); // the port name stands in
        QCOMPARE(o.brightness, 0.8f);                 // not the 0.5 of a fresh record
        QCOMPARE(o.enable, true);
        QCOMPARE(o.installDirection, 1u);
        QCOMPARE(o.nbLeds, 0u);
        QCOMPARE(o.lines, QVector<uint32_t>({5, 0, 2, 0}));

        // Zero LEDs silence the device, refresh included.
        QSignalSpy sent(ctl, &OVController::writeToPort);
        ctl->updateFrameHeader();
        ctl->update(QVector<OV_RGB>{{1, 2, 3}});
        ctl->setBrightness(0.3f);
        QCOMPARE(sent.count(), 0);
    }
};

QTEST_GUILESS_MAIN(TestController)
#include "tst_Controller.moc"
