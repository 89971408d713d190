#include "Command.h"
#include "CrashSandbox.h"
#include "LocalHttpsService.h"
#include "PrivateXServer.h"
#include "TestFiles.h"
#include "crash/CrashReport.h"

#include <QElapsedTimer>
#include <QImage>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QTest>

#include <algorithm>
#include <csignal>
#include <sys/resource.h>
#include <xcb/xcb.h>

namespace {
constexpr int kWaitMs = 60000;
const QString kReleaseBin = QStringLiteral(ORVANTA_RELEASE_DIR "/bin");
const QString kProgram = kReleaseBin + "/orvanta";
const QString kRecorder = QStringLiteral(ORVANTA_RECORDER_PATH);
const QString kStartupLine = QStringLiteral("Startup parameters: ");

bool waitForEnd(QProcess& process)
{
    return Command::waitForEnd(process, kWaitMs);
}

// Runs the program until it ends by itself; its output, standard error included.
QString runToEnd(QProcess& process)
{
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start();
    if (!process.waitForStarted(kWaitMs) || !waitForEnd(process)) {
        process.kill();
        process.waitForFinished(kWaitMs);
        return QString::fromUtf8(process.readAll()) + "\n(did not end by itself)";
    }
    return QString::fromUtf8(process.readAll());
}

struct Symbol
{
    quint64 start = 0;
    quint64 size = 0;
};

// The program's functions as `nm -C -S` reads them.
QHash<QString, Symbol> functionsOf(const QString& binary)
{
    QHash<QString, Symbol> out;
    static const QRegularExpression line(R"(^([0-9a-f]+) ([0-9a-f]+) [tTwW] (.+)$)");
    for (const QString& text : Command::run("nm", {"-C", "-S", binary}).out.split('\n')) {
        const QRegularExpressionMatch m = line.match(text);
        if (m.hasMatch()) {
            out.insert(m.captured(3),
                       {m.captured(1).toULongLong(nullptr, 16), m.captured(2).toULongLong(nullptr, 16)});
        }
    }
    return out;
}

QString readelfBuildId(const QString& binary)
{
    return QRegularExpression("Build ID: ([0-9a-f]+)")
        .match(Command::run("readelf", {"-n", binary}).out)
        .captured(1);
}

// The offset of `address` in the program's own file, or ~0 when it lies elsewhere.
quint64 programOffset(const CrashReport& report, quint64 address)
{
    QString module;
    quint64 offset = 0;
    if (!report.locate(address, &module, &offset) ||
        QFileInfo(module).canonicalFilePath() != QFileInfo(kProgram).canonicalFilePath()) {
        return ~0ull;
    }
    return offset;
}
struct XWindow
{
    QString title;
    QImage picture;
};

// The viewable top-level windows of the WM_CLASS `className` on `display`, as a user sees them.
QVector<XWindow> viewableWindows(const QString& display, const QByteArray& className)
{
    QVector<XWindow> out;
    xcb_connection_t* c = xcb_connect(display.toLocal8Bit().constData(), nullptr);
    xcb_query_tree_reply_t* tree =
        xcb_connection_has_error(c)
            ? nullptr
            : xcb_query_tree_reply(
                  c, xcb_query_tree(c, xcb_setup_roots_iterator(xcb_get_setup(c)).data->root), nullptr);
    auto property = [c](xcb_window_t w, xcb_atom_t atom) {
        xcb_get_property_reply_t* r = xcb_get_property_reply(
            c, xcb_get_property(c, 0, w, atom, XCB_GET_PROPERTY_TYPE_ANY, 0, 1024), nullptr);
        const QByteArray value = r ? QByteArray(static_cast<const char*>(xcb_get_property_value(r)),
                                                xcb_get_property_value_length(r))
                                   : QByteArray();
        free(r);
        return value;
    };
    for (int i = 0; tree && i < xcb_query_tree_children_length(tree); ++i) {
        const xcb_window_t w = xcb_query_tree_children(tree)[i];
        xcb_get_window_attributes_reply_t* attributes =
            xcb_get_window_attributes_reply(c, xcb_get_window_attributes(c, w), nullptr);
        const bool viewable = attributes && attributes->map_state == XCB_MAP_STATE_VIEWABLE;
        free(attributes);
        if (!viewable || !property(w, XCB_ATOM_WM_CLASS).split('\0').contains(className)) {
            continue;
        }
        xcb_get_geometry_reply_t* g = xcb_get_geometry_reply(c, xcb_get_geometry(c, w), nullptr);
        xcb_get_image_reply_t* image =
            g ? xcb_get_image_reply(
                    c, xcb_get_image(c, XCB_IMAGE_FORMAT_Z_PIXMAP, w, 0, 0, g->width, g->height, ~0u),
                    nullptr)
              : nullptr;
        XWindow window{QString::fromUtf8(property(w, XCB_ATOM_WM_NAME)), QImage()};
        if (image && xcb_get_image_data_length(image) == g->width * g->height * 4) {
            window.picture =
                QImage(xcb_get_image_data(image), g->width, g->height, QImage::Format_RGB32).copy();
        }
        free(image);
        free(g);
        out << window;
    }
    free(tree);
    xcb_disconnect(c);
    return out;
}
} // namespace

