#include "Command.h"
#include "LocalHttpsService.h"
#include "TestFiles.h"
#include "crash/CrashReport.h"
#include "crash/CrashReportFormat.h"
#include "crash/QBreakpadHandler.h"
#include "crash/reporter/CrashReportQueue.h"
#include "crash/reporter/CrashReporterProgram.h"
#include "crash/reporter/CrashReporterWindow.h"
#include "crash/reporter/CrashSender.h"
#include "service/config/SignalStack.h"

#include <QAbstractButton>
#include <QCheckBox>
#include <QLabel>
#include <QProcess>
#include <QPushButton>
#include <QRegularExpression>
#include <QScopeGuard>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTranslator>
#include <QtEndian>
#include <QtTest>

#include <csignal>

namespace {
constexpr int kWaitMs = 20000;
const QByteArray kVersion = "0.2.0.230805";

// A small report of the format, as the handler writes one: INFO, then END unless cut short.
QByteArray makeReport(qint64 uptimeNs, bool complete = true)
{
    QByteArray out(CrashReportFormat::kMagic, 8);
    auto u32 = [&out](quint32 v) { out.append(reinterpret_cast<const char*>(&v), 4); };
    auto u64 = [&out](quint64 v) { out.append(reinterpret_cast<const char*>(&v), 8); };
    auto text = [&](const QByteArray& s) {
        u32(quint32(s.size()));
        out += s;
    };
    u32(1);
    u32(0);
    const int info = out.size();
    u32(CrashReportFormat::Info);
    u32(0);
    for (quint32 v : {quint32(SIGSEGV), 1u}) {
        u32(v);
    }
    u64(0);
    for (quint32 v : {4242u, 4242u, 1u, 0u}) {
        u32(v);
    }
    for (quint64 v : {1700000000000000000ull, 5000000000ull, quint64(uptimeNs)}) {
        u64(v);
    }
    for (const QByteArray& s : {kVersion, QByteArray("abc"), QByteArray("00ff"), QByteArray("/x/orvanta"),
                                QByteArray("x86_64"), QByteArray("6.1.0")}) {
        text(s);
    }
    qToLittleEndian<quint32>(quint32(out.size() - info - 8), out.data() + info + 4);
    out.append(QByteArray((8 - out.size() % 8) % 8, '\0'));
    if (complete) {
        u32(CrashReportFormat::End);
        u32(16);
        u64(quint64(out.size() + 16));
        u64(5001000000ull);
    }
    return out;
}
} // namespace

// The reporter and the uploader in process: what is posted, what stays on disk, what the window
// offers, against a local HTTPS service.
class TestCrashReporter : public QObject
{
    Q_OBJECT
private:
    LocalHttpsService service;
    QTemporaryDir home;
    int folders = 0;

