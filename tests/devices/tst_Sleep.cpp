#include "FakeLogind.h"
#include "PrivateBus.h"
#include "Sandbox.h"
#include "TestFiles.h"
#include "VirtualLedDevice.h"

#include <QProcess>
#include <QtTest>

#include <memory>

#include <signal.h>

using Rgb = VirtualLedDevice::Rgb;

namespace {

constexpr int kLeds = 72;
// A, B and C show one colour; D, reading 1 kB/s, a flowing effect whose frames fill its terminal.
const char* const kNames[] = {"A", "B", "C", "D"};
constexpr int kSlow = 3;

} // namespace

// The program through sleep and resume, with a login manager on a private system bus and four
// strips on virtual devices: A's port replaced by another while asleep, B untouched, C unplugged,
// D slow.
class TestSleep : public QObject
{
    Q_OBJECT
private:
    Sandbox box;
    PrivateBus bus;
    std::unique_ptr<VirtualLedDevice> devices[4];
    int started[4] = {}; // the devices' salutations before the program's start
    QProcess program;

    QString link(int i) const { return box.root.filePath(QStringLiteral("tty") + kNames[i]); }
    void startProgram(const QString& systemBus = QString())
    {
        for (int i = 0; i < 4; ++i) {
            started[i] = devices[i]->salutations();
        }
        box.prepare(program, {},
                    {{"DISPLAY", {}},
                     {"DBUS_SYSTEM_BUS_ADDRESS", systemBus.isNull() ? bus.address() : systemBus},
                     {"ORVANTA_EXTRA_PORTS", box.root.filePath("tty?")}});
        program.setProcessChannelMode(QProcess::MergedChannels);
        program.start();
        QVERIFY(program.waitForStarted());
    }
    // Every strip saluted since the start.
    bool allSaluted() const
    {
        return std::all_of(std::begin(devices), std::end(devices),
                           [&](const auto& d) { return d->salutations() > started[&d - devices]; });
    }
    // What the program printed, once it ended well.
    QString stopProgram()
    {
        if (::kill(pid_t(program.processId()), SIGTERM) != 0 || !program.waitForFinished(30000)) {
            return QStringLiteral("no end at SIGTERM");
        }
        const QByteArray output = program.readAll();
        const bool clean = program.exitStatus() == QProcess::NormalExit && program.exitCode() == 0;
        return clean ? QString::fromUtf8(output) : QStringLiteral("ended badly: ") + output.right(3000);
    }
    // Every strip lit by its stored effect.
    bool allLit() const
    {
        for (const auto& device : devices) {
            const QVector<Rgb> colors = device->lastColors();
            const int leds = device == devices[kSlow] ? 600 : kLeds;
            if (colors.size() != leds || colors == QVector<Rgb>(leds)) {
                return false;
            }
        }
        return true;
    }

private slots:
    void initTestCase()
    {
        QVERIFY(box.root.isValid());
        QVERIFY2(bus.start(), qPrintable(bus.errorString()));
        for (int i = 0; i < 4; ++i) {
            // A brightness other than the model's 0.8: a device back from sleep shows its own. D's
            // 600 LEDs at 30 frames a second are 54 kB/s: its terminal stays full.
            const char* const settings =
                i == kSlow ? R"({"nbLeds": 600, "lines": [150, 300, 150], "brightness": 0.5, "enable": true,
                                 "workMode": "com.orvanta.colorful", "subMode": "com.orvanta.colorful.flowingEffect"})"
                           : R"({"nbLeds": 72, "lines": [18, 36, 18], "brightness": 0.5, "enable": true,
                                 "workMode": "com.orvanta.singleColor", "subMode": "com.orvanta.singleColor.singleColor1"})";
            QVERIFY(TestFiles::write(box.configDir() + QStringLiteral("/controllers/OV5512%3A%1.json")
                                                           .arg(QString::number(kNames[i][0], 16).toUpper()),
                                     settings));
            devices[i] = std::make_unique<VirtualLedDevice>();
            devices[i]->setReply(QByteArray("OV5512,") + kNames[i] + "\r\n");
            QVERIFY(devices[i]->open(link(i)));
        }
    }

    // With no login manager on the system bus, or no system bus at all: one line says which, the
    // strips light as ever.
    void noLoginManager_data()
    {
        QTest::addColumn<QString>("systemBus"); // null: the private bus, with no login manager on it
        QTest::addColumn<QString>("line");
        QTest::newRow("no login manager") << QString() << "[SleepWatcher]: No login manager to wait for";
        QTest::newRow("no system bus") << "unix:path=" + box.root.filePath("nothing-listens")
                                       << "[SleepWatcher]: No system bus, so the strips stay lit";
    }
    void noLoginManager()
    {
        QFETCH(QString, systemBus);
        QFETCH(QString, line);
        startProgram(systemBus);
        QTRY_VERIFY_WITH_TIMEOUT(allLit() && allSaluted(), 30000);
        const QString output = stopProgram();
        QCOMPARE(output.count(line), 1);
        QCOMPARE(output.count("[SleepWatcher]"), 1);
    }

    // One delay lock from the start. Asleep: every strip's last frame is black before the lock
    // goes, and none follows; D's backlog does not keep the lock. Awake: A, another port at its
    // path, is saluted again and shows its stored settings; B and D go on unsaluted; C, whose port
    // went, is saluted once it is back; and a new lock is held.
    void sleepAndResume()
    {
        FakeLogind logind;
        QVERIFY2(logind.start(bus.address()), qPrintable(logind.errorString()));
        startProgram();
        QTRY_VERIFY_WITH_TIMEOUT(allSaluted() && allLit() && logind.locksHeld("delay") == 1, 30000);
        devices[kSlow]->setReadRate(1000);
        QTest::qWait(2000); // its terminal fills
        QVector<Rgb> before[4];
        int saluted[4];
        for (int i = 0; i < 4; ++i) {
            before[i] = devices[i]->lastColors();
            saluted[i] = devices[i]->salutations();
        }

        qint64 waitedMs = -1;
        QVERIFY(logind.sleep(&waitedMs));
        QCoreApplication::processEvents(); // what the devices were sent before the release
        qInfo("the lock was released %lld ms after the sleep was announced", waitedMs);
        int frames[3];
        for (int i = 0; i < 3; ++i) {
            QCOMPARE(devices[i]->lastColors(), QVector<Rgb>(kLeds));
            frames[i] = devices[i]->frameCount();
        }
        QTest::qWait(1500); // longer than the controllers' refresh
        for (int i = 0; i < 3; ++i) {
            QCOMPARE(devices[i]->frameCount(), frames[i]);
        }

        // Frozen, as a suspended machine is, while the ports change.
        // A's old terminal stays open, so nothing but its path tells the program it changed.
        QCOMPARE(::kill(pid_t(program.processId()), SIGSTOP), 0);
        VirtualLedDevice replacement;
        replacement.setReply("OV5512,A\r\n");
        QVERIFY(replacement.open(link(0)));
        devices[2]->close();
        QCOMPARE(::kill(pid_t(program.processId()), SIGCONT), 0);
        QElapsedTimer clock;
        clock.start();
        logind.wake();
        QTRY_VERIFY_WITH_TIMEOUT(
            devices[1]->frameCount() > frames[1] && devices[1]->lastColors() == before[1], 10000);
        qInfo("B's first frame %lld ms after the wake", clock.elapsed());
        QTRY_VERIFY_WITH_TIMEOUT(replacement.salutations() == 1 && replacement.lastColors() == before[0],
                                 10000);
        qInfo("A, on its new port, lit again %lld ms after the wake", clock.elapsed());
        QCOMPARE(devices[1]->salutations(), saluted[1]);
        QCOMPARE(devices[kSlow]->salutations(), saluted[kSlow]); // slow, not lost
        QTRY_VERIFY_WITH_TIMEOUT(logind.locksHeld("delay") == 1, 10000);
        QCOMPARE(logind.locks().size(), 2);

        QTest::qWait(3000);
        QVERIFY(devices[2]->open(link(2)));
        clock.restart();
        QTRY_VERIFY_WITH_TIMEOUT(
            devices[2]->salutations() > saluted[2] && devices[2]->lastColors() == before[2], 10000);
        qInfo("C lit again %lld ms after its port came back", clock.elapsed());
        // Awake, a device switched off and on is a plain arrival again.
        devices[1]->close();
        QVERIFY(devices[1]->open(link(1)));
        clock.restart();
        QTRY_VERIFY_WITH_TIMEOUT(
            devices[1]->salutations() > saluted[1] && devices[1]->lastColors() == before[1], 10000);
        qInfo("B lit again %lld ms after a power cycle", clock.elapsed());
        const QString output = stopProgram();
        const QStringList said = output.split('\n').filter("[Info]: [SleepWatcher]");
        QVERIFY2(said.size() == 2 &&
                     said[0].contains(QRegularExpression(R"(3 of 4 strips dark before sleep)")) &&
                     said[1].contains("After sleep 2 strips resumed, 1 come back as arrivals"),
                 qPrintable(said.join('\n')));
    }
};

QTEST_GUILESS_MAIN(TestSleep)
#include "tst_Sleep.moc"
