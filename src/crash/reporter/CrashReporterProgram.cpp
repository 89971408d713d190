#include "crash/reporter/CrashReporterProgram.h"

#include "crash/CrashReport.h"
#include "crash/reporter/CrashReportQueue.h"
#include "crash/reporter/CrashReporterWindow.h"
#include "crash/reporter/CrashSender.h"
#include "crash/reporter/ReportPrinter.h"
#include "i18n/LanguageManager.h"
#include "service/config/ConfigurationManager.h"
#include "service/config/ConsoleOutput.h"
#include "service/config/DataPaths.h"
#include "service/config/MessageHandler.h"

#include <QApplication>
#include <QDateTime>
#include <QDebug>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QJsonObject>
#include <QProcess>
#include <QThread>
#include <QTranslator>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <memory>

namespace {

constexpr char kTag[] = "[CrashReporter]";
// How long a restart waits for the crashed process to be gone (a core dump takes its time).
constexpr int kRestartWaitMs = 10000;

bool processGone(quint32 pid)
{
    if (pid == 0 || (::kill(pid_t(pid), 0) != 0 && errno == ESRCH)) {
        return true;
    }
    // A dead process its parent has not reaped yet holds no lock either.
    QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!stat.open(QIODevice::ReadOnly)) {
        return true;
    }
    const QByteArray line = stat.read(512);
    const int close = line.lastIndexOf(')');
    return close > 0 && line.size() > close + 2 && (line.at(close + 2) == 'Z' || line.at(close + 2) == 'X');
}

} // namespace

CrashReporterProgram::Options CrashReporterProgram::parse(const QStringList& arguments)
{
    Options o;
    bool retry = false;
    QString print;
    for (int i = 1; i < arguments.size(); ++i) {
        const QString& a = arguments.at(i);
        const bool hasValue = i + 1 < arguments.size();
        if (a == QLatin1String("--retry")) {
            retry = true;
        } else if ((a == QLatin1String("--file") || a == QLatin1String("--path") ||
                    a == QLatin1String("--report") || a == QLatin1String("--print")) &&
                   hasValue) {
            const QString value = arguments.at(++i);
            (a == QLatin1String("--file")     ? o.file
             : a == QLatin1String("--path")   ? o.path
             : a == QLatin1String("--report") ? o.report
                                              : print) = value;
        } else {
            o.problem = QStringLiteral("unexpected argument \"%1\"").arg(a);
            return o;
        }
    }
    if (!print.isEmpty()) {
        if (retry || !o.file.isEmpty() || !o.path.isEmpty() || !o.report.isEmpty()) {
            o.problem = QStringLiteral("--print takes no other option");
            return o;
        }
        o.report = print;
        o.mode = Mode::Print;
        return o;
    }
    if (o.file.isEmpty() || o.path.isEmpty() || o.file.contains(QLatin1Char('/'))) {
        o.problem = QStringLiteral("--file NAME and --path CONFIG are needed");
        return o;
    }
    if (retry && !o.report.isEmpty()) {
        o.problem = QStringLiteral("--retry takes no --report");
        return o;
    }
    o.mode = retry ? Mode::Retry : Mode::Window;
    return o;
}

QString CrashReporterProgram::usage()
{
    return QStringLiteral("Usage: CrashReporter --file NAME --path CONFIG [--report PATH]\n"
                          "       CrashReporter --file NAME --path CONFIG --retry\n"
                          "       CrashReporter --print REPORT\n"
                          "After a crash of the program NAME, offers to send its report; --retry sends\n"
                          "the reports the user agreed to without a window; --print shows a report.\n");
}

void CrashReporterProgram::startLogging()
{
    const QString logs = ConfigurationManager::instance()->logsPath();
    QDir().mkpath(logs);
    const QString stamp = QDateTime::currentDateTime().toString(QStringLiteral("yyyy_MM_dd_hh_mm_ss"));
    MessageHandler::setLogPaths(logs + QStringLiteral("/CrashReporter_") + stamp + QStringLiteral(".log"),
                                QString());
    qInstallMessageHandler(messageHandler);
}

