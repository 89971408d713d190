#include "ConfigurationManager.h"
#include "DeviceManager.h"
#include "ExtraPortsWatcher.h"
#include "LogCapture.h"
#include "OVControllerEnumerator.h"
#include "PortArrivalWatcher.h"
#include "TestFiles.h"
#include "VirtualLedDevice.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QPointer>
#include <QSerialPort>
#include <QSerialPortInfo>
#include <QSignalSpy>
#include <QSocketNotifier>
#include <QTemporaryDir>
#include <QThread>
#include <QTimer>
#include <QtTest>

#include <memory>

#include <unistd.h>

namespace {

using Device = std::unique_ptr<VirtualLedDevice>;
using Mode = VirtualLedDevice::ReplyMode;

const int HandshakeMs = 8000; // reply timeout of 5 s plus room for a loaded machine
const QString kIgnored =
    QStringLiteral("[OVControllerEnumerator]: Ignored data on a port that already drives a device:");

QString sourceData()
{
    return QStringLiteral(ORVANTA_SOURCE_DIR "/data");
}

AbsRGBControllerPtr controllerAt(const QSignalSpy& spy, int index)
{
    return spy.at(index).at(0).value<AbsRGBControllerPtr>();
}

QVector<VirtualLedDevice::Rgb> scaled(int count, OV_RGB colour, float brightness)
{
    VirtualLedDevice::Rgb rgb;
    rgb.r = uint8_t(int(float(colour.r) * brightness));
    rgb.g = uint8_t(int(float(colour.g) * brightness));
    rgb.b = uint8_t(int(float(colour.b) * brightness));
    return QVector<VirtualLedDevice::Rgb>(count, rgb);
}

} // namespace

class TestDiscovery : public QObject
{
    Q_OBJECT

private:
    Device device(const QString& name, const QByteArray& reply = "OV5512,ABCD\r\n", Mode mode = Mode::Normal)
    {
        auto d = std::make_unique<VirtualLedDevice>();
        d->setReply(reply);
        d->setReplyMode(mode);
        if (!d->open(links->filePath(name))) {
            qWarning() << "cannot open the virtual device:" << d->errorString();
            return nullptr;
        }
        return d;
    }
    QString linkPath(const QString& name) const { return links->filePath(name); }
    QString builtInKey() const { return QStringLiteral("@@@OVControllerEnumerator"); }

    // The start-up scan salutes this machine's own ports; each salutation also reaches a port of
    // ours still waiting for its reply, so a test's own handshakes start once the scan is over.
    void waitForStartupScan()
    {
        QTRY_VERIFY_WITH_TIMEOUT(log->contains("[OVControllerEnumerator]: End scan devices list"),
                                 HandshakeMs);
    }

    std::unique_ptr<LogCapture> log;
    std::unique_ptr<QTemporaryDir> workDir;
    std::unique_ptr<QTemporaryDir> links;

private slots:
    void initTestCase()
    {
        QCoreApplication::setOrganizationName(QStringLiteral("OrvantaTests"));
        QCoreApplication::setApplicationName(QStringLiteral("test_discovery"));
        ConfigurationManager::instance()->reset();
        log = std::make_unique<LogCapture>();
        workDir = std::make_unique<QTemporaryDir>();
        QVERIFY(workDir->isValid());
        QVERIFY(
            TestFiles::copyTree(sourceData() + "/controler_config", workDir->filePath("controler_config")) &&
            TestFiles::copyTree(sourceData() + "/images", workDir->filePath("images")));
        // The defaults must come from the working directory, never from beside this program;
        // a run that was killed may have left its temporary copies there.
        QDir(QCoreApplication::applicationDirPath() + "/controler_config").removeRecursively();
        QDir(QCoreApplication::applicationDirPath() + "/images").removeRecursively();
    }

