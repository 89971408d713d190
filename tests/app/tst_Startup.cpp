#include "FilePermissions.h"
#include "Sandbox.h"
#include "TestFiles.h"
#include "app/SingleInstance.h"

#include <QDir>
#include <QJsonObject>
#include <QLockFile>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {
constexpr int kWaitMs = Sandbox::waitMs;
const QString kListening = Sandbox::listening();
const QString kShowRequest =
    QStringLiteral("[SingleInstance] A second instance asked to show the main window");
const QString kWipe = QStringLiteral("The program will clean up all configuration files");

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
    void initTestCase() { QVERIFY(FilePermissions::obey()); }

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
        box.prepare(process, args, noDisplay ? Sandbox::noDisplay() : QMap<QString, QString>());
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
        for (int second = 0; second <= 10; ++second) { // eleven earlier runs
            const QString stamp = QString("2001_01_01_00_00_%1").arg(second, 2, 10, QChar('0'));
            QVERIFY(TestFiles::write(box.logsDir() + "/" + stamp + ".log", "") &&
                    TestFiles::write(box.logsDir() + "/loop_" + stamp + ".log", ""));
        }
        QProcess process;
        box.startFirst(process, {"--advanced"});
        // This run and the nine newest before it.
        const QStringList runs = box.logFiles().filter(QRegularExpression("^\\d"));
        QVERIFY2(runs.size() == 10 && runs.first() == "2001_01_01_00_00_02.log", qPrintable(runs.join(' ')));
        QCOMPARE(box.logFiles().filter("loop_2001").size(), 9);
        const QString binary = QStringLiteral(ORVANTA_BINARY_PATH);
        const QString log = box.mainLog();
        const auto e = [](const QString& text) { return QRegularExpression::escape(text); };
        const QString info = R"(\[\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\.\d{3}\])" + e("@main  [Info]: ");
        const QStringList expected{
            info + e(kWipe + "\r\n"),
            info + e("Startup parameters: \r\n \t(" + binary + ", --advanced)\r\n"),
            info + e("Runtime directory: " + QFileInfo(binary).absolutePath() + "\r\n"),
            info + e("Qt env base path:" + QDir(box.root.path()).absolutePath() + "\r\n"),
            // From an empty working directory, the data beside the program.
            info + e("Data folder: " + QFileInfo(binary).absolutePath() + "\r\n"),
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
            QVERIFY(global.take("mainWindowHandler").isString() && global.take("hotkeyBinding").isObject());
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

    // With no saved choice the language of the messages is taken, not the number format's.
    void startupLanguage_data()
    {
        QTest::addColumn<QStringList>("locale");
        QTest::addColumn<QString>("language");
        QTest::newRow("numbers in Chinese")
            << QStringList{"LANG=en_US.UTF-8", "LC_NUMERIC=zh_CN.UTF-8"} << "en";
        QTest::newRow("LANGUAGE over LANG") << QStringList{"LANGUAGE=en", "LANG=zh_CN.UTF-8"} << "en";
        QTest::newRow("LANG alone") << QStringList{"LANG=zh_CN.UTF-8"} << "zh";
        QTest::newRow("LC_MESSAGES over LANG")
            << QStringList{"LANG=zh_CN.UTF-8", "LC_MESSAGES=en_GB.UTF-8"} << "en";
    }
    void startupLanguage()
    {
        QFETCH(QStringList, locale);
        QFETCH(QString, language);
        Sandbox box;
        QMap<QString, QString> extra{
            {"LANGUAGE", ""}, {"LC_ALL", ""}, {"LC_MESSAGES", ""}, {"LC_NUMERIC", ""}};
        for (const QString& setting : locale) {
            extra.insert(setting.section('=', 0, 0), setting.section('=', 1));
        }
        QProcess process;
        box.prepare(process, {}, extra);
        box.startFirst(process);
        stop(process);
        const QString log = box.mainLog();
        QVERIFY2(log.contains("No saved language settings,OS language is " + language + "\r\n") &&
                     log.contains(QRegularExpression("InstallTranslator: \\S+/languages/orvanta_" + language +
                                                     "\\.qm")),
                 qPrintable(log));
        QCOMPARE(TestFiles::readJson(box.configDir() + "/app.json").value("language").toString(), language);
    }

    void faultsWhileRunning_data()
    {
        QTest::addColumn<QString>("fault");
        QTest::newRow("standard output to head -c 1") << "head";
        QTest::newRow("standard output never read") << "full pipe";
        QTest::newRow("configuration folder read-only") << "read-only";
        QTest::newRow("a FIFO as global.json") << "FIFO";
    }
    // The reader of standard output gone or stalled on a full pipe, a configuration folder that
    // cannot be written, a FIFO where a file was: the program starts, runs on and logs to its
    // files, ends at SIGTERM with 0, and saves what it can, warning once for the file it cannot.
    void faultsWhileRunning()
    {
        QFETCH(QString, fault);
        Sandbox box;
        box.write("global.json", R"({"keep": 1})");
        QProcess process, head;
        box.prepare(process, {"--auto_startup"});
        int fds[2] = {-1, -1};
        if (fault == "head") {
            head.start("head", {"-c", "1"});
            process.setStandardOutputProcess(&head);
        } else if (fault == "full pipe") {
            QVERIFY(::pipe2(fds, O_CLOEXEC) == 0 && ::fcntl(fds[1], F_SETPIPE_SZ, 4096) > 0);
            const QByteArray filler(::fcntl(fds[1], F_GETPIPE_SZ), '.');
            QCOMPARE(::write(fds[1], filler.constData(), size_t(filler.size())), ssize_t(filler.size()));
            process.setStandardOutputFile(QString("/proc/self/fd/%1").arg(fds[1]));
        } else if (fault == "FIFO") {
            QVERIFY(QFile::remove(box.configDir() + "/global.json"));
            QVERIFY(::mkfifo(QFile::encodeName(box.configDir() + "/global.json"), 0600) == 0);
        } else {
            QVERIFY(QFile::setPermissions(box.configDir(), QFile::ReadOwner | QFile::ExeOwner));
        }
        box.startFirst(process);
        QTest::qWait(5000); // running, and logging as it goes
        QVERIFY2(process.state() == QProcess::Running, qPrintable(QString::number(process.exitCode())));
        stop(process);
        QFile::setPermissions(box.configDir(), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        ::close(fds[0]);
        ::close(fds[1]);
        QVERIFY(box.mainLog().contains("[ShutdownSignals] Received signal 15 - quitting"));
        if (fault == "FIFO") { // left as it is
            struct stat info;
            QVERIFY(::lstat(QFile::encodeName(box.configDir() + "/global.json"), &info) == 0 &&
                    S_ISFIFO(info.st_mode));
            QCOMPARE(box.mainLog().count("Cannot read " + box.configDir() + "/global.json (a FIFO)"), 1);
            return;
        }
        QJsonObject global = TestFiles::readJson(box.configDir() + "/global.json");
        const bool readOnly = fault == "read-only";
        QCOMPARE(box.mainLog().count("Failed to save " + box.configDir() + "/global.json"), readOnly ? 1 : 0);
        QCOMPARE(global.take("mainWindowHandler").isString(), !readOnly);
        QCOMPARE(global.take("hotkeyBinding").isObject(), !readOnly);
        QCOMPARE(global, QJsonObject({{"keep", 1}}));
    }

    void privateLockFolder_data()
    {
        QTest::addColumn<QString>("before"); // what stands where the folder goes
        QTest::newRow("nothing: made private") << "nothing";
        QTest::newRow("mode 0755") << "0755";
        QTest::newRow("mode 1777") << "1777";
        QTest::newRow("another user's") << "another user's";
        QTest::newRow("a symbolic link") << "link";
        QTest::newRow("a file") << "file";
    }
    // Without XDG_RUNTIME_DIR, lock and socket go to "orvanta-<uid>" under the temporary folder,
    // made with mode 0700; anything else standing there ends the start before any log, with one
    // line naming it. run-with-devsim checks its own folder the same way.
    void privateLockFolder()
    {
        QFETCH(QString, before);
        if (before == "another user's" && ::getuid() != 0) {
            QSKIP("making another user's folder takes root");
        }
        Sandbox box;
        QTemporaryDir tmp("/tmp/o-XXXXXX"); // short: the socket's path must fit in sun_path
        const QString uid = QString::number(::getuid());
        const QStringList folders{tmp.filePath("orvanta-" + uid), tmp.filePath("orvanta-devsim-" + uid)};
        for (const QByteArray& name : {QFile::encodeName(folders[0]), QFile::encodeName(folders[1])}) {
            const mode_t mode = before == "1777" ? 01777 : before == "0755" ? 0755 : 0700;
            QVERIFY(before == "nothing" ||
                    (before == "link"   ? ::symlink(".", name)
                     : before == "file" ? ::mknod(name, S_IFREG | 0600, 0)
                                        : ::mkdir(name, 0) + ::chmod(name, mode)) == 0);
            QVERIFY(before != "another user's" || ::chown(name, 65534, 65534) == 0);
        }
        QProcess process;
        box.prepare(process);
        QProcessEnvironment env = process.processEnvironment();
        env.remove("XDG_RUNTIME_DIR");
        env.insert("TMPDIR", tmp.path());
        process.setProcessEnvironment(env);
        if (before == "nothing") {
            process.start();
            QTRY_VERIFY_WITH_TIMEOUT(box.mainLog().contains(kListening), kWaitMs);
            struct stat info;
            QVERIFY(::lstat(QFile::encodeName(folders[0]), &info) == 0 && (info.st_mode & 07777) == 0700);
            return stop(process);
        }
        QVERIFY2(finish(process, true).contains(folders[0]) && process.exitCode() == 1,
                 qPrintable(folders[0]));
        QVERIFY(box.logFiles().isEmpty());
        QProcess script;
        script.setProcessEnvironment(env);
        script.setProgram(QStringLiteral(ORVANTA_RUN_WITH_DEVSIM));
        script.setArguments({QFileInfo(QStringLiteral(ORVANTA_BINARY_PATH)).absolutePath()});
        QVERIFY2(finish(script, true).contains(folders[1]) && script.exitCode() == 1, qPrintable(folders[1]));
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