    // A fresh dump folder holding `reports` good reports (newest last) and the odd files asked.
    QString dumpFolder(int reports, const QStringList& odd = {}, qint64 uptimeNs = 60'000'000'000)
    {
        const QString folder = home.filePath(QString("dumps%1").arg(++folders));
        for (int i = 0; i < reports; ++i) {
            const QString path =
                QString("%1/%2-0000-0000-0000-000000000000.dmp").arg(folder).arg(i, 8, 10, QChar('0'));
            TestFiles::write(path, makeReport(uptimeNs));
            QFile file(path); // a second apart, so that "newest" is known
            if (!file.open(QIODevice::ReadWrite) ||
                !file.setFileTime(QDateTime::currentDateTime().addSecs(i - reports),
                                  QFileDevice::FileModificationTime)) {
                qWarning() << "cannot date" << path;
            }
        }
        if (odd.contains("junk")) {
            TestFiles::write(folder + "/x.dmp", "not a report at all");
        }
        if (odd.contains("big")) {
            TestFiles::write(folder + "/big.dmp", makeReport(uptimeNs) + QByteArray(2 * 1024 * 1024, 'x'));
        }
        return folder;
    }

    // "on", "off", "untrusted" (its certificate), or "fail" (a service whose every answer is an error).
    void goOnline(const QString& how)
    {
        service.setSecurity(how == "untrusted" ? LocalHttpsService::Security::Untrusted
                                               : LocalHttpsService::Security::Trusted);
        service.clearRecords();
        const QString base = service.baseUrl().toString() + (how == "fail" ? "/fail" : "");
        qputenv("ORVANTA_SERVICE_URL", how == "off" ? QByteArray("off") : base.toUtf8());
        qputenv("ORVANTA_SERVICE_CA", service.caFile().toUtf8());
    }

    int posts() const { return service.requests().size(); }

private slots:
    void initTestCase()
    {
        QCoreApplication::setApplicationName("orvanta");
        QCoreApplication::setApplicationVersion(QString::fromLatin1(kVersion));
        QVERIFY2(service.start(), qPrintable(service.errorString()));
        service.setRoute("/v1/crash", ScriptedReply::json("{}"));
        service.setRoute("/fail/v1/crash", ScriptedReply::json("{\"error\": 1}", 500));
    }

    // The handler's path and URL rules.
    void handlerSettings()
    {
        QBreakpadHandler* handler = QBreakpadHandler::instance();
        handler->setDumpPath("relative/dumps");
        QCOMPARE(handler->dumpPath(), QCoreApplication::applicationDirPath() + "/relative/dumps");
        const QString absolute = dumpFolder(2, {"junk"});
        handler->setDumpPath(absolute);
        QCOMPARE(handler->dumpPath(), absolute);
        QCOMPARE(handler->dumpFileList().size(), 3);
        QCOMPARE(handler->capturing(), SignalStack::enabled()); // a sanitizer build captures nothing
        handler->setUploadUrl(QUrl("https://127.0.0.1:1/v1/crash"));
        handler->setUploadUrl(QUrl());
        QCOMPARE(handler->uploadUrl(), QUrl("https://127.0.0.1:1/v1/crash"));
        QCOMPARE(QBreakpadHandler::version(), QString("0.4.0"));
        QDir(QCoreApplication::applicationDirPath() + "/relative").removeRecursively();
    }

    // Through the window: the decision covers every undecided report, each posted as three parts
    // in order under the crash's own User-Agent; a failure keeps both files for the next start, a
    // declined report is never posted, and what is no report (junk, or too big) is set aside.
    void window_data()
    {
        QTest::addColumn<int>("reports");
        QTest::addColumn<QStringList>("odd");
        QTest::addColumn<QString>("reach"); // the service, as goOnline takes it
        QTest::addColumn<bool>("send");
        QTest::addColumn<QString>("earlier");
        QTest::addColumn<int>("posted");
        QTest::addColumn<int>("consents");    // left for the next start
        QTest::addColumn<int>("postedLater"); // by the next start's --retry
        const QStringList none;
        QTest::newRow("send: posted once") << 1 << none << "on" << true << "" << 1 << 0 << 0;
        QTest::newRow("three undecided share the decision")
            << 3 << none << "on" << true << "以及 2 份更早的报告" << 3 << 0 << 0;
        QTest::newRow("two undecided") << 2 << none << "on" << false << "以及 1 份更早的报告" << 0 << 0 << 0;
        QTest::newRow("error reply: both files kept") << 1 << none << "fail" << true << "" << 1 << 1 << 1;
        QTest::newRow("untrusted: nothing posted, both files kept")
            << 1 << none << "untrusted" << true << "" << 0 << 1 << 1;
        QTest::newRow("offline at consent: the next start sends it once")
            << 1 << none << "off" << true << "" << 0 << 1 << 1;
        QTest::newRow("don't send: never posted") << 1 << none << "on" << false << "" << 0 << 0 << 0;
        QTest::newRow("junk and 2 MiB set aside")
            << 1 << QStringList{"junk", "big"} << "on" << true << "以及 2 份更早的报告" << 1 << 0 << 0;
    }
    void window()
    {
        QFETCH(int, reports);
        QFETCH(QStringList, odd);
        QFETCH(QString, reach);
        QFETCH(bool, send);
        QFETCH(QString, earlier);
        QFETCH(int, posted);
        QFETCH(int, consents);
        QFETCH(int, postedLater);
        const QString folder = dumpFolder(reports, odd);
        QMap<QByteArray, QByteArray> dumps; // by file name
        for (const QString& name : QDir(folder).entryList({"*.dmp"})) {
            dumps.insert(name.toUtf8(), TestFiles::read(folder + "/" + name));
        }
        goOnline(reach);
        CrashReportQueue queue(folder);
        const QStringList undecided = queue.undecided();
        QCOMPARE(undecided.size(), reports + odd.size());
        {
            const QString newest = queue.path(undecided.first());
            CrashReporterWindow window(&queue, newest, CrashReport::readFile(newest), undecided);
            window.show();
            QVERIFY(window.findChild<QPushButton*>("sendButton")->isDefault());
            const QString text = window.findChild<QLabel*>("explanation")->text();
            QVERIFY2(earlier.isEmpty() ? !text.contains("更早") : text.contains(earlier), qPrintable(text));
            QTest::mouseClick(window.findChild<QPushButton*>(send ? "sendButton" : "dontSendButton"),
                              Qt::LeftButton);
            if (send) {
                QTRY_VERIFY_WITH_TIMEOUT(window.findChild<QPushButton*>("closeButton")->isVisible(), kWaitMs);
            } else {
                QVERIFY(!window.isVisible());
            }
        }
        QCOMPARE(posts(), posted);
        for (const RecordedRequest& request : service.requests()) {
            QCOMPARE(request.method, QByteArray("POST"));
            QCOMPARE(request.header("User-Agent"), "orvanta/" + kVersion);
            const QByteArray& body = request.body;
            const int prod = body.indexOf("form-data; name=\"prod\"\r\n\r\norvanta\r\n");
            const int ver = body.indexOf("form-data; name=\"ver\"\r\n\r\n" + kVersion + "\r\n");
            const QByteArray part = "form-data; name=\"upload_file_minidump\"; filename=\"";
            const int file = body.indexOf(part);
            const QByteArray name =
                body.mid(file + part.size(), body.indexOf('"', file + part.size()) - file - part.size());
            QVERIFY2(prod > 0 && ver > prod && file > ver && dumps.contains(name) &&
                         body.indexOf(dumps.value(name)) > file,
                     body.left(600).constData());
        }
        QCOMPARE(QDir(folder).entryList({"*.consent"}).size(), consents);
        QCOMPARE(QDir(folder).entryList({"*.dmp"}).size(), consents);
        QCOMPARE(QDir(folder).entryList({"*.dmp.bad"}).size(), odd.size());
        QCOMPARE(QDir(folder).entryList({"*.dmp.kept"}).size(), send ? 0 : reports);
        QCOMPARE(QDir(folder).entryList({"*.lock"}).size(), 0);

        // The next two starts with the services on: what was agreed goes once, then nothing.
        goOnline("on");
        for (int expected : {postedLater, 0}) {
            service.clearRecords();
            CrashSender retry(&queue);
            QSignalSpy finished(&retry, &CrashSender::finished);
            retry.start();
            QTRY_COMPARE_WITH_TIMEOUT(finished.size(), 1, kWaitMs);
            QCOMPARE(posts(), expected);
        }
    }

    // Two reporter programs at once on three agreed reports: each goes once, whoever sends it.
    void twoReporters()
    {
        const QString config = home.filePath(QString("config%1").arg(++folders));
        const QString folder = config + "/dumps";
        QVERIFY(QDir().mkpath(config) && QDir().rename(dumpFolder(3), folder));
        CrashReportQueue queue(folder);
        queue.agree(queue.undecided());
        goOnline("on");
        service.setRoute("/v1/crash", [] {
            ScriptedReply slow = ScriptedReply::json("{}");
            slow.delayMs = 500; // the second starts while the first is still sending
            return slow;
        }());
        // OpenSSL frees a thread's random generator state when the thread ends; a program that
        // exits right after its last TLS request may end before Qt's network thread does.
        const QString suppressions = home.filePath("reporter-lsan.supp");
        const QString base =
            qEnvironmentVariable("LSAN_OPTIONS").section("suppressions=", 1).section(':', 0, 0);
        QVERIFY(TestFiles::write(suppressions, TestFiles::read(base) + "\nleak:libcrypto\n"));
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("LSAN_OPTIONS", "suppressions=" + suppressions);
        QProcess reporters[2];
        for (QProcess& reporter : reporters) {
            reporter.setProcessEnvironment(env);
            reporter.setProcessChannelMode(QProcess::MergedChannels);
            reporter.start(QStringLiteral(ORVANTA_REPORTER_PATH),
                           {"--file", "orvanta", "--path", config, "--retry"});
        }
        int sent = 0;
        for (QProcess& reporter : reporters) {
            QVERIFY(reporter.waitForFinished(kWaitMs * 3));
            const QString output = QString::fromUtf8(reporter.readAll());
            const QRegularExpressionMatch m =
                QRegularExpression(R"(Sent (\d+) reports, 0 failed)").match(output);
            QVERIFY2(reporter.exitCode() == 0 && m.hasMatch(), qPrintable(output.right(2000)));
            qInfo() << "a reporter sent" << m.captured(1).toInt();
            sent += m.captured(1).toInt();
        }
        service.setRoute("/v1/crash", ScriptedReply::json("{}"));
        QCOMPARE(posts(), 3);
        QCOMPARE(sent, 3);
        QVERIFY(QDir(folder).entryList(QDir::Files).isEmpty());
    }

    // Five failures keep a report unsent for good; ten reports are kept, the oldest go.
    void attemptsAndPruning()
    {
        const QString folder = dumpFolder(12);
        CrashReportQueue queue(folder);
        QCOMPARE(queue.prune(), 2);
        QCOMPARE(queue.undecided().size(), 10);
        const QString report = queue.undecided().first();
        queue.agree({report});
        for (int attempt = 1; attempt < CrashReportQueue::kMaxAttempts; ++attempt) {
            QCOMPARE(queue.failed(report), attempt);
            QVERIFY(queue.agreed().contains(report));
        }
        QCOMPARE(queue.failed(report), CrashReportQueue::kMaxAttempts);
        QVERIFY(!queue.agreed().contains(report) && QFileInfo::exists(queue.path(report) + ".kept"));
    }

    // "Restart" is offered unless the crash came within 10 s of the start.
    void restartOffer_data()
    {
        QTest::addColumn<qint64>("uptimeNs");
        QTest::addColumn<bool>("checked");
        QTest::newRow("3 s after the start") << qint64(3'000'000'000) << false;
        QTest::newRow("9.999 s") << qint64(9'999'000'000) << false;
        QTest::newRow("10 s") << qint64(10'000'000'000) << true;
    }
    void restartOffer()
    {
        QFETCH(qint64, uptimeNs);
        QFETCH(bool, checked);
        const QString folder = dumpFolder(1, {}, uptimeNs);
        CrashReportQueue queue(folder);
        const QString path = queue.path(queue.undecided().first());
        CrashReporterWindow window(&queue, path, CrashReport::readFile(path), queue.undecided());
        QCOMPARE(window.findChild<QCheckBox*>("restartCheck")->isChecked(), checked);
    }

    // "Restart" waits for the crashed process to be gone and starts the program beside the
    // reporter, which takes the lock the crash left.
    void restartTakesTheLock()
    {
        QTemporaryDir runtime(QDir::tempPath() + "/r-XXXXXX");
        QFile::setPermissions(runtime.path(), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        qputenv("XDG_RUNTIME_DIR", runtime.path().toUtf8());
        const auto restoreDataHome =
            qScopeGuard([dataHome = qgetenv("XDG_DATA_HOME")] { qputenv("XDG_DATA_HOME", dataHome); });
        qputenv("XDG_DATA_HOME", runtime.filePath("data").toUtf8());
        // Logged once a polite quit is handled: a SIGTERM before would end it with its lock left.
        auto started = [&runtime] {
            int n = 0;
            QDir logs(runtime.filePath("data/orvanta/logs"));
            for (const QString& name : logs.entryList({"2*.log"})) {
                n += TestFiles::read(logs.filePath(name)).count("Screen capture through");
            }
            return n;
        };
        const QString lock = runtime.filePath("OrvantaSingleApp.lock");
        const QString program = QCoreApplication::applicationDirPath() + "/orvanta";
        QFile::remove(program);
        QVERIFY(QFile::link(QStringLiteral(ORVANTA_BINARY_PATH), program));
        QProcess crashed;
        crashed.start(program, QStringList());
        QTRY_VERIFY_WITH_TIMEOUT(QFileInfo(lock).size() > 0 && started() == 1, kWaitMs);
        ::kill(pid_t(crashed.processId()), SIGKILL); // the lock file stays
        const quint32 pid = quint32(crashed.processId());
        QVERIFY(CrashReporterProgram::restart("orvanta", pid));
        QVERIFY(crashed.state() == QProcess::NotRunning || crashed.waitForFinished(kWaitMs));
        // The new start holds the lock under its own process id.
        QByteArray holder;
        QTRY_VERIFY_WITH_TIMEOUT((holder = TestFiles::read(lock).split('\n').first()).toUInt() != pid &&
                                     holder.toUInt() != 0 && started() == 2,
                                 kWaitMs);
        QCOMPARE(::kill(pid_t(holder.toUInt()), SIGTERM), 0);
        QTRY_VERIFY_WITH_TIMEOUT(!QFileInfo::exists(lock), kWaitMs);
        QFile::remove(program);
    }

    // The window in both languages at both scales, asking and after "Send report", kept as
    // pictures for a look by eye; no text is cut.
    void screenshots_data()
    {
        QTest::addColumn<QString>("language");
        QTest::addColumn<QString>("send");
        QTest::addColumn<int>("scale");
        for (int scale : {1, 2}) {
            QTest::addRow("Chinese %dx", scale) << QString("zh_CN") << "发送报告" << scale;
            QTest::addRow("English %dx", scale) << QString("en") << "Send report" << scale;
        }
    }
    void screenshots()
    {
        QFETCH(QString, language);
        QFETCH(QString, send);
        QFETCH(int, scale);
        if (qRound(qApp->devicePixelRatio()) != scale) {
            if (qEnvironmentVariableIsSet("QT_SCALE_FACTOR")) {
                QSKIP("another scale's row");
            }
            // The scale is fixed when the application starts: this row runs in a second process.
            const Command::Result child = Command::rerun({QString("screenshots:") + QTest::currentDataTag()},
                                                         {{"QT_SCALE_FACTOR", QString::number(scale)}});
            QVERIFY2(child.exitCode == 0 && child.out.contains("PASS   : TestCrashReporter::screenshots("),
                     qPrintable(child.out.right(3000)));
            return;
        }
        QTranslator translator;
        if (language == "en") {
            QVERIFY(translator.load(QStringLiteral(ORVANTA_LANGUAGES_DIR "/orvanta_en.qm")));
            QCoreApplication::installTranslator(&translator);
        }
        const auto removeTranslator =
            qScopeGuard([&translator] { QCoreApplication::removeTranslator(&translator); });
        goOnline("off");
        const QString folder = dumpFolder(2);
        CrashReportQueue queue(folder);
        const QString path = queue.path(queue.undecided().first());
        CrashReporterWindow window(&queue, path, CrashReport::readFile(path), queue.undecided());
        window.show();
        QVERIFY(QTest::qWaitForWindowExposed(&window));
        QTest::mouseClick(window.findChild<QPushButton*>("detailsButton"), Qt::LeftButton);
        QCOMPARE(window.findChild<QPushButton*>("sendButton")->text(), send);
        QVERIFY(QDir().mkpath("screenshots"));
        for (const QString& state : {QString(), QString("_sent")}) {
            if (!state.isEmpty()) {
                QTest::mouseClick(window.findChild<QPushButton*>("sendButton"), Qt::LeftButton);
                QVERIFY(window.findChild<QPushButton*>("closeButton")->isVisible());
            }
            QCoreApplication::processEvents(); // the layout after adjustSize()
            const QImage picture = window.grab().toImage();
            QVERIFY(
                !picture.isNull() &&
                picture.save(
                    QString("screenshots/crashreporter_%1_%2x%3.png").arg(language).arg(scale).arg(state)));
            for (QWidget* w : window.findChildren<QWidget*>()) {
                auto* label = qobject_cast<QLabel*>(w);
                const int needed = label && label->wordWrap() ? label->heightForWidth(label->width())
                                                              : w->sizeHint().height();
                const bool cut = w->isVisible() && (qobject_cast<QAbstractButton*>(w) || label) &&
                                 (w->height() < needed ||
                                  (!(label && label->wordWrap()) && w->width() < w->sizeHint().width()));
                QVERIFY2(!cut, qPrintable(QString("%1 is %2x%3, its text needs %4x%5")
                                              .arg(w->objectName())
                                              .arg(w->width())
                                              .arg(w->height())
                                              .arg(w->sizeHint().width())
                                              .arg(needed)));
            }
        }
    }

    // The command line: the three ways of running, and usage for anything else.
    void arguments_data()
    {
        QTest::addColumn<QStringList>("args");
        QTest::addColumn<int>("mode");
        QTest::newRow("after a crash")
            << QStringList{"--file", "orvanta", "--path", "/c", "--report", "/c/d/a.dmp"}
            << int(CrashReporterProgram::Mode::Window);
        QTest::newRow("retry") << QStringList{"--file", "orvanta", "--path", "/c", "--retry"}
                               << int(CrashReporterProgram::Mode::Retry);
        QTest::newRow("print") << QStringList{"--print", "/c/d/a.dmp"}
                               << int(CrashReporterProgram::Mode::Print);
        QTest::newRow("no path") << QStringList{"--file", "orvanta"}
                                 << int(CrashReporterProgram::Mode::Usage);
        QTest::newRow("a path as file")
            << QStringList{"--file", "../x", "--path", "/c"} << int(CrashReporterProgram::Mode::Usage);
        QTest::newRow("value missing")
            << QStringList{"--file", "orvanta", "--path"} << int(CrashReporterProgram::Mode::Usage);
        QTest::newRow("unknown") << QStringList{"--file", "orvanta", "--path", "/c", "-x"}
                                 << int(CrashReporterProgram::Mode::Usage);
        QTest::newRow("print and more")
            << QStringList{"--print", "a", "--retry"} << int(CrashReporterProgram::Mode::Usage);
    }
    void arguments()
    {
        QFETCH(QStringList, args);
        QFETCH(int, mode);
        args.prepend("CrashReporter");
        QCOMPARE(int(CrashReporterProgram::parse(args).mode), mode);
    }

    // The reader: what the handler cut short stays readable; what is not a report is refused.
    void reader_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<bool>("valid");
        QTest::addColumn<bool>("complete");
        const QByteArray good = makeReport(1);
        QByteArray otherVersion = good;
        otherVersion[8] = 2;
        QByteArray hugeString = good;
        qToLittleEndian<quint32>(100000, hugeString.data() + 16 + 8 + 56); // the version's length
        QTest::newRow("complete") << good << true << true;
        QTest::newRow("cut after INFO") << makeReport(1, false) << true << false;
        QTest::newRow("cut inside END") << good.left(good.size() - 4) << true << false;
        QTest::newRow("cut inside INFO") << good.left(60) << false << false;
        QTest::newRow("empty") << QByteArray() << false << false;
        QTest::newRow("other magic") << QByteArray("ORVCRASX") + good.mid(8) << false << false;
        QTest::newRow("version 2") << otherVersion << false << false;
        QTest::newRow("string past its section") << hugeString << false << false;
    }
    void reader()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(bool, valid);
        QFETCH(bool, complete);
        const CrashReport report = CrashReport::parse(bytes);
        QCOMPARE(report.valid, valid);
        QCOMPARE(report.complete, complete);
        if (valid) {
            QCOMPARE(report.version, QString::fromLatin1(kVersion));
            QCOMPARE(report.codeName(), QString("SEGV_MAPERR"));
        }
    }
};

QTEST_MAIN(TestCrashReporter)
#include "tst_CrashReporter.moc"
