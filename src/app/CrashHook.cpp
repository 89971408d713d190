#include "app/CrashHook.h"

#include "crash/CrashCapture.h"
#include "crash/QBreakpadHandler.h"
#include "service/config/ConfigurationManager.h"

#include <QCoreApplication>
#include <QDebug>
#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QProcess>
#include <QStandardPaths>

#include <ctime>

namespace {
constexpr char kTag[] = "[QBreakpadHandler]";
} // namespace

void CrashHook::install()
{
    QElapsedTimer timer;
    timer.start();
    // The CPU time beside the wall time tells the work from the waits of a busy machine.
    timespec cpuStart{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &cpuStart);
    QBreakpadHandler* handler = QBreakpadHandler::instance();
    handler->setDumpPath(QStandardPaths::writableLocation(QStandardPaths::AppConfigLocation) +
                         QStringLiteral("/dumps"));
    handler->setCrashHook(&crashHook);
    if (!handler->capturing()) {
        return;
    }
    const QStringList arguments = reporterArguments()
                                  << QStringLiteral("--report") << handler->nextReportPath();
    CrashCapture::prepareReporter(reporterProgram(), arguments);
    const qint64 wallNs = timer.nsecsElapsed();
    timespec cpuEnd{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &cpuEnd);
    const qint64 cpuNs =
        (qint64(cpuEnd.tv_sec) - cpuStart.tv_sec) * 1000000000 + cpuEnd.tv_nsec - cpuStart.tv_nsec;
    qInfo().noquote() << kTag << "Crash capture is ready in" << handler->dumpPath() << "after"
                      << QString::number(wallNs / 1e6, 'f', 3) << "ms (CPU"
                      << QString::number(cpuNs / 1e6, 'f', 3) + QStringLiteral(" ms)");
}

QString CrashHook::reporterProgram()
{
    if (qEnvironmentVariableIsSet("ORVANTA_CRASH_REPORTER")) {
        return qEnvironmentVariable("ORVANTA_CRASH_REPORTER");
    }
    return QCoreApplication::applicationDirPath() + QStringLiteral("/CrashReporter");
}

QStringList CrashHook::reporterArguments()
{
    return {QStringLiteral("--file"), QFileInfo(QCoreApplication::applicationFilePath()).fileName(),
            QStringLiteral("--path"), ConfigurationManager::instance()->configPath()};
}

bool CrashHook::startRetryIfAgreed()
{
    const QString folder = QBreakpadHandler::instance()->dumpPath();
    const QString program = reporterProgram();
    if (folder.isEmpty() || program.isEmpty() ||
        QDir(folder).entryList({QStringLiteral("*.consent")}, QDir::Files).isEmpty()) {
        return false;
    }
    const bool started = QProcess::startDetached(program, reporterArguments() << QStringLiteral("--retry"));
    qInfo().noquote() << kTag << (started ? "Started" : "Could not start") << program
                      << "to send the reports agreed to";
    return started;
}

void crashHook(const char* dumpPath)
{
    Q_UNUSED(dumpPath) // the reporter's command line holds it already
    CrashCapture::startReporter();
    CrashCapture::logFromHandler(QtWarningMsg, "Appeared An unknown exception occurred.");
}