    void init()
    {
        qunsetenv("ORVANTA_EXTRA_PORTS");
        QVERIFY(QDir::setCurrent(workDir->path()));
        links = std::make_unique<QTemporaryDir>();
        QVERIFY(links->isValid());
        log->clear();
    }

    void cleanup()
    {
        TestFiles::flushDeletes();
        links.reset();
        QDir::setCurrent(workDir->path());
    }

    void cleanupTestCase()
    {
        TestFiles::flushDeletes();
        log.reset();
    }

    // ---- the handshake ----

    void handshake_data()
    {
        QTest::addColumn<QByteArray>("reply");
        QTest::addColumn<QString>("id"); // null: refused
        QTest::addColumn<QString>("model");
        QTest::addColumn<QString>("serial");
        QTest::addColumn<QString>("logLine");
        const auto row = [](const char* name, const QByteArray& reply, const QString& id,
                            const QString& model, const QString& serial, const QString& logLine) {
            QTest::newRow(name) << reply << id << model << serial << logLine;
        };
        const QString refused = QStringLiteral("Failed to verify deviece <");
        row("model and serial", "OV5512,ABCD\r\n", "OV5512:41424344", "OV5512", "41424344",
            "id: \"OV5512:41424344\"");
        row("lower-case magic", "ov5512,AB\r\n", "OV5512:4142", "ov5512", "4142",
            "removed the raw string tail: \"ov5512,AB\"");
        row("no serial", "OV5512\r\n", "OV5512", "OV5512", "",
            "[OVControllerEnumerator]: The device has no serial:");
        row("magic only", "OV", "", "", "", "id: \"\"");
        row("no magic", "XY5512,ABCD\r\n", QString(), "", "", refused);
    }

    void handshake()
    {
        QFETCH(QByteArray, reply);
        QFETCH(QString, id);
        QFETCH(QString, model);
        QFETCH(QString, serial);
        QFETCH(QString, logLine);

        Device dev = device(QStringLiteral("ttyHand"), reply);
        QVERIFY(dev);
        OVControllerEnumerator enumerator;
        waitForStartupScan();
        QSignalSpy found(&enumerator, &OVControllerEnumerator::deviceEnabled);
        enumerator.verifyDevice(dev->linkPath());

        QTRY_VERIFY_WITH_TIMEOUT(log->contains(logLine), HandshakeMs);
        QVERIFY(dev->salutations() >= 1);
        if (id.isNull()) {
            QVERIFY(log->contains(QStringLiteral("Failed to verify deviece <%1>").arg(dev->linkPath()),
                                  QtInfoMsg));
            QCOMPARE(found.count(), 0);
            QVERIFY(enumerator.controllers().isEmpty());
            return;
        }
        QTRY_COMPARE(found.count(), 1);
        const AbsRGBControllerPtr controller = controllerAt(found, 0);
        QVERIFY(controller);
        const ControlOptions& options = controller->controlOptions();
        QCOMPARE(options.id, id);
        QCOMPARE(options.model, model);
        QCOMPARE(options.serial, serial);
        QCOMPARE(options.portName, dev->linkPath());
        QVERIFY(!options.icon.isNull()); // the model's picture or the compiled-in one
        QVERIFY(log->contains("OVControllerEnumerator found a device: " + id, QtInfoMsg));
        QVERIFY(
            log->contains(QStringLiteral("[OVControllerEnumerator]:  \"%1\" returned").arg(dev->linkPath())));
        QCOMPARE(enumerator.controllers().size(), 1);
    }

