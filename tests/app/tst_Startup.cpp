#include "SingleInstance.h"
#include "TestFiles.h"

#include <QDir>
#include <QJsonObject>
#include <QLockFile>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

#include <signal.h>

namespace {
constexpr int kWaitMs = 60000;
const QString kListening = QStringLiteral("[SingleInstance] Listening for a second instance");
const QString kShowRequest =
    QStringLiteral("[SingleInstance] A second instance asked to show the main window");
const QString kWipe = QStringLiteral("The program will clean up all configuration files");

// A private home for runs of the program: its configuration, logs, lock and socket.
struct Sandbox
{
    QTemporaryDir root{QDir::tempPath() + "/s-XXXXXX"}; // short: the socket's path must fit in sun_path

    Sandbox()
    {
        QDir().mkpath(root.filePath("tmp"));
        QDir().mkpath(root.filePath("runtime"));
        QFile::setPermissions(root.filePath("runtime"),
                              QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    }
    QString configDir() const { return root.filePath("config/orvanta"); }
    QString logsDir() const { return root.filePath("data/orvanta/logs"); }
    QString lockFile() const { return root.filePath("runtime/OrvantaSingleApp.lock"); }
    QStringList logFiles() const { return QDir(logsDir()).entryList({"*.log"}, QDir::Files, QDir::Name); }
    QString mainLog() const
    {
        QString text;
        for (const QString& name : logFiles().filter(QRegularExpression("^(?!loop_)"))) {
            text += QString::fromUtf8(TestFiles::read(QDir(logsDir()).filePath(name)));
        }
        return text;
    }
    void write(const QString& file, const QByteArray& json) const
    {
        QVERIFY(TestFiles::write(configDir() + '/' + file, json));
    }

    // Without a display: the default platform, with no X server or compositor to reach.
    void prepare(QProcess& process, const QStringList& args = {}, bool noDisplay = false) const
    {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("HOME", root.path());
        env.insert("XDG_CONFIG_HOME", root.filePath("config"));
        env.insert("XDG_DATA_HOME", root.filePath("data"));
        env.insert("XDG_RUNTIME_DIR", root.filePath("runtime"));
        env.insert("TMPDIR", root.filePath("tmp"));
        env.insert("QT_QPA_PLATFORM", "offscreen");
        // Full stacks, so that the offscreen platform's own leak is recognised by its library.
        env.insert("LSAN_OPTIONS", "suppressions=" ORVANTA_LSAN_SUPPRESSIONS ":fast_unwind_on_malloc=0");
        for (const char* name : {"QT_QPA_PLATFORM", "DISPLAY", "WAYLAND_DISPLAY"}) {
            if (noDisplay) {
                env.remove(name);
            }
        }
        process.setProcessEnvironment(env);
        process.setWorkingDirectory(root.path());
        process.setProgram(QStringLiteral(ORVANTA_BINARY_PATH));
        process.setArguments(args);
    }

    // Starts a first instance and waits until it listens for a second one.
    void startFirst(QProcess& process, const QStringList& args = {}) const
    {
        const int runsBefore = mainLog().count(kListening);
        if (process.program().isEmpty()) {
            prepare(process, args);
        }
        process.start();
        QVERIFY2(process.waitForStarted(kWaitMs), qPrintable(process.errorString()));
        QTRY_VERIFY_WITH_TIMEOUT(mainLog().count(kListening) > runsBefore, kWaitMs);
        QVERIFY(QFile::exists(lockFile()));
    }
};

// Runs a process that ends by itself; what it printed (on standard error too if asked).
QString finish(QProcess& process, bool errors = false)
{
    process.start();
    const bool ended = process.waitForFinished(kWaitMs) && process.exitStatus() == QProcess::NormalExit;
    const QByteArray printed =
        process.readAllStandardOutput() + (errors ? process.readAllStandardError() : "");
    return QString::fromUtf8(printed) + (ended ? "" : "(did not end)");
}

void stop(QProcess& process, int signalNumber = SIGTERM)
{
    QCOMPARE(::kill(static_cast<pid_t>(process.processId()), signalNumber), 0);
    QVERIFY(process.waitForFinished(kWaitMs) && process.exitStatus() == QProcess::NormalExit);
    QVERIFY2(process.exitCode() == 0, process.readAllStandardError().right(3000).constData());
}
} // namespace

class TestStartup : public QObject
{
    Q_OBJECT

private slots:
    // Help, version, a missing display and an unknown option end the process before the lock, the
    // logs and the configuration are touched.
    void endsBeforeTheLock_data()
    {
        QTest::addColumn<QStringList>("args");
        QTest::addColumn<bool>("noDisplay");
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QString>("output");
        QTest::newRow("help, no display") << QStringList{"--help"} << true << 0 << "--winrt_capture_first";
        QTest::newRow("version, flags, no display")
            << QStringList{"--auto_startup", "--version"} << true << 0 << "0.2.0.230805";
        QTest::newRow("start, no display")
            << QStringList{} << true << 1 << "no display is reachable (DISPLAY is not set)";
        QTest::newRow("unknown option") << QStringList{"--no_such_option"} << false << 1 << "no_such_option";
    }
    void endsBeforeTheLock()
    {
        QFETCH(QStringList, args);
        QFETCH(bool, noDisplay);
        QFETCH(int, exitCode);
        QFETCH(QString, output);
        Sandbox box;
        QProcess process;
        box.prepare(process, args, noDisplay);
        const QString printed = finish(process, true);
        QVERIFY2(process.exitCode() == exitCode && printed.contains(output), qPrintable(printed));
        QVERIFY(QDir(box.root.filePath("runtime")).isEmpty() && QDir(box.root.filePath("tmp")).isEmpty());
        QVERIFY(box.logFiles().isEmpty() && !QFileInfo::exists(box.configDir()));
    }

