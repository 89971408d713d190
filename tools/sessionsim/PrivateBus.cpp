#include "PrivateBus.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>

PrivateBus::PrivateBus(const QString& folder)
    : root(folder.isEmpty() ? ownFolder.path() : folder)
{
    process.setProcessChannelMode(QProcess::SeparateChannels);
}

PrivateBus::~PrivateBus()
{
    kill();
}

QString PrivateBus::path(const QString& name) const
{
    return root + QLatin1Char('/') + name;
}

bool PrivateBus::start(int waitMs)
{
    if (isRunning()) {
        return true;
    }
    busAddress.clear();
    QDir(root).mkpath(QStringLiteral("dbus-services"));
    // Our own configuration rather than the standard session one, whose service folders include
    // the system's: a desktop's portal or session services would be activatable on this bus.
    const QString config =
        QStringLiteral("<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
                       " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
                       "<busconfig>\n"
                       "  <type>session</type>\n"
                       "  <keep_umask/>\n"
                       "  <listen>unix:path=%1</listen>\n"
                       "  <auth>EXTERNAL</auth>\n"
                       "  <servicedir>%2</servicedir>\n"
                       "  <policy context=\"default\">\n"
                       "    <allow send_destination=\"*\" eavesdrop=\"true\"/>\n"
                       "    <allow eavesdrop=\"true\"/>\n"
                       "    <allow own=\"*\"/>\n"
                       "  </policy>\n"
                       "</busconfig>\n")
            .arg(path(QStringLiteral("bus")), path(QStringLiteral("dbus-services")));
    QFile file(path(QStringLiteral("bus.conf")));
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) || file.write(config.toUtf8()) < 0) {
        error = QStringLiteral("cannot write ") + file.fileName();
        return false;
    }
    file.close();
    QFile::remove(path(QStringLiteral("bus"))); // left by a killed daemon
    process.setStandardErrorFile(path(QStringLiteral("dbus-daemon.log")), QIODevice::Append);
    process.start(QStringLiteral("setpriv"),
                  {QStringLiteral("--pdeathsig"), QStringLiteral("KILL"), QStringLiteral("dbus-daemon"),
                   QStringLiteral("--config-file=") + file.fileName(), QStringLiteral("--nofork"),
                   QStringLiteral("--print-address")});
    if (!process.waitForStarted(waitMs)) {
        error = QStringLiteral("cannot start dbus-daemon: ") + process.errorString();
        return false;
    }
    QElapsedTimer clock;
    clock.start();
    QByteArray out;
    while (!out.contains('\n') && clock.elapsed() < waitMs && process.state() == QProcess::Running) {
        process.waitForReadyRead(100);
        out += process.readAllStandardOutput();
    }
    busAddress = QString::fromUtf8(out.left(out.indexOf('\n'))).trimmed();
    if (busAddress.isEmpty()) {
        error =
            QStringLiteral("dbus-daemon printed no address; see ") + path(QStringLiteral("dbus-daemon.log"));
        kill();
        return false;
    }
    return true;
}

void PrivateBus::kill()
{
    if (process.state() != QProcess::NotRunning) {
        process.kill();
        process.waitForFinished(5000);
    }
}

bool PrivateBus::isRunning() const
{
    return process.state() == QProcess::Running;
}

bool PrivateBus::addService(const QString& name, const QStringList& command)
{
    QStringList quoted;
    for (const QString& word : command) {
        quoted << (word.contains(QLatin1Char(' ')) ? QLatin1Char('"') + word + QLatin1Char('"') : word);
    }
    QDir(root).mkpath(QStringLiteral("dbus-services"));
    QFile file(path(QStringLiteral("dbus-services/") + name + QStringLiteral(".service")));
    const QByteArray text =
        "[D-BUS Service]\nName=" + name.toUtf8() + "\nExec=" + quoted.join(' ').toUtf8() + '\n';
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) || file.write(text) != text.size()) {
        return false;
    }
    file.close();
    if (!isRunning()) {
        return true; // read at start
    }
    // The daemon reads its service folders again on request.
    const QString connection = QStringLiteral("orvanta-private-bus-reload");
    bool reloaded = false;
    {
        QDBusConnection bus = QDBusConnection::connectToBus(busAddress, connection);
        reloaded = bus.isConnected() &&
                   bus.interface()->call(QStringLiteral("ReloadConfig")).type() == QDBusMessage::ReplyMessage;
    }
    QDBusConnection::disconnectFromBus(connection);
    return reloaded;
}