    void splitReplyIsParsedFromFirstChunk()
    {
        Device dev = device(QStringLiteral("ttySplit"), "OV5512,ABCD\r\n", Mode::Split);
        QVERIFY(dev);
        dev->setSplitDelayMs(1500);
        OVControllerEnumerator enumerator;
        waitForStartupScan();
        QSignalSpy found(&enumerator, &OVControllerEnumerator::deviceEnabled);
        enumerator.verifyDevice(dev->linkPath());
        QTRY_COMPARE_WITH_TIMEOUT(found.count(), 1, HandshakeMs);
        const AbsRGBControllerPtr controller = controllerAt(found, 0);
        // "OV5512" arrives alone: the tail cut leaves "OV55", a device with no serial.
        QCOMPARE(controller->controlOptions().id, QStringLiteral("OV55"));
        // The second chunk reaches the handler on a port that now drives the controller.
        QTRY_VERIFY_WITH_TIMEOUT(log->contains(kIgnored), HandshakeMs);
        // The port is still the controller's: frames keep flowing.
        controller->setLayout(4, {4});
        const int before = dev->frameCount();
        controller->update(QVector<OV_RGB>(4, OV_RGB{200, 100, 50}));
        QTRY_VERIFY(dev->frameCount() > before);
        QCOMPARE(dev->lastCount(), uint16_t(4));
    }

    void refusedHandshakeLeavesTheEnumeratorReady_data()
    {
        QTest::addColumn<int>("mode");
        QTest::addColumn<bool>("vanish");
        QTest::addColumn<QString>("logLine"); // %1: the port
        const QString timeout = QStringLiteral("device response timeout： %1");
        QTest::newRow("no reply: the 5 s timeout") << int(Mode::Silent) << false << timeout;
        QTest::newRow("64 KiB of garbage") << int(Mode::Garbage) << false << "Failed to verify deviece <%1>";
        QTest::newRow("port vanishes during the handshake") << int(Mode::Silent) << true << QString();
    }

    void refusedHandshakeLeavesTheEnumeratorReady()
    {
        QFETCH(int, mode);
        QFETCH(bool, vanish);
        QFETCH(QString, logLine);
        Device dev = device(QStringLiteral("ttyRefused"), "OV5512,5110\r\n", Mode(mode));
        QVERIFY(dev);
        dev->setGarbageBytes(64 * 1024);
        const QString path = dev->linkPath();
        OVControllerEnumerator enumerator;
        waitForStartupScan();
        QSignalSpy found(&enumerator, &OVControllerEnumerator::deviceEnabled);
        enumerator.verifyDevice(path);
        QTRY_COMPARE(dev->salutations(), 1);
        if (vanish) {
            dev.reset();
            QTRY_VERIFY_WITH_TIMEOUT(
                log->contains("device response timeout： " + path) ||
                    log->contains(QStringLiteral("Failed to verify deviece <%1>").arg(path)),
                HandshakeMs);
        } else {
            QTRY_VERIFY_WITH_TIMEOUT(log->contains(logLine.arg(path), QtInfoMsg), HandshakeMs);
        }
        TestFiles::flushDeletes();
        QCOMPARE(found.count(), 0);

        // Ready for more; a silent port was let go, so the same device is found once it speaks.
        if (mode != int(Mode::Silent) || vanish)
            dev = device(QStringLiteral("ttyNext"), "OV5512,5110\r\n");
        QVERIFY(dev);
        dev->setReplyMode(Mode::Normal);
        enumerator.verifyDevice(dev->linkPath());
        QTRY_COMPARE_WITH_TIMEOUT(found.count(), 1, HandshakeMs);
        QCOMPARE(controllerAt(found, 0)->controlOptions().id, QStringLiteral("OV5512:35313130"));
    }

