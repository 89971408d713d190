#include "LogCapture.h"
#include "TestFiles.h"
#include "VirtualLedDevice.h"
#include "devices/DeviceManager.h"
#include "devices/HandshakeReply.h"
#include "devices/IDeviceEnumerator.h"
#include "devices/OVController.h"
#include "devices/OVControllerEnumerator.h"
#include "devices/OVSerialPort.h"
#include "devices/PortAccess.h"
#include "service/config/ConfigurationManager.h"

#include <QPointer>
#include <QSerialPort>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using Device = std::unique_ptr<VirtualLedDevice>;
using Mode = VirtualLedDevice::ReplyMode;
using Verdict = HandshakeReply::Verdict;

const int kHandshakeMs = 50000; // ten times the reply timeout of 5 s
const QString kIgnored = "[OVSerialPort]: Ignored ";
const QString kIgnoredLayout = "is ignored, its strips count as not configured: ";

} // namespace

Q_DECLARE_METATYPE(HandshakeReply::Verdict)

class TestDiscovery : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<LogCapture> log;
    std::unique_ptr<QTemporaryDir> links;
    std::unique_ptr<OVControllerEnumerator> enumerator;
    std::unique_ptr<QSignalSpy> found;
    std::unique_ptr<DeviceManager> manager; // the one of the plug-in cases

    QString pluginPath(const QString& file) const
    {
        return QCoreApplication::applicationDirPath() + "/deviceEnumerators/" + file;
    }
    // Asks the test plug-in to announce a device "MODEL:SERIAL", or a null one for "null".
    void announce(const QString& model, const QString& serial)
    {
        IDeviceEnumerator* plugin =
            manager->enumeratorEntries().value(pluginPath("libtest_enumerator_plugin.so")).second;
        QVERIFY(plugin);
        QVERIFY(QMetaObject::invokeMethod(plugin, "announce", Q_ARG(QString, model), Q_ARG(QString, serial)));
    }

    QString link(const QString& name) const { return links->filePath(name); }

    Device device(const QString& name, const QByteArray& reply, Mode mode = Mode::Normal)
    {
        auto d = std::make_unique<VirtualLedDevice>();
        d->setReply(reply);
        d->setReplyMode(mode);
        return d->open(link(name)) ? std::move(d) : nullptr;
    }

    // The start-up scan salutes this machine's own ports, and each salutation also reaches a port
    // of ours still waiting for its reply, so a case's own handshakes start once the scan is over.
    void startEnumerator()
    {
        enumerator = std::make_unique<OVControllerEnumerator>();
        found = std::make_unique<QSignalSpy>(enumerator.get(), &OVControllerEnumerator::deviceEnabled);
        QTRY_VERIFY_WITH_TIMEOUT(log->contains("[OVControllerEnumerator]: End scan devices list", QtInfoMsg),
                                 kHandshakeMs);
    }

    AbsRGBControllerPtr foundController(int index) const
    {
        return found->value(index).value(0).value<AbsRGBControllerPtr>();
    }

