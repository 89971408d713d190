#include "SingleInstance.h"
#include "StartupSteps.h"
#include "TestFiles.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLockFile>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

#include <signal.h>

namespace {

constexpr int kStartTimeoutMs = 60000;
const QString kListening = QStringLiteral("[SingleInstance] Listening for a second instance");
const QString kShowRequest =
    QStringLiteral("[SingleInstance] A second instance asked to show the main window");
const QString kWipe = QStringLiteral("The program will clean up all configuration files");

using TestFiles::read;

void writeBytes(const QString& path, const QByteArray& bytes)
{
    QVERIFY(TestFiles::write(path, bytes));
}

// A private home for one run of the program: its configuration, logs, lock and socket.
class Sandbox
{
public:
    Sandbox()
        // Short, because the local socket's path must fit in sun_path.
        : root(QDir::tempPath() + QStringLiteral("/s-XXXXXX"))
    {
        QDir().mkpath(root.filePath("tmp"));
        QDir().mkpath(root.filePath("runtime"));
        QFile::setPermissions(root.filePath("runtime"),
                              QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
    }

    QString configDir() const { return root.filePath("config/orvanta"); }
    QString logsDir() const { return root.filePath("data/orvanta/logs"); }
    QString lockFile() const { return root.filePath("runtime/OrvantaSingleApp.lock"); }
    QString tmpDir() const { return root.filePath("tmp"); }
    QString path() const { return root.path(); }

    QStringList logFiles() const { return QDir(logsDir()).entryList({"*.log"}, QDir::Files, QDir::Name); }

    QString mainLogText() const
    {
        QString text;
        for (const QString& name : logFiles()) {
            if (!name.startsWith("loop_")) {
                text += QString::fromUtf8(read(QDir(logsDir()).filePath(name)));
            }
        }
        return text;
    }

    void prepare(QProcess& process) const
    {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        if (!extraPorts.isEmpty()) {
            env.insert("ORVANTA_EXTRA_PORTS", extraPorts);
        }
        env.insert("HOME", root.path());
        env.insert("XDG_CONFIG_HOME", root.filePath("config"));
        env.insert("XDG_DATA_HOME", root.filePath("data"));
        env.insert("XDG_RUNTIME_DIR", root.filePath("runtime"));
        env.insert("TMPDIR", root.filePath("tmp"));
        env.insert("QT_QPA_PLATFORM", "offscreen");
        if (noDisplay) {
            // The default platform, with no X server or compositor to reach.
            for (const char* name : {"QT_QPA_PLATFORM", "DISPLAY", "WAYLAND_DISPLAY"}) {
                env.remove(name);
            }
        }
        if (!sharedTmp.isEmpty()) {
            env.insert("TMPDIR", sharedTmp);
        }
        // Full stacks, so that the offscreen platform's own leak is recognised by its library.
        env.insert("LSAN_OPTIONS",
                   QStringLiteral("suppressions=%1:fast_unwind_on_malloc=0").arg(ORVANTA_LSAN_SUPPRESSIONS));
        process.setProcessEnvironment(env);
        process.setWorkingDirectory(root.path());
        process.setProgram(QStringLiteral(ORVANTA_BINARY_PATH));
    }

    bool isValid() const { return root.isValid(); }

    QString extraPorts;
    bool noDisplay = false;
    QString sharedTmp; // another session's temporary folder, as two users on one machine share it

private:
    QTemporaryDir root;
};

} // namespace

class TestStartup : public QObject
{
    Q_OBJECT

private slots:
    void endsBeforeTheLock_data()
    {
        QTest::addColumn<QStringList>("args");
        QTest::addColumn<bool>("noDisplay");
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QStringList>("expectedOutput");

        QTest::newRow("help, no display")
            << QStringList{"--help"} << true << 0
            << QStringList{"--winrt_capture_first", "Enable crash test", "--auto_startup"};
        QTest::newRow("version with flags, no display")
            << QStringList{"--auto_startup", "--version"} << true << 0 << QStringList{"0.2.0.230805"};
        QTest::newRow("start, no display")
            << QStringList{} << true << 1
            << QStringList{"orvanta: no display is reachable (DISPLAY is not set)"};
        QTest::newRow("unknown option")
            << QStringList{"--no_such_option"} << false << 1 << QStringList{"no_such_option"};
    }