    // Whatever an attached port says later, another id or chatter, builds no second controller.
    void dataAfterGoodReplyIsIgnored()
    {
        Device dev = device(QStringLiteral("ttyChatty"), "OV5512,C1\r\n");
        QVERIFY(dev);
        OVControllerEnumerator enumerator;
        waitForStartupScan();
        QSignalSpy found(&enumerator, &OVControllerEnumerator::deviceEnabled);
        enumerator.verifyDevice(dev->linkPath());
        QTRY_COMPARE_WITH_TIMEOUT(found.count(), 1, HandshakeMs);
        const AbsRGBControllerPtr controller = controllerAt(found, 0);

        for (const QByteArray& late : {QByteArray("OV5512,C1\r\n"), QByteArray("OV5512,C2\r\n"),
                                       QByteArray("noise after the reply")}) {
            const int before = log->count(kIgnored);
            dev->sendRaw(late);
            QTRY_COMPARE(log->count(kIgnored), before + 1);
        }
        QCOMPARE(found.count(), 1); // announced in the same handler that logs
        QCOMPARE(enumerator.controllers().size(), 1);

        // Still attached and writing.
        const int before = dev->frameCount();
        controller->update(QVector<OV_RGB>(72, OV_RGB{100, 50, 10}));
        QTRY_VERIFY(dev->frameCount() > before);
        QCOMPARE(dev->lastColors(), scaled(72, OV_RGB{100, 50, 10}, controller->controlOptions().brightness));
    }

    // A reply that lands in the same pass as the time-out: the port is either found or dropped,
    // never handed to a controller while scheduled for deletion.
    void replyInTheTimeoutPass()
    {
        QThread deviceThread;
        deviceThread.start();
        auto* dev = new VirtualLedDevice();
        dev->setReplyMode(Mode::Silent);
        dev->moveToThread(&deviceThread);
        const QString path = linkPath(QStringLiteral("ttyLast"));
        bool opened = false;
        QMetaObject::invokeMethod(
            dev, [&] { opened = dev->open(path); }, Qt::BlockingQueuedConnection);
        QVERIFY(opened);

        OVControllerEnumerator enumerator;
        waitForStartupScan();
        QSignalSpy found(&enumerator, &OVControllerEnumerator::deviceEnabled);
        QElapsedTimer clock;
        clock.start();
        enumerator.verifyDevice(path);
        // A coarse 5 s timer may fire anywhere from 4.75 s to 5.25 s. The reply comes at 4.6 s,
        // while this thread is busy past 5.25 s, so both are ready when the loop runs again.
        QTest::qWait(4500);
        QMetaObject::invokeMethod(dev, [dev] {
            QThread::msleep(100);
            dev->sendRaw("OV5512,7E57\r\n");
        });
        QThread::msleep(800);
        QVERIFY(clock.elapsed() > 5250);
        const QString timedOut = "device response timeout： " + path;
        QTRY_VERIFY_WITH_TIMEOUT(log->contains(timedOut) || found.count() == 1, HandshakeMs);
        TestFiles::flushDeletes();
        if (log->contains(timedOut)) {
            QCOMPARE(found.count(), 0);
            QVERIFY(!log->contains("[OVControllerEnumerator]:  \"" + path + "\" returned"));
        } else {
            const AbsRGBControllerPtr controller = controllerAt(found, 0);
            controller->update(QVector<OV_RGB>(72, OV_RGB{9, 9, 9}));
            QTRY_VERIFY(dev->frameCount() > 0);
        }
        found.clear();
        QMetaObject::invokeMethod(
            dev, [dev] { delete dev; }, Qt::BlockingQueuedConnection);
        deviceThread.quit();
        deviceThread.wait();
    }

    // The statistics line of a discovered device's port: the interval between its frames.
    void meanWriteTimeIsLogged()
    {
        Device dev = device(QStringLiteral("ttyStats"), "OV5512,5747\r\n");
        QVERIFY(dev);
        OVControllerEnumerator enumerator;
        waitForStartupScan();
        QSignalSpy found(&enumerator, &OVControllerEnumerator::deviceEnabled);
        enumerator.verifyDevice(dev->linkPath());
        QTRY_COMPARE_WITH_TIMEOUT(found.count(), 1, HandshakeMs);
        const AbsRGBControllerPtr controller = controllerAt(found, 0);
        QTimer frames;
        connect(&frames, &QTimer::timeout, [&] { controller->update(QVector<OV_RGB>(72, OV_RGB{1, 2, 3})); });
        frames.start(40);
        const QString line = "[[loop]][OVSerialPort]: Mean write time: ";
        QTRY_VERIFY_WITH_TIMEOUT(log->contains(line, QtInfoMsg), 10000);
        const QString entry = log->lines().filter(line).first();
        const double mean = entry.mid(entry.indexOf(line) + line.size()).chopped(2).toDouble();
        QVERIFY2(mean > 20 && mean < 200, qPrintable(entry));
    }

