#include "ProgramRun.h"

#include "SoakClock.h"

#include <QDir>
#include <QFile>

#include <signal.h>

ProgramRun::ProgramRun(const QString& programPath, const QProcessEnvironment& environment, QObject* parent)
    : QObject(parent)
    , program(programPath)
    , logsDir(environment.value(QStringLiteral("XDG_DATA_HOME")) + QStringLiteral("/orvanta/logs"))
{
    process.setProcessEnvironment(environment);
    connect(&process, &QProcess::readyReadStandardOutput, this, &ProgramRun::readOutput);
    connect(&process, &QProcess::readyReadStandardError, this, &ProgramRun::readErrors);
}

ProgramRun::~ProgramRun()
{
    if (isRunning()) {
        signal(SIGKILL);
        process.waitForFinished(10000);
    }
}

bool ProgramRun::start(const QStringList& arguments)
{
    process.start(program, arguments);
    return process.waitForStarted(10000);
}

void ProgramRun::readOutput()
{
    out += process.readAllStandardOutput();
}

void ProgramRun::readErrors()
{
    errPartial += process.readAllStandardError();
    for (int end = errPartial.indexOf('\n'); end >= 0; end = errPartial.indexOf('\n')) {
        const QByteArray line = errPartial.left(end);
        errPartial.remove(0, end + 1);
        if (line.startsWith("soak-driver ")) {
            journal.append(line);
            emit driverLine(line);
        } else {
            errors += line + '\n';
        }
    }
}

int ProgramRun::logged(const QString& text) const
{
    const QByteArray wanted = text.toUtf8();
    const int seen = out.count(wanted);
    if (seen > 0) {
        return seen;
    }
    // The console leaves lines out when its reader lags; the log files have them all.
    int inFiles = 0;
    const QDir dir(logsDir);
    for (const QString& name : dir.entryList({QStringLiteral("*.log")}, QDir::Files)) {
        if (name.startsWith(QLatin1String("loop_"))) {
            continue;
        }
        QFile file(dir.filePath(name));
        if (file.open(QIODevice::ReadOnly)) {
            inFiles += file.readAll().count(wanted);
        }
    }
    return inFiles;
}

QByteArray ProgramRun::faults() const
{
    QByteArray found;
    for (const QByteArray& line : errors.split('\n')) {
        if (line.contains("ERROR: AddressSanitizer") || line.contains("ERROR: LeakSanitizer") ||
            line.contains("runtime error:") || line.contains("SUMMARY: ")) {
            found += line + '\n';
        }
    }
    return found;
}

QString ProgramRun::lastWords(int lines) const
{
    const auto tail = [lines](const QByteArray& text) {
        QList<QByteArray> all = text.trimmed().split('\n');
        return QString::fromUtf8(all.mid(qMax(0, all.size() - lines)).join('\n'));
    };
    return QStringLiteral("standard error:\n") + tail(errors + errPartial) + QStringLiteral("\nthe log:\n") +
           tail(out);
}

void ProgramRun::signal(int number)
{
    if (!isRunning()) {
        return;
    }
    if (number == SIGKILL) {
        killedNs = SoakClock::nowNs();
    }
    ::kill(pid_t(process.processId()), number);
}

bool ProgramRun::finish(int waitMs)
{
    if (isRunning() && !process.waitForFinished(waitMs)) {
        return false;
    }
    readOutput();
    readErrors();
    if (killedNs > 0) {
        return true;
    }
    return process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
}

QString ProgramRun::endText() const
{
    if (process.exitStatus() == QProcess::CrashExit) {
        return QStringLiteral("crashed");
    }
    return QStringLiteral("exit %1").arg(process.exitCode());
}