    void endsBeforeTheLock()
    {
        QFETCH(QStringList, args);
        QFETCH(bool, noDisplay);
        QFETCH(int, exitCode);
        QFETCH(QStringList, expectedOutput);

        Sandbox box;
        QVERIFY(box.isValid());
        box.noDisplay = noDisplay;
        QProcess process;
        box.prepare(process);
        process.setArguments(args);
        process.start();
        QVERIFY(process.waitForFinished(kStartTimeoutMs));
        QCOMPARE(process.exitStatus(), QProcess::NormalExit);
        const QString output =
            QString::fromUtf8(process.readAllStandardOutput() + process.readAllStandardError());
        QVERIFY2(process.exitCode() == exitCode, qPrintable(output));
        for (const QString& text : expectedOutput) {
            QVERIFY2(output.contains(text), qPrintable(text));
        }
        QVERIFY(!QFile::exists(box.lockFile()));
        for (const QString& dir : {box.tmpDir(), QFileInfo(box.lockFile()).path()}) {
            QVERIFY(QDir(dir).entryList({"OrvantaSingleApp*"}, QDir::AllEntries | QDir::System).isEmpty());
        }
        QVERIFY(box.logFiles().isEmpty());
        QVERIFY(!QFileInfo::exists(box.configDir() + "/global.json"));
    }

    void firstInstanceLogsAndEndsOnSignal_data()
    {
        QTest::addColumn<int>("signalNumber");
        QTest::newRow("SIGTERM") << int(SIGTERM);
        QTest::newRow("SIGHUP") << int(SIGHUP);
    }

    void firstInstanceLogsAndEndsOnSignal()
    {
        QFETCH(int, signalNumber);

        Sandbox box;
        QProcess process;
        startFirst(box, process, {"--advanced"});
        QVERIFY(!QFileInfo::exists(box.configDir() + "/global.json"));

        const QString binary = QStringLiteral(ORVANTA_BINARY_PATH);
        const QString log = box.mainLogText();
        const QString time = R"(\[\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\.\d{3}\])";
        const QString info = time + QRegularExpression::escape("@main  [Info]: ");
        const QStringList expected{
            info + QRegularExpression::escape("Startup parameters: \r\n \t(" + binary + ", --advanced)") +
                "\r\n",
            info + QRegularExpression::escape("Runtime directory: " + QFileInfo(binary).absolutePath()) +
                "\r\n",
            info + QRegularExpression::escape("Qt env base path:" + QDir(box.path()).absolutePath()) + "\r\n",
            info + QRegularExpression::escape("Build info : \r\n \t Git branch : ") + ".+\r\n" +
                QRegularExpression::escape("\t Git commit : ") + ".+\r\n" +
                QRegularExpression::escape("\t Build date : ") + R"([A-Z][a-z]{2} +\d{1,2} \d{4})" + "\r\n" +
                QRegularExpression::escape("\t App version : 0.2.0.230805") + "\r\n",
        };
        int from = 0;
        for (const QString& pattern : expected) {
            const QRegularExpressionMatch match = QRegularExpression(pattern).match(log, from);
            QVERIFY2(match.hasMatch(), qPrintable(pattern + "\n--- in ---\n" + log));
            QVERIFY(match.capturedStart() >= from); // in this order
            from = match.capturedEnd();
        }
        QVERIFY(!log.contains(kWipe));
        // Startup lines reach standard output too.
        QByteArray out;
        QTRY_VERIFY2_WITH_TIMEOUT(
            (out += process.readAllStandardOutput()).contains("App version : 0.2.0.230805"), out.constData(),
            kStartTimeoutMs);

        stop(process, signalNumber);
        QVERIFY(box.mainLogText().contains(
            QStringLiteral("[ShutdownSignals] Received signal %1 - quitting").arg(signalNumber)));
        // The normal exit ran and released the lock.
        QVERIFY(!QFile::exists(box.lockFile()));
    }

    void secondInstanceAsksTheFirst()
    {
        Sandbox box;
        QProcess first;
        startFirst(box, first, {"--auto_startup"});
        const QStringList logsBefore = box.logFiles();

        for (int round = 1; round <= 2; ++round) {
            QProcess second;
            box.prepare(second);
            second.setArguments({"--auto_startup"});
            second.start();
            QVERIFY(second.waitForFinished(kStartTimeoutMs));
            QCOMPARE(second.exitStatus(), QProcess::NormalExit);
            QVERIFY2(second.exitCode() == 0, second.readAllStandardError().right(3000).constData());
            QVERIFY(second.readAllStandardOutput().isEmpty()); // nothing logged in a second instance
            QTRY_COMPARE_WITH_TIMEOUT(box.mainLogText().count(kShowRequest), round, kStartTimeoutMs);
        }
        QCOMPARE(box.logFiles(), logsBefore);
        QCOMPARE(first.state(), QProcess::Running);
        stop(first);
    }

    // Two users' sessions on one machine share the temporary folder, not the runtime folder.
    void twoUsersSideBySide()
    {
        Sandbox first;
        Sandbox second;
        second.sharedTmp = first.tmpDir();
        QProcess one;
        QProcess two;
        startFirst(first, one);
        startFirst(second, two);
        QCOMPARE(one.state(), QProcess::Running);
        QCOMPARE(two.state(), QProcess::Running);
        stop(two);
        stop(one);
        // Without a runtime folder the names carry the user id.
        QVERIFY(SingleInstance::lockFilePathFor(QString(), 1000) !=
                SingleInstance::lockFilePathFor(QString(), 1001));
        QVERIFY(SingleInstance::serverName(SingleInstance::lockFilePathFor(QString(), 1000)) !=
                SingleInstance::serverName(SingleInstance::lockFilePathFor(QString(), 1001)));
    }