    void sameIdOnTwoPorts()
    {
        Device first = device(QStringLiteral("ttyTwinA"), "OV5512,7717\r\n");
        Device second = device(QStringLiteral("ttyTwinB"), "OV5512,7717\r\n");
        QVERIFY(first && second);
        OVControllerEnumerator enumerator;
        waitForStartupScan();
        QSignalSpy found(&enumerator, &OVControllerEnumerator::deviceEnabled);
        enumerator.verifyDevice(first->linkPath());
        QTRY_COMPARE_WITH_TIMEOUT(found.count(), 1, HandshakeMs);
        enumerator.verifyDevice(second->linkPath());
        QTRY_VERIFY_WITH_TIMEOUT(
            log->contains("[OVControllerEnumerator]: The device already exists OV5512:37373137",
                          QtWarningMsg),
            HandshakeMs);
        QCOMPARE(found.count(), 1);
        QCOMPARE(controllerAt(found, 0)->controlOptions().portName, first->linkPath());

        // The second port stays open: nobody else can take it.
        TestFiles::flushDeletes();
        QSerialPort probe(second->linkPath());
        QVERIFY(!probe.open(QIODevice::ReadWrite));
        QVERIFY(!log->contains("device response timeout： " + second->linkPath()));
    }

    // ---- arrivals ----

    void arrivalsWithinSettleDelayGiveOneAttempt()
    {
        Device dev = device(QStringLiteral("ttyArrive"), "OV5512,AA01\r\n");
        QVERIFY(dev);
        OVControllerEnumerator enumerator;
        waitForStartupScan();
        QSignalSpy found(&enumerator, &OVControllerEnumerator::deviceEnabled);
        QElapsedTimer clock;
        clock.start();
        emit enumerator.deviceArrival(dev->linkPath());
        emit enumerator.deviceArrival(dev->linkPath());
        QTRY_COMPARE_WITH_TIMEOUT(found.count(), 1, HandshakeMs);
        // The settle delay has passed (coarse timers may fire a little early).
        QVERIFY(clock.elapsed() >= 450);
        QCOMPARE(log->count("[OVControllerEnumerator]: Start verifying device: " + dev->linkPath()), 1);
        QVERIFY(dev->salutations() >= 1);

        // After the delay a notice is a new attempt.
        emit enumerator.deviceArrival(dev->linkPath());
        QTRY_COMPARE_WITH_TIMEOUT(
            log->count("[OVControllerEnumerator]: Start verifying device: " + dev->linkPath()), 2,
            HandshakeMs);
    }

    void startupScanTakesExtraPorts()
    {
        Device plain = device(QStringLiteral("ttyStartA"), "OV5512,5A\r\n");
        Device globbed = device(QStringLiteral("usbStart1"), "OV2408,5B\r\n");
        QVERIFY(plain && globbed);
        qputenv("ORVANTA_EXTRA_PORTS", QFile::encodeName(linkPath("ttyStartA") + "::" +
                                                         linkPath("usbStart*") + ":" + linkPath("absent")));
        OVControllerEnumerator enumerator;
        QSignalSpy found(&enumerator, &OVControllerEnumerator::deviceEnabled);
        QVERIFY(log->contains("[OVControllerEnumerator]: Begin scan devices list", QtInfoMsg));
        QTRY_COMPARE_WITH_TIMEOUT(found.count(), 2, HandshakeMs);
        QTRY_VERIFY_WITH_TIMEOUT(log->contains("[OVControllerEnumerator]: End scan devices list", QtInfoMsg),
                                 HandshakeMs);
        QStringList ids{controllerAt(found, 0)->controlOptions().id,
                        controllerAt(found, 1)->controlOptions().id};
        ids.sort();
        QCOMPARE(ids, (QStringList{"OV2408:3542", "OV5512:3541"}));
        const AbsRGBControllerPtr bar = controllerAt(found, 0)->controlOptions().model == "OV2408"
                                            ? controllerAt(found, 0)
                                            : controllerAt(found, 1);
        QCOMPARE(bar->controlOptions().nbLeds, 24u);
        QCOMPARE(bar->controlOptions().brightness, 0.6f);
    }