private slots:
    void initTestCase()
    {
        ConfigurationManager::instance()->reset();
        log = std::make_unique<LogCapture>();
    }

    void init()
    {
        qunsetenv("ORVANTA_EXTRA_PORTS");
        links = std::make_unique<QTemporaryDir>();
        log->clear();
    }

    void cleanup()
    {
        found.reset();
        enumerator.reset();
        TestFiles::flushDeletes();
        links.reset();
    }

    void cleanupTestCase()
    {
        manager.reset();
        TestFiles::flushDeletes();
        log.reset();
    }

    // Why a port the user means did not open: the node's group, the user's groups in the database
    // and in this session, the access check's errno and whether the open was refused.
    void portDiagnosis_data()
    {
        QTest::addColumn<QStringList>("userGroups");
        QTest::addColumn<QStringList>("processGroups");
        QTest::addColumn<int>("accessError");
        QTest::addColumn<bool>("refused");
        QTest::addColumn<int>("kind");
        QTest::addColumn<QString>("remedy");
        using Kind = PortProblem::Kind;
        const QString joinGroup = "plug the device in again now the rule is installed, or run \"sudo usermod "
                                  "-aG dialout $USER\" and log in again";
        QTest::newRow("joined since log-in")
            << QStringList{"ann", "dialout"} << QStringList{"ann"} << EACCES << true << int(Kind::LogInAgain)
            << "you are in the group dialout, but this session is not yet: "
               "log out and in again";
        QTest::newRow("in no group") << QStringList{"ann"} << QStringList{"ann"} << EACCES << true
                                     << int(Kind::NoAccess) << joinGroup;
        QTest::newRow("in the group everywhere, mode 000")
            << QStringList{"ann", "dialout"} << QStringList{"ann", "dialout"} << EACCES << true
            << int(Kind::NoAccess) << joinGroup;
        QTest::newRow("access allows: held elsewhere")
            << QStringList{"ann"} << QStringList{"ann"} << 0 << true << int(Kind::InUse)
            << "another program holds the port";
        QTest::newRow("gone before the check")
            << QStringList{"ann"} << QStringList{"ann"} << ENOENT << true << int(Kind::None) << "";
        QTest::newRow("not refused: no diagnosis")
            << QStringList{"ann"} << QStringList{"ann"} << EACCES << false << int(Kind::None) << "";
    }
    void portDiagnosis()
    {
        QFETCH(QStringList, userGroups);
        QFETCH(QStringList, processGroups);
        QFETCH(int, accessError);
        QFETCH(bool, refused);
        QFETCH(int, kind);
        QFETCH(QString, remedy);
        const PortAccess::Facts facts{accessError, "dialout", userGroups, processGroups};
        const PortProblem problem = PortAccess::diagnose("/dev/ttyUSB0", facts, refused);
        QCOMPARE(int(problem.kind), kind);
        QCOMPARE(problem.remedy(), remedy);
        QCOMPARE(problem.command().isEmpty(), kind != int(PortProblem::Kind::NoAccess));
    }

    // The reply as the bytes so far give it: up to its line end, within 64 bytes.
    void handshakeReply_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<bool>("final"); // the device has had its time
        QTest::addColumn<Verdict>("verdict");
        QTest::addColumn<int>("length");
        QTest::addColumn<QString>("model");
        QTest::addColumn<QString>("id");
        const auto row = [](const char* name, const QByteArray& bytes, bool final, Verdict verdict,
                            int length, const char* model, const char* id) {
            QTest::newRow(name) << bytes << final << verdict << length << QString(model) << QString(id);
        };
        row("model and serial", "OV5512,ABCD\r\n", false, Verdict::Device, 13, "OV5512", "OV5512:41424344");
        row("lower-case magic", "ov5512,AB\r\n", false, Verdict::Device, 11, "ov5512", "OV5512:4142");
        row("no serial", "OV5512\r\n", false, Verdict::Device, 8, "OV5512", "OV5512");
        row("a third field", "OV5512,AB,CD\r\n", false, Verdict::Device, 14, "OV5512", "OV5512:4142");
        row("more after the line end", "OV5512,C1\r\nOV5512,C2\r\n", false, Verdict::Device, 11, "OV5512",
            "OV5512:4331");
        row("63 characters and LF", "OV" + QByteArray(61, 'x') + "\n", false, Verdict::Device, 64,
            qPrintable("OV" + QString(60, 'X')), qPrintable("OV" + QString(60, 'X')));
        row("64 without a line end", "OV" + QByteArray(62, 'x'), false, Verdict::TooLong, 0, "", "");
        row("line end at byte 65", "OV" + QByteArray(62, 'x') + "\n", false, Verdict::TooLong, 0, "", "");
        row("half a reply: wait", "OV5512,AB", false, Verdict::Incomplete, 0, "", "");
        row("half a reply at the time-out", "OV5512", true, Verdict::Device, 6, "OV55", "OV55");
        row("magic only at the time-out", "OV", true, Verdict::Device, 2, "", "");
        row("first letter at the time-out", "O", true, Verdict::NotADevice, 0, "", "");
        row("no magic", "XY5512,ABCD\r\n", false, Verdict::NotADevice, 0, "", "");
        row("wrong second letter at once", "Ox", false, Verdict::NotADevice, 0, "", "");
    }

    void handshakeReply()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(bool, final);
        QFETCH(Verdict, verdict);
        const HandshakeReply reply = HandshakeReply::parse(bytes, final);
        QCOMPARE(reply.verdict, verdict);
        QTEST(reply.length, "length");
        QTEST(reply.model, "model");
        QTEST(reply.id, "id");
    }

    // The handshake on a real port: the bytes as the device sends them, whole or in two writes.
    void handshake_data()
    {
        QTest::addColumn<QByteArray>("reply");
        QTest::addColumn<int>("mode");
        QTest::addColumn<QString>("id"); // null: refused
        QTest::addColumn<QString>("serial");
        QTest::addColumn<QString>("logLine"); // said exactly once
        const auto row = [](const char* name, const QByteArray& reply, Mode mode, const QString& id,
                            const char* serial, const char* logLine) {
            QTest::newRow(name) << reply << int(mode) << id << QString(serial) << QString(logLine);
        };
        row("model and serial", "OV5512,ABCD\r\n", Mode::Normal, "OV5512:41424344", "41424344",
            "id: \"OV5512:41424344\"");
        row("lower-case magic", "ov5512,AB\r\n", Mode::Normal, "OV5512:4142", "4142",
            "raw string tail: \"ov5512,AB\"");
        row("in two writes 1.5 s apart", "OV5512,ABCD\r\n", Mode::Split, "OV5512:41424344", "41424344",
            "returned \"OV5512,ABCD\\r\\n\"");
        row("magic only, at the time-out", "OV", Mode::Normal, "", "", "id: \"\"");
        row("no magic", "XY5512,ABCD\r\n", Mode::Normal, QString(), "", "Failed to verify deviece <");
        row("1 MiB without a line end", "OV" + QByteArray(1 << 20, 'A'), Mode::Normal, QString(), "",
            "Refused a reply of more than 64 bytes without a line end");
    }

    void handshake()
    {
        QFETCH(QByteArray, reply);
        QFETCH(int, mode);
        QFETCH(QString, id);
        QFETCH(QString, serial);
        QFETCH(QString, logLine);
        Device dev = device("ttyHand", reply, Mode(mode));
        QVERIFY(dev);
        dev->setSplitDelayMs(1500);
        startEnumerator();
        enumerator->verifyDevice(dev->linkPath());
        QTRY_VERIFY_WITH_TIMEOUT(log->contains(logLine), kHandshakeMs);
        QTRY_COMPARE(found->count(), id.isNull() ? 0 : 1);
        QCOMPARE(log->count(logLine), 1);
        QCOMPARE(enumerator->controllers().size(), found->count());
        if (id.isNull()) {
            return;
        }
        const ControlOptions& options = foundController(0)->controlOptions();
        QCOMPARE(options.id, id);
        QCOMPARE(options.model.toUpper(), id.section(':', 0, 0));
        QCOMPARE(options.serial, serial);
        QCOMPARE(options.portName, dev->linkPath());
        QVERIFY(!options.icon.isNull()); // the model's picture or the compiled-in one
    }

    // The model's defaults file in the working folder; whatever is wrong with it, the device still
    // comes up, with what the file gave.
    void modelDefaults_data()
    {
        QTest::addColumn<QByteArray>("file"); // null: no file
        QTest::addColumn<uint32_t>("nbLeds");
        QTest::addColumn<QVector<uint32_t>>("lines");
        QTest::addColumn<QString>("logLine"); // the one complaint; empty: none
        QTest::newRow("missing") << QByteArray() << 0u << QVector<uint32_t>()
                                 << "Failed to open \"controler_config";
        QTest::newRow("not JSON") << QByteArray("{\"OV5512\": ") << 0u << QVector<uint32_t>()
                                  << "Failed to parse json";
        QTest::newRow("model not listed") << QByteArray(R"({"OV2408": {"nbLeds": 24, "lines": [24]}})") << 0u
                                          << QVector<uint32_t>() << "Incorrect configuration";
        QTest::newRow("lines short") << QByteArray(R"({"OV5512": {"nbLeds": 72, "lines": [18, 36]}})") << 72u
                                     << QVector<uint32_t>{18, 36} << "Incorrect configuration";
        QTest::newRow("good") << QByteArray(R"({"OV5512": {"nbLeds": 72, "lines": [18, 36, 18]}})") << 72u
                              << QVector<uint32_t>{18, 36, 18} << QString();
        QTest::newRow("2000000000 LEDs")
            << QByteArray(R"({"OV5512": {"nbLeds": 2000000000, "lines": [2000000000]}})") << 0u
            << QVector<uint32_t>()
            << kIgnoredLayout + "\"nbLeds\" is 2000000000, not a count from 0 to 65535";
        QTest::newRow("65536 LEDs") << QByteArray(R"({"OV5512": {"nbLeds": 65536, "lines": [65536]}})") << 0u
                                    << QVector<uint32_t>()
                                    << kIgnoredLayout + "\"nbLeds\" is 65536, not a count";
        QTest::newRow("a line of -5")
            << QByteArray(R"({"OV5512": {"nbLeds": 5, "lines": [10, -5]}})") << 0u << QVector<uint32_t>()
            << kIgnoredLayout + "line 2 is -5, not a count from 0 to 65535";
    }

    void modelDefaults()
    {
        QFETCH(QByteArray, file);
        QFETCH(uint32_t, nbLeds);
        QFETCH(QVector<uint32_t>, lines);
        QFETCH(QString, logLine);
        struct Restore
        {
            const QString path = QDir::currentPath();
            ~Restore() { QDir::setCurrent(path); }
        } restore;
        QVERIFY(QDir::setCurrent(links->path()));
        if (!file.isNull()) {
            QVERIFY(TestFiles::write(link("controler_config/OVController.json"), file));
        }
        // A serial of its own: the settings stored for one row's device would beat the next file.
        Device dev =
            device("ttyDefaults", "OV5512," + QByteArray(QTest::currentDataTag()).replace(' ', "") + "\r\n");
        QVERIFY(dev);
        startEnumerator();
        enumerator->verifyDevice(dev->linkPath());
        QTRY_COMPARE_WITH_TIMEOUT(found->count(), 1, kHandshakeMs);
        const ControlOptions& options = foundController(0)->controlOptions();
        QCOMPARE(options.nbLeds, nbLeds);
        QCOMPARE(options.lines, lines);
        const QStringList complaints{"Failed to open \"controler_config", "Failed to parse json",
                                     "Incorrect configuration", kIgnoredLayout};
        for (const QString& complaint : complaints) {
            QCOMPARE(log->count(complaint), int(!logLine.isEmpty() && logLine.startsWith(complaint)));
        }
        QVERIFY(logLine.isEmpty() || log->count(logLine) == 1);
    }

    // Bytes after the reply build no second controller: the port's own thread reads and drops
    // them, with one line a minute, while frames go on. The port's mean write time comes along.
    void chatterAfterTheReply()
    {
        Device dev = device("ttyLate", "OV5512,C1\r\n");
        QVERIFY(dev);
        startEnumerator();
        enumerator->verifyDevice(dev->linkPath());
        QTRY_COMPARE_WITH_TIMEOUT(found->count(), 1, kHandshakeMs);
        const AbsRGBControllerPtr controller = foundController(0);
        qint64 ignored = 0;
        QObject context;
        connect(qSharedPointerCast<OVController>(controller)->serialPort(), &OVSerialPort::inputIgnored,
                &context, [&ignored](qint64 bytes) { ignored += bytes; });
        const QByteArrayList late{"OV5512,C1\r\n", "OV5512,C2\r\n", "noise after the reply"};
        for (const QByteArray& bytes : late) {
            dev->sendRaw(bytes);
            QTRY_VERIFY(log->contains(kIgnored)); // the first burst is told at once
        }
        QTRY_COMPARE(ignored, qint64(late.join().size()));
        QCOMPARE(log->count(kIgnored), 1);
        QCOMPARE(found->count(), 1);
        controller->setLayout(4, {4});
        controller->update(QVector<OV_RGB>(4, OV_RGB{200, 100, 50}));
        QTRY_COMPARE(dev->lastCount(), uint16_t(4));

        // Past 5 s of writes: the interval between writes, here the 800 ms refresh.
        const QString mean = "[[loop]][OVSerialPort]: Mean write time: ";
        QTRY_VERIFY_WITH_TIMEOUT(log->contains(mean, QtInfoMsg), kHandshakeMs);
        const QString entry = log->lines().filter(mean).first();
        const double ms = entry.mid(entry.indexOf(mean) + mean.size()).chopped(2).toDouble();
        qInfo() << "mean write time through discovery:" << ms << "ms";
        QVERIFY2(ms > 0 && ms < 60000, qPrintable(entry)); // an invalid timer gives years
    }

    // ORVANTA_EXTRA_PORTS naming one pty by a link and by its own path, beside a FIFO and a file
    // that hold bytes: the pty is opened once, also when it is announced again while it drives its
    // controller; the FIFO and the file are closed unread.
    void extraPortsOpenOnce()
    {
        Device dev = device("ttyOnce", "OV5512,0E\r\n");
        QVERIFY(dev);
        const QString fifo = link("fifo");
        const QString file = link("file");
        QCOMPARE(::mkfifo(QFile::encodeName(fifo).constData(), 0600), 0);
        // Opened both ways, so that opening never waits for a peer, and read without waiting.
        const int fifoEnd = ::open(QFile::encodeName(fifo).constData(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
        QVERIFY(fifoEnd >= 0);
        QCOMPARE(::write(fifoEnd, "OV5512,F1\r\n", 11), ssize_t(11));
        QVERIFY(TestFiles::write(file, "OV5512,F2\r\n"));
        qputenv("ORVANTA_EXTRA_PORTS",
                QFile::encodeName(QStringList{dev->linkPath(), dev->slavePath(), fifo, file}.join(':')));
        const QString again = "[OVControllerEnumerator]: The port is open here already, not opened again:";
        startEnumerator();
        QTRY_COMPARE_WITH_TIMEOUT(found->count(), 1, kHandshakeMs);
        QCOMPARE(log->count(again), 1);
        emit enumerator->deviceArrival(dev->linkPath());
        QTRY_COMPARE_WITH_TIMEOUT(log->count(again), 2, kHandshakeMs);
        QCOMPARE(dev->salutations(), 1);
        QCOMPARE(found->count(), 1);
        char unread[64] = {};
        QCOMPARE(::read(fifoEnd, unread, sizeof unread), ssize_t(11));
        ::close(fifoEnd);
        QCOMPARE(TestFiles::read(file), QByteArray("OV5512,F2\r\n"));
    }

    void refusedHandshakeLeavesTheEnumeratorReady_data()
    {
        QTest::addColumn<int>("mode");
        QTest::addColumn<int>("unplug");      // 0 stays, 1 goes, 2 goes and is back at its name at once
        QTest::addColumn<QString>("logLine"); // %1: the port
        QTest::newRow("no reply: the 5 s timeout")
            << int(Mode::Silent) << 0 << "device response timeout： %1";
        QTest::newRow("64 KiB of garbage") << int(Mode::Garbage) << 0 << "Failed to verify deviece <%1>";
        const QString failed = "[OVControllerEnumerator]: The port failed during its handshake: %1";
        QTest::newRow("port vanishes during the handshake") << int(Mode::Silent) << 1 << failed;
        QTest::newRow("port back at its name during the handshake") << int(Mode::Silent) << 2 << failed;
    }

    void refusedHandshakeLeavesTheEnumeratorReady()
    {
        QFETCH(int, mode);
        QFETCH(int, unplug);
        QFETCH(QString, logLine);
        Device dev = device("ttyRefused", "OV5512,5110\r\n", Mode(mode));
        QVERIFY(dev);
        dev->setGarbageBytes(64 * 1024);
        const QString path = dev->linkPath();
        startEnumerator();
        enumerator->verifyDevice(path);
        QTRY_COMPARE(dev->salutations(), 1);
        if (unplug > 0) {
            dev.reset();
        }
        QTRY_VERIFY_WITH_TIMEOUT(log->contains(logLine.arg(path), QtInfoMsg), kHandshakeMs);
        TestFiles::flushDeletes();
        QCOMPARE(found->count(), 0);

        // Ready for more; a silent port was let go, so the same device is found once it speaks.
        if (mode != int(Mode::Silent) || unplug > 0) {
            dev = device(unplug == 2 ? "ttyRefused" : "ttyNext", "OV5512,5110\r\n");
        }
        QVERIFY(dev);
        dev->setReplyMode(Mode::Normal);
        enumerator->verifyDevice(dev->linkPath());
        QTRY_COMPARE_WITH_TIMEOUT(found->count(), 1, kHandshakeMs);
        QCOMPARE(foundController(0)->controlOptions().id, QString("OV5512:35313130"));
    }

    void sameIdOnTwoPorts()
    {
        Device first = device("ttyTwinA", "OV5512,7717\r\n");
        Device second = device("ttyTwinB", "OV5512,7717\r\n");
        QVERIFY(first && second);
        startEnumerator();
        enumerator->verifyDevice(first->linkPath());
        QTRY_COMPARE_WITH_TIMEOUT(found->count(), 1, kHandshakeMs);
        enumerator->verifyDevice(second->linkPath());
        QTRY_VERIFY_WITH_TIMEOUT(
            log->contains("[OVControllerEnumerator]: The device already exists OV5512:37373137",
                          QtWarningMsg),
            kHandshakeMs);
        QCOMPARE(found->count(), 1);
        QCOMPARE(foundController(0)->controlOptions().portName, first->linkPath());
        // The second port stays open: nobody else can take it.
        TestFiles::flushDeletes();
        QVERIFY(!QSerialPort(second->linkPath()).open(QIODevice::ReadWrite));
    }

    void arrivalsWithinSettleDelayGiveOneAttempt()
    {
        Device dev = device("ttyArrive", "OV5512,AA01\r\n");
        QVERIFY(dev);
        startEnumerator();
        const QString attempt = "[OVControllerEnumerator]: Start verifying device: " + dev->linkPath();
        QElapsedTimer clock;
        clock.start();
        emit enumerator->deviceArrival(dev->linkPath());
        emit enumerator->deviceArrival(dev->linkPath());
        QTRY_COMPARE_WITH_TIMEOUT(found->count(), 1, kHandshakeMs);
        qInfo() << "found" << clock.elapsed() << "ms after the notices, which wait 500 ms to settle";
        QCOMPARE(log->count(attempt), 1);
        // After the delay a notice is a new attempt.
        emit enumerator->deviceArrival(dev->linkPath());
        QTRY_COMPARE_WITH_TIMEOUT(log->count(attempt), 2, kHandshakeMs);
    }

    // Found at start through a glob of ORVANTA_EXTRA_PORTS (beside an empty and an absent entry);
    // the device closes: the manager drops it and the controller goes; recreated at the same
    // path, it is found again by the watch on that glob, with the settings it had.
    void failedDeviceComesBackWithItsSettings()
    {
        qputenv("ORVANTA_EXTRA_PORTS", QFile::encodeName(link("ttyBack*") + "::" + link("absent")));
        Device dev = device("ttyBack0", "OV5512,BAC\r\n");
        QVERIFY(dev);
        DeviceManager manager;
        QSignalSpy added(&manager, &DeviceManager::newController);
        QSignalSpy failed(&manager, &DeviceManager::controllerFailed);
        QTRY_COMPARE_WITH_TIMEOUT(added.count(), 1, kHandshakeMs);
        const QString id = added.at(0).at(0).toString();
        QPointer<AbsRGBController> watched = manager.controller(id).data();
        watched->setBrightness(0.42f);
        watched->setKindName("Shelf");
        watched->setLayout(30, {10, 20});
        dev->close();
        QTRY_COMPARE_WITH_TIMEOUT(failed.count(), 1, kHandshakeMs);
        QCOMPARE(failed.at(0).at(0).toString(), id);
        QVERIFY(log->contains("Device has failed: " + id + " , Reason：", QtInfoMsg));
        QVERIFY(manager.controllerNames().isEmpty());
        QTRY_VERIFY(watched.isNull()); // released: the port is free for the device's return

        QVERIFY(dev->open(link("ttyBack0")));
        QTRY_COMPARE_WITH_TIMEOUT(added.count(), 2, kHandshakeMs);
        QCOMPARE(added.at(1).at(0).toString(), id);
        const ControlOptions& options = manager.controlOptions(id);
        QCOMPARE(options.kindName, QString("Shelf"));
        QCOMPARE(options.lines, (QVector<uint32_t>{10, 20}));
        manager.controller(id)->update(QVector<OV_RGB>(30, OV_RGB{100, 200, 50}));
        // Scaled by 0.42, truncated.
        QTRY_COMPARE(dev->lastColors(), QVector<VirtualLedDevice::Rgb>(30, {42, 84, 21}));
    }

    // What lies in "deviceEnumerators": a real enumerator plug-in is taken; a Qt plug-in of
    // another kind and a file that is no library are logged and skipped; only "*.so" files count.
    void enumeratorPlugins()
    {
        QVERIFY(TestFiles::write(pluginPath("garbage.so"), QByteArray(4096, '\x7f')));
        QFile::copy(pluginPath("libtest_enumerator_plugin.so"), pluginPath("copy.so.bak"));
        manager = std::make_unique<DeviceManager>();
        QVERIFY(log->contains("成功从文件<libtest_enumerator_plugin.so>中加载了枚举器", QtInfoMsg));
        QVERIFY(log->contains("载入dll：" + pluginPath("garbage.so") + "失败。", QtWarningMsg));
        QVERIFY(log->contains("无效的外部库文件: " + pluginPath("libtest_other_plugin.so"), QtWarningMsg));
        QVERIFY(!log->contains("copy.so.bak"));
        const auto entries = manager->enumeratorEntries();
        QCOMPARE(entries.size(), 2);
        QCOMPARE(entries.value("@@@OVControllerEnumerator").first, nullptr);
        QVERIFY(entries.value(pluginPath("libtest_enumerator_plugin.so")).first);

        QSignalSpy added(manager.get(), &DeviceManager::newController);
        announce("PLUG01", "01");
        QTRY_COMPARE(added.count(), 1);
        QCOMPARE(added.at(0).at(0).toString(), QString("PLUG01:01"));
        QCOMPARE(manager->controlOptions("PLUG01:01").model, QString("PLUG01"));
        QVERIFY(log->contains("A new controller has been added to manager： PLUG01:01", QtInfoMsg));
    }

    // A null pointer, a known id, an empty id: each refused with its own line; the known id is
    // checked before the empty one.
    void managerRefusesBadControllers()
    {
        QVERIFY(manager);
        QSignalSpy added(manager.get(), &DeviceManager::newController);
        announce("null", "");
        QTRY_VERIFY(log->contains("[DeviceManager]: Cannot add an empty controller", QtWarningMsg));
        announce("PLUG02", "02");
        announce("PLUG02", "02");
        QTRY_VERIFY(log->contains("[DeviceManager]: The controller already exists PLUG02:02", QtWarningMsg));
        announce("", "");
        QTRY_VERIFY(
            log->contains("[DeviceManager]: Cannot add a controller with an invalid ID", QtWarningMsg));
        QCOMPARE(log->count("[DeviceManager]: The controller already exists"), 1);
        QCOMPARE(added.count(), 1);
    }

    void managerDropsAFailedControllerOnce()
    {
        QVERIFY(manager);
        QSignalSpy failed(manager.get(), &DeviceManager::controllerFailed);
        announce("PLUG03", "03");
        QTRY_VERIFY(manager->controller("PLUG03:03"));
        AbsRGBControllerPtr held = manager->controller("PLUG03:03");
        emit held->statusChanged(0, "healthy");
        QVERIFY(manager->controller("PLUG03:03"));
        emit held->statusChanged(2, "test failure");
        emit held->statusChanged(3, "again");
        QCOMPARE(failed.count(), 1);
        QCOMPARE(failed.at(0).at(0).toString(), QString("PLUG03:03"));
        QVERIFY(log->contains("Device has failed: PLUG03:03 , Reason： test failure", QtInfoMsg));
        // The manager let go: the last reference here ends the controller.
        QPointer<AbsRGBController> watched = held.data();
        held.clear();
        QTRY_VERIFY(watched.isNull());
    }

    // The enumerators are asked in turn until one answers; the built-in one always does.
    void removalAsksEnumeratorsUntilOneAnswers()
    {
        QVERIFY(manager);
        announce("PLUG06", "06");
        QTRY_VERIFY(manager->controller("PLUG06:06"));
        QPointer<AbsRGBController> watched = manager->controller("PLUG06:06").data();
        manager->removeController("PLUG06:06");
        QVERIFY(!manager->controller("PLUG06:06"));
        QCOMPARE(log->count("[DeviceManager] PLUG06:06 has been removed from "), 1);
        QCOMPARE(log->count("[DeviceManager] PLUG06:06 has been removed", QtInfoMsg), 2);
        QTRY_VERIFY(watched.isNull());
    }
};

QTEST_GUILESS_MAIN(TestDiscovery)
#include "tst_discovery.moc"
