#include "PrivatePipeWire.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QThread>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

// True once something listens on the Unix socket.
bool listening(const QString& path)
{
    const QByteArray name = QFile::encodeName(path);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (size_t(name.size()) >= sizeof(address.sun_path)) {
        return false;
    }
    memcpy(address.sun_path, name.constData(), size_t(name.size()));
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool ok = fd >= 0 && ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
    if (fd >= 0) {
        ::close(fd);
    }
    return ok;
}

// Sockets live in the folder and their paths may not pass 107 bytes: a deep TMPDIR (a build
// tree's test folder) gives way to /tmp.
QString folderTemplate()
{
    const QString preferred = QDir::tempPath() + QStringLiteral("/pipewire-XXXXXX");
    return preferred.size() + int(sizeof("/pipewire-0.lock")) <= 100
               ? preferred
               : QStringLiteral("/tmp/orvanta-pipewire-XXXXXX");
}

} // namespace

PrivatePipeWire::PrivatePipeWire()
    : dir(folderTemplate())
    , bus(dir.path())
{
    // PipeWire refuses a runtime folder that others may enter.
    QFile::setPermissions(dir.path(), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    for (const char* sub : {"config", "state", "home", "data"}) {
        QDir(dir.path()).mkpath(QString::fromLatin1(sub));
    }
    for (const char* dropIn : {"wireplumber/main.lua.d/51-orvanta-no-devices.lua",
                               "wireplumber/bluetooth.lua.d/51-orvanta-no-devices.lua"}) {
        addConfig(QStringLiteral(ORVANTA_SESSIONSIM_DIR "/") + QLatin1String(dropIn), QLatin1String(dropIn));
    }
}

PrivatePipeWire::~PrivatePipeWire()
{
    killAll();
}

bool PrivatePipeWire::addConfig(const QString& source, const QString& relativePath)
{
    const QString target = folder() + QStringLiteral("/config/") + relativePath;
    QDir().mkpath(QFileInfo(target).path());
    QFile::remove(target);
    return QFile::copy(source, target);
}

QProcessEnvironment PrivatePipeWire::environment() const
{
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    const QString root = folder();
    env.insert(QStringLiteral("XDG_RUNTIME_DIR"), root);
    env.insert(QStringLiteral("PIPEWIRE_RUNTIME_DIR"), root);
    env.insert(QStringLiteral("XDG_CONFIG_HOME"), root + QStringLiteral("/config"));
    env.insert(QStringLiteral("XDG_STATE_HOME"), root + QStringLiteral("/state"));
    env.insert(QStringLiteral("XDG_DATA_HOME"), root + QStringLiteral("/data"));
    env.insert(QStringLiteral("HOME"), root + QStringLiteral("/home"));
    env.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"), bus.address());
    // No system bus: nothing of the machine's (logind, BlueZ, RealtimeKit) is asked.
    env.insert(QStringLiteral("DBUS_SYSTEM_BUS_ADDRESS"), QStringLiteral("unix:path=/nonexistent"));
    for (const char* name :
         {"DISPLAY", "WAYLAND_DISPLAY", "PIPEWIRE_REMOTE", "PIPEWIRE_CONFIG_DIR", "PIPEWIRE_CONFIG_NAME",
          "PIPEWIRE_CONFIG_PREFIX", "PULSE_SERVER", "PULSE_RUNTIME_PATH", "PULSE_STATE_PATH", "PULSE_COOKIE",
          "JACK_DEFAULT_SERVER", "XDG_SESSION_ID", "XDG_SEAT"}) {
        env.remove(QString::fromLatin1(name));
    }
    return env;
}

bool PrivatePipeWire::startDaemon(QProcess& process, const QString& program, const QStringList& args)
{
    process.setProcessEnvironment(environment());
    // A file, not a pipe: a pipe held by a daemon would keep a test runner waiting.
    process.setStandardOutputFile(logPath(), QIODevice::Append);
    process.setStandardErrorFile(logPath(), QIODevice::Append);
    process.start(QStringLiteral("setpriv"),
                  QStringList{QStringLiteral("--pdeathsig"), QStringLiteral("KILL"), program} + args);
    if (!process.waitForStarted(5000)) {
        error = QStringLiteral("cannot start ") + program + QStringLiteral(": ") + process.errorString();
        return false;
    }
    return true;
}

bool PrivatePipeWire::start(int waitMs)
{
    if (!dir.isValid()) {
        error = QStringLiteral("no runtime folder");
        return false;
    }
    if (!bus.isRunning() && !bus.start(waitMs)) {
        error = bus.errorString();
        return false;
    }
    QElapsedTimer clock;
    clock.start();
    if (pipewire.state() == QProcess::NotRunning) {
        if (!startDaemon(pipewire, QStringLiteral("pipewire"), {})) {
            return false;
        }
        while (!listening(socketPath())) {
            if (pipewire.state() != QProcess::Running || clock.elapsed() > waitMs) {
                error = QStringLiteral("pipewire did not listen on %1; see %2").arg(socketPath(), logPath());
                killAll();
                return false;
            }
            QThread::msleep(10);
        }
    }
    if (wireplumber.state() == QProcess::NotRunning &&
        !startDaemon(wireplumber, QStringLiteral("wireplumber"), {})) {
        killAll();
        return false;
    }
    if (!waitForSessionManager(int(qMax<qint64>(waitMs - clock.elapsed(), 1000)))) {
        killAll();
        return false;
    }
    return true;
}

bool PrivatePipeWire::waitForSessionManager(int waitMs)
{
    // WirePlumber makes the "default" metadata once it has loaded its configuration: from then on
    // it links streams and picks the default nodes.
    QElapsedTimer clock;
    clock.start();
    while (clock.elapsed() < waitMs) {
        if (wireplumber.state() != QProcess::Running || pipewire.state() != QProcess::Running) {
            error = QStringLiteral("wireplumber or pipewire ended; see ") + logPath();
            return false;
        }
        const QString metadata =
            run(QStringLiteral("pw-cli"), {QStringLiteral("ls"), QStringLiteral("Metadata")});
        if (metadata.contains(QLatin1String("metadata.name = \"default\""))) {
            return true;
        }
        QThread::msleep(20);
    }
    error = QStringLiteral("wireplumber did not set up the session; see ") + logPath();
    return false;
}

void PrivatePipeWire::killAll()
{
    for (QProcess* process : {&wireplumber, &pipewire}) {
        if (process->state() != QProcess::NotRunning) {
            process->kill();
            process->waitForFinished(5000);
        }
    }
}

bool PrivatePipeWire::isRunning() const
{
    return pipewire.state() == QProcess::Running && wireplumber.state() == QProcess::Running;
}

QString PrivatePipeWire::run(const QString& program, const QStringList& args, int waitMs) const
{
    QProcess tool;
    tool.setProcessEnvironment(environment());
    tool.start(program, args);
    if (!tool.waitForFinished(waitMs) || tool.exitStatus() != QProcess::NormalExit || tool.exitCode() != 0) {
        tool.kill();
        tool.waitForFinished(1000);
        return QString();
    }
    const QString out = QString::fromUtf8(tool.readAllStandardOutput());
    return out.isNull() ? QStringLiteral("") : out; // success with no output is empty, not null
}