    void heldLockWithoutListenerEndsQuietly()
    {
        Sandbox box;
        QLockFile lock(box.lockFile());
        QVERIFY(lock.tryLock(0));

        QProcess process;
        box.prepare(process);
        process.start();
        QVERIFY(process.waitForFinished(kStartTimeoutMs));
        QCOMPARE(process.exitStatus(), QProcess::NormalExit);
        QCOMPARE(process.exitCode(), 0);
        QVERIFY(process.readAllStandardOutput().isEmpty());
        QVERIFY(box.logFiles().isEmpty());
        QVERIFY(!QFileInfo::exists(box.configDir()));
        QVERIFY(lock.isLocked());
    }

    void killedFirstInstanceIsReplaced()
    {
        Sandbox box;
        {
            QProcess crashed;
            startFirst(box, crashed);
            QCOMPARE(::kill(static_cast<pid_t>(crashed.processId()), SIGKILL), 0);
            QVERIFY(crashed.waitForFinished(kStartTimeoutMs));
        }
        // Lock file and socket are left behind by the killed run.
        QVERIFY(QFile::exists(box.lockFile()));
        for (const QString& name : box.logFiles()) {
            QFile::remove(QDir(box.logsDir()).filePath(name));
        }

        QProcess next;
        startFirst(box, next);
        QProcess second;
        box.prepare(second);
        second.start();
        QVERIFY(second.waitForFinished(kStartTimeoutMs));
        QCOMPARE(second.exitCode(), 0);
        QTRY_VERIFY_WITH_TIMEOUT(box.mainLogText().contains(kShowRequest), kStartTimeoutMs);
        stop(next);
    }

    void cleanStartupWipesOnce()
    {
        Sandbox box;
        const QString config = box.configDir();
        writeBytes(config + "/global.json", R"({"cleanStartup": true, "lastBinding": {"a": {"b": "c"}}})");
        writeBytes(config + "/app.json", R"({"language": "en"})");
        writeBytes(config + "/controllers/OV5512%3AA1.json", R"({"nbLeds": 30})");
        writeBytes(config + "/effects/com.orvanta.colorful.flowing.json", R"({"OV5512:A1": {"speed": 2}})");

        {
            QProcess process;
            startFirst(box, process);
            QVERIFY(box.mainLogText().contains("@main  [Info]: " + kWipe + "\r\n"));
            stop(process);
        }
        // The window publishes its handle there after the wipe; nothing older is left.
        QJsonObject global = TestFiles::readJson(config + "/global.json");
        QVERIFY(global.contains("mainWindowHandler"));
        global.remove("mainWindowHandler");
        QCOMPARE(global, (QJsonObject{{"cleanStartup", false}}));
        for (const char* wiped :
             {"/app.json", "/controllers/OV5512%3AA1.json", "/effects/com.orvanta.colorful.flowing.json"})
            QVERIFY2(!QFile::exists(config + wiped), wiped);

        // The request is used up: the next start keeps what was stored in between.
        writeBytes(config + "/global.json", R"({"cleanStartup": false, "keep": 1})");
        writeBytes(config + "/app.json", R"({"language": "en"})");
        {
            QProcess process;
            startFirst(box, process);
            stop(process);
        }
        QCOMPARE(box.mainLogText().count(kWipe), 1);
        global = TestFiles::readJson(config + "/global.json");
        global.remove("mainWindowHandler");
        QCOMPARE(global, (QJsonObject{{"cleanStartup", false}, {"keep", 1}}));
        QCOMPARE(TestFiles::readJson(config + "/app.json"), (QJsonObject{{"language", "en"}}));
    }

private:
    void startFirst(const Sandbox& box, QProcess& process, const QStringList& args = {})
    {
        const int runsBefore = box.mainLogText().count(kListening);
        box.prepare(process);
        process.setArguments(args);
        process.start();
        QVERIFY2(process.waitForStarted(kStartTimeoutMs), qPrintable(process.errorString()));
        QTRY_VERIFY_WITH_TIMEOUT(box.mainLogText().count(kListening) > runsBefore, kStartTimeoutMs);
        QVERIFY(QFile::exists(box.lockFile()));
    }

    void stop(QProcess& process, int signalNumber = SIGTERM)
    {
        QCOMPARE(::kill(static_cast<pid_t>(process.processId()), signalNumber), 0);
        QVERIFY(process.waitForFinished(kStartTimeoutMs));
        QCOMPARE(process.exitStatus(), QProcess::NormalExit);
        QVERIFY2(process.exitCode() == 0, process.readAllStandardError().right(3000).constData());
    }
};

QTEST_GUILESS_MAIN(TestStartup)
#include "tst_Startup.moc"