    // The start-up block of the log in order, after the wipe that "cleanStartup" asks for once; a
    // signal ends each run the normal way, the lock released and the window's handle written after
    // the wipe. The next run keeps what was stored in between.
    void firstInstanceRuns()
    {
        Sandbox box;
        box.write("global.json", R"({"cleanStartup": true, "lastBinding": {"a": {"b": "c"}}})");
        box.write("controllers/OV5512%3AA1.json", R"({"nbLeds": 30})");
        QProcess process;
        box.startFirst(process, {"--advanced"});
        const QString binary = QStringLiteral(ORVANTA_BINARY_PATH);
        const QString log = box.mainLog();
        const auto e = [](const QString& text) { return QRegularExpression::escape(text); };
        const QString info = R"(\[\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\.\d{3}\])" + e("@main  [Info]: ");
        const QStringList expected{
            info + e(kWipe + "\r\n"),
            info + e("Startup parameters: \r\n \t(" + binary + ", --advanced)\r\n"),
            info + e("Runtime directory: " + QFileInfo(binary).absolutePath() + "\r\n"),
            info + e("Qt env base path:" + QDir(box.root.path()).absolutePath() + "\r\n"),
            info + e("Build info : \r\n \t Git branch : ") + ".+\r\n" + e("\t Git commit : ") + ".+\r\n" +
                e("\t Build date : ") + R"([A-Z][a-z]{2} +\d{1,2} \d{4})" +
                e("\r\n\t App version : 0.2.0.230805\r\n"),
        };
        int from = 0;
        for (const QString& pattern : expected) {
            const QRegularExpressionMatch match = QRegularExpression(pattern).match(log, from);
            QVERIFY2(match.hasMatch(), qPrintable(pattern + "\n--- in ---\n" + log));
            from = match.capturedEnd(); // in this order
        }
        QJsonObject kept{{"cleanStartup", false}};
        for (int signalNumber : {SIGTERM, SIGHUP}) {
            stop(process, signalNumber);
            QVERIFY(box.mainLog().contains(
                QString("[ShutdownSignals] Received signal %1 - quitting").arg(signalNumber)));
            QVERIFY(!QFile::exists(box.lockFile()));
            QJsonObject global = TestFiles::readJson(box.configDir() + "/global.json");
            QVERIFY(global.take("mainWindowHandler").isString());
            QCOMPARE(global, kept);
            QVERIFY(!QFile::exists(box.configDir() + "/controllers/OV5512%3AA1.json"));
            kept.insert("keep", 1);
            if (signalNumber == SIGTERM) {
                box.write("global.json", R"({"cleanStartup": false, "keep": 1})");
                box.startFirst(process);
            }
        }
        QCOMPARE(box.mainLog().count(kWipe), 1);
    }

    // A killed instance's lock and socket are taken over by the next start; a second start reaches
    // it as often as it is made and logs nothing; with the lock held by a live process that does
    // not listen, it ends just as quietly.
    void secondInstances()
    {
        Sandbox box;
        QProcess crashed;
        box.startFirst(crashed);
        QCOMPARE(::kill(static_cast<pid_t>(crashed.processId()), SIGKILL), 0);
        QVERIFY(crashed.waitForFinished(kWaitMs) && QFile::exists(box.lockFile()));
        QProcess first;
        box.startFirst(first, {"--auto_startup"});
        const QStringList logsBefore = box.logFiles();
        for (int round = 1; round <= 2; ++round) {
            QProcess second;
            box.prepare(second, {"--auto_startup"});
            QVERIFY2(finish(second).isEmpty() && second.exitCode() == 0,
                     second.readAllStandardError().constData());
            QTRY_COMPARE_WITH_TIMEOUT(box.mainLog().count(kShowRequest), round, kWaitMs);
        }
        stop(first);
        QLockFile held(box.lockFile());
        QVERIFY(held.tryLock(0));
        QProcess quiet;
        box.prepare(quiet);
        QVERIFY(finish(quiet).isEmpty() && quiet.exitCode() == 0);
        QCOMPARE(box.logFiles(), logsBefore);
        // Two users on one machine: without a runtime folder the names carry the user id.
        QVERIFY(SingleInstance::serverName(SingleInstance::lockFilePathFor(QString(), 1000)) !=
                SingleInstance::serverName(SingleInstance::lockFilePathFor(QString(), 1001)));
    }
};

QTEST_GUILESS_MAIN(TestStartup)
#include "tst_Startup.moc"