    void newDeviceAtWatchedPathIsFound()
    {
        qputenv("ORVANTA_EXTRA_PORTS", QFile::encodeName(linkPath("ttyLate*")));
        OVControllerEnumerator enumerator;
        QSignalSpy found(&enumerator, &OVControllerEnumerator::deviceEnabled);
        QTRY_VERIFY(log->contains("[OVControllerEnumerator]: End scan devices list"));
        QCOMPARE(found.count(), 0);
        Device dev = device(QStringLiteral("ttyLate0"), "OV5512,1A7E\r\n");
        QVERIFY(dev);
        QTRY_COMPARE_WITH_TIMEOUT(found.count(), 1, HandshakeMs);
        QCOMPARE(controllerAt(found, 0)->controlOptions().portName, linkPath("ttyLate0"));
        QVERIFY(log->contains("[ExtraPortsWatcher]: A watched port appeared: " + linkPath("ttyLate0")));
    }

    // ---- end to end through the device manager ----

    void twoDevicesAtOnceGetTheirOwnFrames()
    {
        qputenv("ORVANTA_EXTRA_PORTS", QFile::encodeName(linkPath("ttyPair*")));
        DeviceManager manager;
        QSignalSpy added(&manager, &DeviceManager::newController);
        // Both handshakes run together, so the first port hears the salutation twice. These
        // devices answer only the first one, as devices must stay silent after their reply.
        Device left = device(QStringLiteral("ttyPair0"), "OV5512,L0\r\n", Mode::Silent);
        Device right = device(QStringLiteral("ttyPair1"), "OV2408,R0\r\n", Mode::Silent);
        QVERIFY(left && right);
        for (VirtualLedDevice* dev : {left.get(), right.get()}) {
            const QByteArray reply = dev == left.get() ? "OV5512,L0\r\n" : "OV2408,R0\r\n";
            connect(dev, &VirtualLedDevice::salutationReceived, dev, [dev, reply]() {
                if (dev->salutations() == 1)
                    dev->sendRaw(reply);
            });
        }
        QTRY_COMPARE_WITH_TIMEOUT(added.count(), 2, HandshakeMs);
        QStringList names = manager.controllerNames();
        names.sort();
        QCOMPARE(names, (QStringList{"OV2408:5230", "OV5512:4C30"}));

        const AbsRGBControllerPtr leftController = manager.controller("OV5512:4C30");
        const AbsRGBControllerPtr rightController = manager.controller("OV2408:5230");
        leftController->update(QVector<OV_RGB>(72, OV_RGB{250, 0, 0}));
        rightController->update(QVector<OV_RGB>(24, OV_RGB{0, 0, 250}));
        QTRY_COMPARE(left->lastColors(), scaled(72, OV_RGB{250, 0, 0}, 0.8f));
        QTRY_COMPARE(right->lastColors(), scaled(24, OV_RGB{0, 0, 250}, 0.6f));
        QCOMPARE(left->lastCount(), uint16_t(72));
        QCOMPARE(right->lastCount(), uint16_t(24));
        QCOMPARE(left->decodeErrors() + right->decodeErrors(), 0);
    }