class TestCrashCapture : public QObject
{
    Q_OBJECT

private:
    QHash<QString, Symbol> functions;
    QString buildId;

private slots:
    void initTestCase()
    {
        QVERIFY2(QFileInfo(kProgram).isExecutable(),
                 qPrintable("The Release program is missing: build " ORVANTA_RELEASE_DIR
                            " first (make test does), or set ORVANTA_RELEASE_DIR when configuring"));
        // Core dumps of the crashes on purpose would only fill the disk.
        rlimit none{0, 0};
        QCOMPARE(::setrlimit(RLIMIT_CORE, &none), 0);
        functions = functionsOf(kProgram);
        buildId = readelfBuildId(kProgram);
        QVERIFY(!buildId.isEmpty() && functions.contains("CrashTest::crashSegv()"));
    }

    // Each kind of fault ends the process with its own signal and leaves one complete report that
    // names where it happened, the main log's three lines and one reporter started cleanly.
    void capture_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::addColumn<int>("signal");
        QTest::addColumn<QString>("code");
        QTest::addColumn<QString>("function");
        QTest::addColumn<bool>("pcInFunction"); // else a return address on the stack copy
        QTest::addColumn<QString>("threadTag");
        QTest::addColumn<QString>("lastLine"); // the report's log reaches it: the log's end at the crash
        QTest::newRow("settings folder button")
            << "settings" << SIGSEGV << "SEGV_MAPERR"
            << "SettingsDialog::on_btnOpenConfigDir_clicked()" << true << "@main  "
            << "Crash test settings now";
        QTest::newRow("segv") << "segv" << SIGSEGV << "SEGV_MAPERR"
                              << "CrashTest::crashSegv()" << true << "@main  "
                              << "Crash test segv now";
        QTest::newRow("bus") << "bus" << SIGBUS << "BUS_ADRERR"
                             << "CrashTest::crashBus()" << true << "@main  "
                             << "Crash test bus now";
        QTest::newRow("ill") << "ill" << SIGILL << "ILL_ILLOPN"
                             << "CrashTest::crashIll()" << true << "@main  "
                             << "Crash test ill now";
        QTest::newRow("fpe") << "fpe" << SIGFPE << "FPE_INTDIV"
                             << "CrashTest::crashFpe()" << true << "@main  "
                             << "Crash test fpe now";
        QTest::newRow("abrt") << "abrt" << SIGABRT << "SI_TKILL"
                              << "CrashTest::crashAbrt()" << false << "@main  "
                              << "Crash test abrt now";
        QTest::newRow("qFatal") << "fatal" << SIGABRT << "SI_TKILL"
                                << "CrashTest::crashFatal()" << false << "@main  "
                                << "[Fatal]: [CrashTest] Fatal error on purpose";
        QTest::newRow("stack overflow") << "stack" << SIGSEGV << "SEGV_(MAPERR|ACCERR)"
                                        << "CrashTest::recurse(int)" << true << "@main  "
                                        << "Crash test stack now";
        QTest::newRow("port thread") << "thread" << SIGSEGV << "SEGV_MAPERR"
                                     << "CrashTest::crashSegv()" << true << "@0x[0-9a-f]+  "
                                     << "Crash test thread now";
    }
    void capture()
    {
        QFETCH(QString, kind);
        QFETCH(int, signal);
        QFETCH(QString, code);
        QFETCH(QString, function);
        QFETCH(bool, pcInFunction);
        QFETCH(QString, threadTag);
        QFETCH(QString, lastLine);
        CrashSandbox box;
        QProcess process;
        box.prepare(process, kProgram, {"--enable_crash_test"}, kind, kRecorder);
        const QString output = runToEnd(process);
        QVERIFY2(process.exitStatus() == QProcess::CrashExit && process.exitCode() == signal,
                 qPrintable(QString("exit %1 status %2\n%3")
                                .arg(process.exitCode())
                                .arg(process.exitStatus())
                                .arg(output.right(3000))));

        const QStringList dumps = box.dumps();
        QCOMPARE(dumps.size(), 1);
        const QString path = box.dumpsDir() + "/" + dumps.first();
        QCOMPARE(QFileInfo(path).permissions() & (QFile::ReadGroup | QFile::ReadOther), QFile::Permissions());
        const CrashReport report = CrashReport::readFile(path);
        QVERIFY2(report.valid && report.complete, qPrintable(report.problem));
        QCOMPARE(int(report.signal), signal);
        QVERIFY2(QRegularExpression("^" + code + "$").match(report.codeName()).hasMatch(),
                 qPrintable(report.codeName()));
        QCOMPARE(report.version, QString("0.2.0.230805"));
        QCOMPARE(report.buildId, buildId);
        QCOMPARE(report.mainThread, threadTag.startsWith("@main"));
        QVERIFY(QFileInfo(path).size() <= 448 * 1024 && !report.stack.isEmpty() && !report.maps.isEmpty());
        QVERIFY(QString::fromUtf8(report.log).contains(kStartupLine));
        QVERIFY2(QString::fromUtf8(report.log).contains(lastLine), qPrintable(report.log.right(500)));

        const Symbol symbol = functions.value(function);
        QVERIFY2(symbol.size > 0, qPrintable(function));
        bool inFunction = false;
        if (pcInFunction) {
            const quint64 offset = programOffset(report, report.programCounter());
            inFunction = offset >= symbol.start && offset < symbol.start + symbol.size;
        } else {
            for (const CrashReport::Candidate& c : report.candidates()) {
                // A return address is one past its call, which may end a function that never returns.
                const quint64 offset = programOffset(report, c.address - 1);
                inFunction = inFunction || (offset >= symbol.start && offset < symbol.start + symbol.size);
            }
        }
        QVERIFY2(inFunction,
                 qPrintable(QString("pc 0x%1 not in %2").arg(report.programCounter(), 0, 16).arg(function)));

        const QString log = box.mainLog();
        const QString e = QRegularExpression::escape(path);
        for (const QString& line :
             {QString(R"(\]TAG\[Debug\]: Succeed to write minidump, dump path: )" + e + R"(\n\r\n)"),
              QString(R"(\]TAG\[Debug\]: Calling crash hook function\n\r\n)"),
              QString(R"(\]TAG\[Warning\]: Appeared An unknown exception occurred\.\r\n)")}) {
            QVERIFY2(QRegularExpression(QString(line).replace("TAG", threadTag)).match(log).hasMatch(),
                     qPrintable(line + "\n--- in ---\n" + log.right(2000)));
        }

        // Started in the crash, not waited for: it may still be on its way.
        QTRY_COMPARE_WITH_TIMEOUT(box.records().size(), 1, kWaitMs);
        const QStringList record = box.records().first();
        QCOMPARE(record.filter(QRegularExpression("^arg ")),
                 QStringList({"arg --file", "arg orvanta", "arg --path", "arg " + box.configDir(),
                              "arg --report", "arg " + path}));
        QCOMPARE(record.filter(QRegularExpression("^fd ")), QStringList());
    }

    // Two threads at once: one report, one reporter. A fault inside the handler: the original
    // signal at once, an incomplete but readable report, no reporter. A folder gone: the failure
    // is logged and the reporter starts all the same.
    void oddCrashes_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::addColumn<bool>("removeFolder");
        QTest::addColumn<int>("reports");
        QTest::addColumn<bool>("complete");
        QTest::addColumn<int>("reporters");
        QTest::newRow("two threads") << "two" << false << 1 << true << 1;
        QTest::newRow("fault in the handler") << "double" << false << 1 << false << 0;
        QTest::newRow("dump folder deleted") << "store:3000" << true << 0 << false << 1;
    }
    void oddCrashes()
    {
        QFETCH(QString, kind);
        QFETCH(bool, removeFolder);
        QFETCH(int, reports);
        QFETCH(bool, complete);
        QFETCH(int, reporters);
        CrashSandbox box;
        QProcess process;
        box.prepare(process, kProgram, {"--enable_crash_test"}, kind, kRecorder);
        QElapsedTimer timer;
        timer.start();
        process.start();
        if (removeFolder) {
            QTRY_VERIFY_WITH_TIMEOUT(box.mainLog().contains("set; crashing in 3000 ms"), kWaitMs);
            QVERIFY(QDir(box.dumpsDir()).removeRecursively());
        }
        QVERIFY(waitForEnd(process));
        qInfo() << kind << "ended after" << timer.elapsed() << "ms";
        QVERIFY(process.exitStatus() == QProcess::CrashExit && process.exitCode() == SIGSEGV);
        QCOMPARE(box.dumps().size(), reports);
        if (reports > 0) {
            const CrashReport report = CrashReport::readFile(box.dumpsDir() + "/" + box.dumps().first());
            QVERIFY2(report.valid, qPrintable(report.problem));
            QCOMPARE(report.complete, complete);
            QCOMPARE(report.signal, quint32(SIGSEGV));
        }
        if (removeFolder) {
            QVERIFY(box.mainLog().contains("Failed to write minidump, dump path: " + box.dumpsDir() + "/"));
        }
        if (reporters > 0) {
            QTRY_COMPARE_WITH_TIMEOUT(box.records().size(), reporters, kWaitMs);
        }
        QTest::qWait(200); // a second reporter would be there by now
        QCOMPARE(box.records().size(), reporters);
    }

    // A crash as a user provokes it, the settings' folder button, on an X display: the real
    // reporter's window comes up there and the strip keeps the colours it had.
    void reporterWindow()
    {
        PrivateXServer server;
        QVERIFY2(server.start(), qPrintable(server.errorString()));
        CrashSandbox box;
        QProcess process;
        box.prepare(process, kProgram, {"--enable_crash_test"}, "settings", QString());
        QProcessEnvironment env = process.processEnvironment();
        env.insert("DISPLAY", server.display());
        env.insert("QT_QPA_PLATFORM", "xcb");
        env.insert("QT_XCB_GL_INTEGRATION", "none");
        process.setProcessEnvironment(env);
        QElapsedTimer timer;
        timer.start();
        const QString output = runToEnd(process);
        QVERIFY2(process.exitStatus() == QProcess::CrashExit && process.exitCode() == SIGSEGV,
                 qPrintable(QString("X server %1 %2\n%3")
                                .arg(server.display(), server.isRunning() ? "running" : "gone",
                                     output.right(2000))));
        // No black frame: the way out of a crash is no shutdown.
        const QVector<VirtualLedDevice::Rgb> colours = box.device.lastColors();
        QVERIFY(!colours.isEmpty() && std::any_of(colours.begin(), colours.end(), [](const auto& c) {
            return !(c == VirtualLedDevice::Rgb());
        }));

        QVector<XWindow> windows;
        QTRY_VERIFY_WITH_TIMEOUT((windows = viewableWindows(server.display(), "CrashReporter")).size() == 1,
                                 kWaitMs);
        qInfo() << "reporter window" << timer.elapsed() << "ms after the start";
        QCOMPARE(windows.first().title, QString("Orvanta"));
        QVERIFY(QDir().mkpath("screenshots") &&
                windows.first().picture.save("screenshots/crashreporter_after_crash.png"));

        QDir logs(box.logsDir());
        const QString log = QString::fromUtf8(
            TestFiles::read(logs.filePath(logs.entryList({"CrashReporter_*.log"}).value(0))));
        const pid_t reporter = QRegularExpression(R"(Started \(pid (\d+)\))").match(log).captured(1).toInt();
        QVERIFY2(reporter > 0 && ::kill(reporter, SIGTERM) == 0, qPrintable(log));
        QTRY_VERIFY_WITH_TIMEOUT(::kill(reporter, 0) != 0 ||
                                     viewableWindows(server.display(), "CrashReporter").isEmpty(),
                                 kWaitMs);
    }

    // What is no crash leaves nothing: a polite quit, help, version, a second instance, and the
    // crash test's variable without its option.
    void noCrash_data()
    {
        QTest::addColumn<QStringList>("args");
        QTest::addColumn<QString>("crashTest");
        QTest::addColumn<bool>("runs"); // else it ends by itself
        QTest::addColumn<bool>("secondInstance");
        QTest::newRow("SIGTERM") << QStringList{"--enable_crash_test"} << "" << true << false;
        QTest::newRow("second instance") << QStringList{"--enable_crash_test"} << "" << true << true;
        QTest::newRow("variable without the option") << QStringList{} << "segv" << true << false;
        QTest::newRow("help") << QStringList{"--help"} << "segv" << false << false;
        QTest::newRow("version") << QStringList{"--version"} << "segv" << false << false;
    }
    void noCrash()
    {
        QFETCH(QStringList, args);
        QFETCH(QString, crashTest);
        QFETCH(bool, runs);
        QFETCH(bool, secondInstance);
        CrashSandbox box;
        QProcess process;
        box.prepare(process, kProgram, args, crashTest, kRecorder);
        process.start();
        if (!runs) {
            QVERIFY(waitForEnd(process) && process.exitStatus() == QProcess::NormalExit);
        } else {
            QTRY_VERIFY_WITH_TIMEOUT(box.mainLog().contains("Listening for a second instance"), kWaitMs);
            if (secondInstance) {
                QProcess second;
                box.prepare(second, kProgram, args, crashTest, kRecorder);
                second.start();
                QVERIFY(waitForEnd(second) && second.exitStatus() == QProcess::NormalExit);
                QCOMPARE(second.exitCode(), 0);
            }
            if (!crashTest.isEmpty()) {
                QTRY_VERIFY_WITH_TIMEOUT(
                    box.mainLog().contains("ORVANTA_CRASH_TEST is segv but --enable_crash_test "
                                           "is not given: no crash"),
                    kWaitMs);
                QTest::qWait(1000); // long enough for a crash that should not come
            }
            QCOMPARE(::kill(pid_t(process.processId()), SIGTERM), 0);
            QVERIFY(waitForEnd(process) && process.exitStatus() == QProcess::NormalExit);
        }
        QCOMPARE(process.exitCode(), 0);
        QVERIFY(box.dumps("*").isEmpty());
        QVERIFY(!QFileInfo::exists(box.recordFile()));
    }

    // The drag's brightness is on disk when the crash comes: all of it a second later; when the
    // crash follows at once, whole files with one of the drag's values or the one before.
    void storeAtCrash_data()
    {
        QTest::addColumn<int>("delayMs");
        QTest::newRow("crash 1 s after the drag") << 1000;
        QTest::newRow("crash right after the drag") << 0;
    }
    void storeAtCrash()
    {
        QFETCH(int, delayMs);
        CrashSandbox box;
        QProcess process;
        box.prepare(process, kProgram, {"--enable_crash_test"}, QString("store:%1").arg(delayMs), kRecorder);
        runToEnd(process);
        QCOMPARE(process.exitStatus(), QProcess::CrashExit);
        const QRegularExpressionMatch before =
            QRegularExpression(R"(\[CrashTest\] Brightness from ([0-9.]+) to ([0-9.]+) set)")
                .match(box.mainLog());
        QVERIFY(before.hasMatch());
        QDir controllers(box.configDir() + "/controllers");
        const QStringList files = controllers.entryList({"*"}, QDir::Files);
        QCOMPARE(files.filter(QRegularExpression(R"(\.json$)")).size(), files.size()); // nothing set aside
        QCOMPARE(files.size(), 1);
        QJsonParseError error;
        const QJsonDocument json =
            QJsonDocument::fromJson(TestFiles::read(controllers.filePath(files.first())), &error);
        QVERIFY2(error.error == QJsonParseError::NoError, qPrintable(error.errorString()));
        const double brightness = json.object().value("brightness").toDouble(-1);
        qInfo() << "brightness on disk" << brightness << "after a crash" << delayMs << "ms after the drag";
        if (delayMs >= 1000) {
            QCOMPARE(brightness, 0.25);
        } else {
            // One of the drag's steps, or the value before it.
            const double from = before.captured(1).toDouble();
            bool oneOfThem = qAbs(brightness - from) < 1e-6;
            for (int step = 1; step <= 20; ++step) {
                oneOfThem =
                    oneOfThem || qAbs(brightness - double(float(from + (0.25 - from) * step / 20.0))) < 1e-6;
            }
            QVERIFY2(oneOfThem, qPrintable(QString::number(brightness)));
        }
    }

    // A report agreed to but not sent goes at the next start, through `CrashReporter --retry`, once.
    void retryAtNextStart()
    {
        LocalHttpsService service;
        QVERIFY2(service.start(), qPrintable(service.errorString()));
        service.setRoute("/v1/crash", ScriptedReply::json("{}"));
        CrashSandbox box;
        QProcess crash;
        box.prepare(crash, kProgram, {"--enable_crash_test"}, "segv", QString(""));
        runToEnd(crash);
        QCOMPARE(box.dumps().size(), 1);
        const QString report = box.dumpsDir() + "/" + box.dumps().first();
        QVERIFY(TestFiles::write(report.left(report.size() - 4) + ".consent", "0\n"));
        for (int start = 1; start <= 2; ++start) {
            QProcess process;
            box.prepare(process, kProgram, {}, QString(), QString());
            QProcessEnvironment env = process.processEnvironment();
            env.insert("ORVANTA_SERVICE_URL", service.baseUrl().toString());
            env.insert("ORVANTA_SERVICE_CA", service.caFile());
            env.remove("ORVANTA_CRASH_REPORTER");
            process.setProcessEnvironment(env);
            process.start();
            // The crash's own start listened too.
            QTRY_VERIFY_WITH_TIMEOUT(box.mainLog().count("Listening for a second instance") == start + 1,
                                     kWaitMs);
            if (start == 1) {
                QTRY_VERIFY_WITH_TIMEOUT(!QFileInfo::exists(report), kWaitMs);
                QVERIFY(box.dumps("*").isEmpty()); // consent and lock gone too
            }
            QCOMPARE(::kill(pid_t(process.processId()), SIGTERM), 0);
            QVERIFY(waitForEnd(process));
        }
        // The program's own version check and advertisement go there too.
        const QVector<RecordedRequest> requests = service.requests();
        QCOMPARE(std::count_if(requests.begin(), requests.end(),
                               [](const RecordedRequest& r) { return r.path == "/v1/crash"; }),
                 1);
        QCOMPARE(box.mainLog().count("to send the reports agreed to"), 1);
    }

    // A report turned back into names: the crash function first, by the reporter's --print and by
    // scripts/symbolize-crash, which refuses another build's binary.
    void printAndSymbolize()
    {
        CrashSandbox box;
        QProcess process;
        box.prepare(process, kProgram, {"--enable_crash_test"}, "segv", QString(""));
        runToEnd(process);
        QCOMPARE(box.dumps().size(), 1);
        const QString report = box.dumpsDir() + "/" + box.dumps().first();
        const QRegularExpression firstName(R"(\b\w+::\w+\()");

        const Command::Result print = Command::run(kReleaseBin + "/CrashReporter", {"--print", report}, {},
                                                   {}, QProcess::SeparateChannels);
        const QString& printed = print.out;
        QVERIFY2(print.exitCode == 0 && printed.contains("Modules:\n  0x"), qPrintable(printed));
        QCOMPARE(firstName.match(printed).captured(0), QString("CrashTest::crashSegv("));
        QVERIFY(printed.contains(
            QRegularExpression("Fault PC: .*/orvanta\\+0x[0-9a-f]+ CrashTest::crashSegv\\(\\)")));

        for (const QString& binary : {QString(), QString(ORVANTA_BINARY_PATH)}) {
            const Command::Result symbolize =
                Command::run(QStringLiteral(ORVANTA_SOURCE_DIR "/scripts/symbolize-crash"),
                             binary.isEmpty() ? QStringList{report} : QStringList{report, binary});
            const QString& out = symbolize.out;
            if (binary.isEmpty()) {
                QVERIFY2(symbolize.exitCode == 0, qPrintable(out));
                QVERIFY2(QRegularExpression(
                             R"(Fault PC: 0x[0-9a-f]+ CrashTest::crashSegv\(\) at \S*CrashTest\.cpp:\d+)")
                             .match(out)
                             .hasMatch(),
                         qPrintable(out));
            } else {
                QVERIFY2(symbolize.exitCode != 0 && out.contains("another build") &&
                             !out.contains("Fault PC"),
                         qPrintable(out));
            }
        }
    }

    // The reporter needs no library of what may have crashed: no audio, capture, X or serial.
    void reporterLinks()
    {
        const Command::Result readelf = Command::run("readelf", {"-d", kReleaseBin + "/CrashReporter"});
        QCOMPARE(readelf.exitCode, 0);
        // Only the library names: an address such as 0xcb70 must not read as xcb.
        QStringList libraries;
        const QString& dynamic = readelf.out;
        QRegularExpressionMatchIterator it =
            QRegularExpression("\\(NEEDED\\).*\\[([^]]+)\\]").globalMatch(dynamic);
        while (it.hasNext()) {
            libraries << it.next().captured(1);
        }
        const QString needed = libraries.join(' ');
        QVERIFY2(
            needed.contains("libQt5Widgets") &&
                !needed.contains(QRegularExpression("pulse|xcb|X11|opencv|fftw|udev|SerialPort|pipewire")),
            qPrintable(dynamic));
    }

    // The Debug program leaves faults to the sanitizers: their report, not ours.
    void sanitizerBuild()
    {
        CrashSandbox box;
        QProcess process;
        box.prepare(process, QStringLiteral(ORVANTA_BINARY_PATH), {"--enable_crash_test"}, "segv", kRecorder);
        const QString output = runToEnd(process);
        QVERIFY2(output.contains("AddressSanitizer") || output.contains("runtime error"),
                 qPrintable(output.right(2000)));
        QVERIFY(box.mainLog().contains("[QBreakpadHandler] Crash capture is off in sanitizer builds"));
        QVERIFY(box.dumps("*").isEmpty());
        QVERIFY(!QFileInfo::exists(box.recordFile()));
    }
};

QTEST_GUILESS_MAIN(TestCrashCapture)
#include "tst_CrashCapture.moc"
