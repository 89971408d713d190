#include "PrivateXServer.h"

#include <QElapsedTimer>
#include <QFile>
#include <QThread>

#include <xcb/xcb.h>

#include <signal.h>
#include <unistd.h>

PrivateXServer::PrivateXServer(const QStringList& extraArgs, const QString& screen, bool restartable)
    : args(extraArgs)
    , screenSpec(screen)
    , restartable(restartable)
{
    process.setProcessChannelMode(QProcess::SeparateChannels);
    process.setStandardErrorFile(QProcess::nullDevice());
}

PrivateXServer::~PrivateXServer()
{
    kill();
}

bool PrivateXServer::start(int waitMs)
{
    if (isRunning()) {
        return true;
    }
    if (displayNumber >= 0) {
        return startOnce(waitMs); // a restart keeps its number
    }
    for (int attempt = 0; attempt < 5; ++attempt) {
        if (restartable) {
            // Far from the low numbers that -displayfd servers of parallel suites take, so that
            // none of them grabs ours while it is down.
            displayNumber = 300 + int((getpid() * 7 + attempt * 13) % 600);
            if (QFile::exists(QStringLiteral("/tmp/.X%1-lock").arg(displayNumber)) ||
                QFile::exists(QStringLiteral("/tmp/.X11-unix/X%1").arg(displayNumber))) {
                continue;
            }
        }
        if (startOnce(waitMs)) {
            return true;
        }
        kill();
        displayNumber = -1;
    }
    return false;
}

bool PrivateXServer::startOnce(int waitMs)
{
    QStringList command{QStringLiteral("--pdeathsig"), QStringLiteral("KILL"), QStringLiteral("Xvfb")};
    if (displayNumber >= 0) {
        command << display();
    } else {
        command << QStringLiteral("-displayfd") << QStringLiteral("1"); // the number arrives on stdout
    }
    command << QStringLiteral("-screen") << QStringLiteral("0") << screenSpec << QStringLiteral("-nolisten")
            << QStringLiteral("tcp") << args;
    process.start(QStringLiteral("setpriv"), command);
    if (!process.waitForStarted(waitMs)) {
        error = QStringLiteral("cannot start Xvfb: ") + process.errorString();
        return false;
    }
    if (displayNumber < 0) {
        QElapsedTimer clock;
        clock.start();
        QByteArray out;
        while (!out.contains('\n') && clock.elapsed() < waitMs && process.state() == QProcess::Running) {
            process.waitForReadyRead(100);
            out += process.readAllStandardOutput();
        }
        bool ok = false;
        displayNumber = out.trimmed().toInt(&ok);
        if (!ok) {
            displayNumber = -1;
            error = QStringLiteral("Xvfb told no display number");
            kill();
            return false;
        }
    }
    if (!waitReachable(display(), waitMs)) {
        error = QStringLiteral("Xvfb on %1 does not answer").arg(display());
        return false;
    }
    // Parallel suites race for numbers: a lock file (a server started on a fixed number writes
    // one) must name our server or a dead one; one started with -displayfd writes none.
    QElapsedTimer settle;
    settle.start();
    while (restartable && lockPid() != process.processId() && settle.elapsed() < waitMs) {
        QThread::msleep(20); // a server on a fixed number writes its lock at start
    }
    const qint64 lock = lockPid();
    if ((restartable && lock != process.processId()) ||
        (lock >= 0 && lock != process.processId() && ::kill(pid_t(lock), 0) == 0)) {
        error = QStringLiteral("another server holds %1").arg(display());
        kill();
        return false;
    }
    return true;
}

bool PrivateXServer::waitReachable(const QString& display, int waitMs)
{
    QElapsedTimer clock;
    clock.start();
    do {
        xcb_connection_t* c = xcb_connect(display.toLocal8Bit().constData(), nullptr);
        const bool ok = !xcb_connection_has_error(c);
        xcb_disconnect(c);
        if (ok) {
            return true;
        }
        QThread::msleep(20);
    } while (clock.elapsed() < waitMs);
    return false;
}

void PrivateXServer::kill()
{
    if (process.state() != QProcess::NotRunning) {
        process.kill();
        process.waitForFinished(5000);
    }
}

bool PrivateXServer::isRunning() const
{
    return process.state() == QProcess::Running;
}

qint64 PrivateXServer::lockPid() const
{
    QFile lock(QStringLiteral("/tmp/.X%1-lock").arg(displayNumber));
    if (!lock.open(QIODevice::ReadOnly)) {
        return -1;
    }
    bool ok = false;
    const qint64 pid = lock.readAll().trimmed().toLongLong(&ok);
    return ok ? pid : -1;
}

double PrivateXServer::cpuSeconds() const
{
    const qint64 pid = isRunning() ? process.processId() : lockPid();
    QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!stat.open(QIODevice::ReadOnly)) {
        return -1.0;
    }
    const QByteArray text = stat.readAll();
    // Fields after the command name, which is in parentheses and may hold spaces.
    const QList<QByteArray> fields = text.mid(text.lastIndexOf(')') + 2).split(' ');
    if (fields.size() < 13) {
        return -1.0;
    }
    const double ticks = fields.at(11).toDouble() + fields.at(12).toDouble(); // utime, stime
    return ticks / double(sysconf(_SC_CLK_TCK));
}