void CrashReporterProgram::loadTranslation()
{
    const QJsonObject& app = ConfigurationManager::instance()->AppConfigJsonObj();
    QString language = app.value(QStringLiteral("language")).toString();
    if (language.isEmpty()) {
        language = LanguageManager::systemLanguage();
    }
    static QTranslator translator;
    const QString file =
        DataPaths::locate(QStringLiteral("languages/orvanta_") + language + QStringLiteral(".qm"),
                          DataPaths::First::ProgramFolder);
    if (translator.load(file)) {
        QCoreApplication::installTranslator(&translator);
        qInfo().noquote() << kTag << "Language" << language;
    }
}

bool CrashReporterProgram::restart(const QString& file, quint32 pid)
{
    QElapsedTimer waited;
    waited.start();
    while (!processGone(pid) && waited.elapsed() < kRestartWaitMs) {
        QThread::msleep(20);
    }
    const QString folder = QCoreApplication::applicationDirPath();
    const QString program = folder + QLatin1Char('/') + file;
    const bool started = QProcess::startDetached(program, {}, folder);
    qInfo().noquote() << kTag << (started ? "Restarted" : "Could not restart") << program << "after"
                      << waited.elapsed() << "ms";
    return started;
}

int CrashReporterProgram::main(int argc, char** argv)
{
    // Started by a crash, it keeps the crashed program's output, whose reader may be gone.
    ConsoleOutput::ignoreBrokenPipe();
    QStringList arguments;
    for (int i = 0; i < argc; ++i) {
        arguments << QString::fromLocal8Bit(argv[i]);
    }
    const Options options = parse(arguments);
    if (options.mode == Mode::Usage) {
        std::fprintf(stderr, "CrashReporter: %s\n%s", qPrintable(options.problem), qPrintable(usage()));
        return 2;
    }
    if (options.mode == Mode::Print) {
        QCoreApplication app(argc, argv);
        const CrashReport report = CrashReport::readFile(options.report);
        if (!report.valid) {
            std::fprintf(stderr, "CrashReporter: %s: %s\n", qPrintable(options.report),
                         qPrintable(report.problem));
            return 1;
        }
        std::fputs(ReportPrinter::print(report, options.report).toUtf8().constData(), stdout);
        return 0;
    }

    // The crashed program's name, so that its folders are found and the upload describes it.
    std::unique_ptr<QCoreApplication> app;
    if (options.mode == Mode::Retry) {
        app = std::make_unique<QCoreApplication>(argc, argv);
    } else {
        app = std::make_unique<QApplication>(argc, argv);
    }
    QCoreApplication::setApplicationName(options.file);
    startLogging();
    qInfo().noquote() << kTag << QStringLiteral("Started (pid %1):").arg(QCoreApplication::applicationPid())
                      << arguments.join(QLatin1Char(' '));
    CrashReportQueue queue(options.path + QStringLiteral("/dumps"));
    queue.prune();

    int status = 0;
    if (options.mode == Mode::Retry) {
        CrashSender sender(&queue);
        QObject::connect(&sender, &CrashSender::finished, app.get(), &QCoreApplication::quit);
        sender.start();
        status = app->exec();
        qInfo().noquote() << kTag << "Sent" << sender.outcome().sent << "reports," << sender.outcome().failed
                          << "failed";
    } else {
        loadTranslation();
        const QStringList reports = queue.undecided();
        if (reports.isEmpty()) {
            qInfo().noquote() << kTag << "No undecided report in" << queue.folder();
            ConsoleOutput::finish(1000);
            return 0;
        }
        // The report this crash wrote, else the newest there is (the crash may have failed to write).
        const QString name = reports.contains(QFileInfo(options.report).fileName())
                                 ? QFileInfo(options.report).fileName()
                                 : reports.first();
        const CrashReport report = CrashReport::readFile(queue.path(name));
        if (report.valid) {
            QCoreApplication::setApplicationVersion(report.version);
        } else {
            qWarning().noquote() << kTag << name << "is not readable:" << report.problem;
        }
        CrashReporterWindow window(&queue, queue.path(name), report, reports);
        QObject::connect(
            &window, &CrashReporterWindow::decided, &window, [&](bool send, bool restartProgram) {
                qInfo().noquote() << kTag << (send ? "The user agreed to send" : "The user declined to send")
                                  << reports.size() << "reports";
                if (restartProgram) {
                    restart(options.file, report.pid);
                }
            });
        window.show();
        qInfo().noquote() << kTag << "Window shown";
        status = app->exec();
    }
    ConsoleOutput::finish(1000);
    return status;
}
