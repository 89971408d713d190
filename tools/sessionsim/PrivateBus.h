#pragma once

#include <QProcess>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

// A private D-Bus daemon for tests: a session-type bus of its own in a temporary folder, on which
// nothing is activatable unless a test adds it, and which dies with the thread that started it
// (setpriv --pdeathsig KILL). Suites hand its address to the program as DBUS_SESSION_BUS_ADDRESS
// or DBUS_SYSTEM_BUS_ADDRESS.
class PrivateBus
{
public:
    // folder: where the socket and the configuration go; empty: a temporary folder of its own.
    explicit PrivateBus(const QString& folder = QString());
    ~PrivateBus();

    // Starts the daemon and waits until it prints its address; false with errorString() if not.
    bool start(int waitMs = 10000);
    void kill(); // SIGKILL, then reaped
    bool isRunning() const;
    QString address() const { return busAddress; }
    QString errorString() const { return error; }

    // Makes a name activatable: the bus runs the command (absolute path first) when a client asks
    // for the name. Takes effect at once, also while the bus runs.
    bool addService(const QString& name, const QStringList& command);

private:
    QString path(const QString& name) const;

    QTemporaryDir ownFolder;
    QString root;
    QProcess process;
    QString busAddress;
    QString error;
};
