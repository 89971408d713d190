#include "PrivateSoundServer.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QThread>

PrivateSoundServer::PrivateSoundServer(const QString& sinkName, const QString& description)
    : sink(sinkName)
    , description(description)
{
    QDir(dir.path()).mkpath(QStringLiteral("runtime"));
    QDir(dir.path()).mkpath(QStringLiteral("state"));
    QDir(dir.path()).mkpath(QStringLiteral("home"));
    QDir(dir.path()).mkpath(QStringLiteral("config"));
}

PrivateSoundServer::~PrivateSoundServer()
{
    kill();
}

QString PrivateSoundServer::address() const
{
    return QStringLiteral("unix:") + dir.path() + QStringLiteral("/native");
}

QString PrivateSoundServer::logPath() const
{
    return dir.path() + QStringLiteral("/pulseaudio.log");
}

void PrivateSoundServer::exportAddress() const
{
    qputenv("PULSE_SERVER", address().toUtf8());
}

QProcessEnvironment PrivateSoundServer::environment() const
{
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("PULSE_RUNTIME_PATH"), dir.path() + QStringLiteral("/runtime"));
    env.insert(QStringLiteral("PULSE_STATE_PATH"), dir.path() + QStringLiteral("/state"));
    env.insert(QStringLiteral("HOME"), dir.path() + QStringLiteral("/home"));
    env.insert(QStringLiteral("XDG_CONFIG_HOME"), dir.path() + QStringLiteral("/config"));
    env.insert(QStringLiteral("XDG_RUNTIME_DIR"), dir.path() + QStringLiteral("/runtime"));
    env.insert(QStringLiteral("PULSE_SERVER"), address());
    // Nothing to autolaunch or talk to: no session bus, no X11.
    env.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"), QStringLiteral("unix:path=/nonexistent"));
    env.remove(QStringLiteral("DISPLAY"));
    env.remove(QStringLiteral("WAYLAND_DISPLAY"));
    return env;
}

bool PrivateSoundServer::start()
{
    if (isRunning()) {
        return true;
    }
    const QString socket = dir.path() + QStringLiteral("/native");
    const QStringList args{
        QStringLiteral("--pdeathsig"),
        QStringLiteral("KILL"),
        QStringLiteral("pulseaudio"),
        QStringLiteral("-n"),
        QStringLiteral("--daemonize=no"),
        QStringLiteral("--exit-idle-time=-1"),
        QStringLiteral("--use-pid-file=no"),
        QStringLiteral("--realtime=no"),
        QStringLiteral("--high-priority=no"),
        // Audio over the socket: shared memory blocks between several clients can abort the daemon
        // (a known memfd bug of this PulseAudio version).
        QStringLiteral("--disable-shm=yes"),
        QStringLiteral("--load=module-null-sink ") +
            nullSinkArguments(sink, description, 48000, QStringLiteral("float32le")).join(QLatin1Char(' ')),
        QStringLiteral("--load=module-native-protocol-unix socket=%1 auth-anonymous=1").arg(socket),
    };
    process.setProcessEnvironment(environment());
    // A file, not a pipe: a pipe held by the daemon would keep a test runner waiting.
    process.setStandardOutputFile(logPath(), QIODevice::Append);
    process.setStandardErrorFile(logPath(), QIODevice::Append);
    process.start(QStringLiteral("setpriv"), args);
    if (!process.waitForStarted(5000)) {
        error = QStringLiteral("cannot start pulseaudio: ") + process.errorString();
        return false;
    }
    QElapsedTimer clock;
    clock.start();
    while (clock.elapsed() < 10000) {
        if (process.state() != QProcess::Running) {
            error = QStringLiteral("pulseaudio ended; see ") + logPath();
            return false;
        }
        if (QFileInfo::exists(socket) && !pactl({QStringLiteral("info")}).isNull()) {
            return true;
        }
        QThread::msleep(20);
    }
    error = QStringLiteral("pulseaudio did not answer; see ") + logPath();
    kill();
    return false;
}

void PrivateSoundServer::kill()
{
    if (process.state() != QProcess::NotRunning) {
        process.kill();
        process.waitForFinished(5000);
    }
}

bool PrivateSoundServer::isRunning() const
{
    return process.state() == QProcess::Running;
}

QString PrivateSoundServer::pactl(const QStringList& args) const
{
    QProcess tool;
    tool.setProcessEnvironment(environment());
    tool.start(QStringLiteral("pactl"), args);
    if (!tool.waitForFinished(5000) || tool.exitStatus() != QProcess::NormalExit || tool.exitCode() != 0) {
        tool.kill();
        tool.waitForFinished(1000);
        return QString();
    }
    const QString out = QString::fromUtf8(tool.readAllStandardOutput());
    return out.isNull() ? QStringLiteral("") : out; // success with no output is empty, not null
}

QStringList PrivateSoundServer::nullSinkArguments(const QString& name, const QString& description, int rate,
                                                  const QString& format)
{
    return {QStringLiteral("sink_name=") + name,
            QStringLiteral("sink_properties='device.description=\"%1\"'").arg(description),
            QStringLiteral("rate=%1").arg(rate), QStringLiteral("format=") + format,
            QStringLiteral("channels=2")};
}

int PrivateSoundServer::loadSink(const QString& name, const QString& description, int rate,
                                 const QString& format)
{
    const QString out = pactl(QStringList{QStringLiteral("load-module"), QStringLiteral("module-null-sink")} +
                              nullSinkArguments(name, description, rate, format));
    return out.isNull() ? -1 : out.trimmed().toInt();
}

int PrivateSoundServer::sourceOutputCount() const
{
    const QString out =
        pactl({QStringLiteral("list"), QStringLiteral("short"), QStringLiteral("source-outputs")});
    if (out.isNull()) {
        return -1;
    }
    return out.split(QLatin1Char('\n'), Qt::SkipEmptyParts).size();
}