    void failedDeviceComesBackWithItsSettings()
    {
        qputenv("ORVANTA_EXTRA_PORTS", QFile::encodeName(linkPath("ttyBack")));
        Device dev = device(QStringLiteral("ttyBack"), "OV5512,BAC\r\n");
        QVERIFY(dev);
        DeviceManager manager;
        QSignalSpy added(&manager, &DeviceManager::newController);
        QSignalSpy failed(&manager, &DeviceManager::controllerFailed);
        QTRY_COMPARE_WITH_TIMEOUT(added.count(), 1, HandshakeMs);
        const QString id = added.at(0).at(0).toString();
        {
            const AbsRGBControllerPtr controller = manager.controller(id);
            controller->setBrightness(0.42f);
            controller->setKindName(QStringLiteral("Shelf"));
            controller->setLayout(30, {10, 20});
        }
        QPointer<AbsRGBController> watched = manager.controller(id).data();
        dev->close();
        QTRY_COMPARE_WITH_TIMEOUT(failed.count(), 1, HandshakeMs);
        QCOMPARE(failed.at(0).at(0).toString(), id);
        QVERIFY(log->contains("Device has failed: " + id + " , Reason：", QtInfoMsg));
        QVERIFY(manager.controllerNames().isEmpty());
        QTRY_VERIFY(watched.isNull()); // released: the port is free for the device's return

        QVERIFY(dev->open(linkPath("ttyBack")));
        QTRY_COMPARE_WITH_TIMEOUT(added.count(), 2, HandshakeMs);
        QCOMPARE(added.at(1).at(0).toString(), id);
        const ControlOptions& options = manager.controlOptions(id);
        QCOMPARE(options.brightness, 0.42f);
        QCOMPARE(options.kindName, QStringLiteral("Shelf"));
        QCOMPARE(options.nbLeds, 30u);
        QCOMPARE(options.lines, (QVector<uint32_t>{10, 20}));
        manager.controller(id)->update(QVector<OV_RGB>(30, OV_RGB{100, 200, 50}));
        QTRY_COMPARE(dev->lastColors(), scaled(30, OV_RGB{100, 200, 50}, 0.42f));
    }

    void managerRefusesEmptyIdAndRemovesOnRequest()
    {
        Device blank = device(QStringLiteral("ttyBlank"), "OV");
        Device named = device(QStringLiteral("ttyNamed"), "OV5512,4E\r\n");
        QVERIFY(blank && named);
        qputenv("ORVANTA_EXTRA_PORTS",
                QFile::encodeName(linkPath("ttyBlank") + QLatin1Char(':') + linkPath("ttyNamed")));
        DeviceManager manager;
        QSignalSpy added(&manager, &DeviceManager::newController);
        QTRY_COMPARE_WITH_TIMEOUT(added.count(), 1, HandshakeMs);
        QTRY_VERIFY_WITH_TIMEOUT(
            log->contains("[DeviceManager]: Cannot add a controller with an invalid ID", QtWarningMsg),
            HandshakeMs);
        QCOMPARE(log->count("[DeviceManager]: The controller already exists"), 0);
        QCOMPARE(manager.controllerNames(), QStringList{"OV5512:3445"});

        QPointer<AbsRGBController> watched = manager.controller("OV5512:3445").data();
        manager.removeController(QStringLiteral("OV5512:3445"));
        QVERIFY(log->contains("[DeviceManager] OV5512:3445 has been removed from @@@OVControllerEnumerator",
                              QtInfoMsg));
        QVERIFY(log->contains("[DeviceManager] OV5512:3445 has been removed", QtInfoMsg));
        QVERIFY(manager.controllerNames().isEmpty());
        QTRY_VERIFY(watched.isNull());
    }
};

QTEST_GUILESS_MAIN(TestDiscovery)
#include "tst_discovery.moc"
