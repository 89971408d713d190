#pragma once

#include "PrivateBus.h"

#include <QProcess>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

// PipeWire and its session manager (WirePlumber) for tests, in a private runtime folder (0700,
// with the config, state and home folders inside) and on a private session bus. WirePlumber's
// ALSA, V4L2, libcamera and Bluetooth monitors are off, so no card or camera is opened and only
// the nodes the tests make exist. Nothing of a desktop session is reached, and every process dies
// with the thread that started it (setpriv --pdeathsig KILL): start it from a long-lived thread.
class PrivatePipeWire
{
public:
    PrivatePipeWire();
    ~PrivatePipeWire();

    // Starts the bus, pipewire and wireplumber, each unless it runs, and waits until the session
    // manager has set up the session; false with errorString() if that failed.
    bool start(int waitMs = 15000);
    // SIGKILL to wireplumber and pipewire, as a crash would; the bus and the state stay.
    void killAll();
    bool isRunning() const;
    QString errorString() const { return error; }

    // The runtime folder (XDG_RUNTIME_DIR, PIPEWIRE_RUNTIME_DIR) and the socket in it.
    QString folder() const { return dir.path(); }
    QString socketPath() const { return folder() + QStringLiteral("/pipewire-0"); }
    QString busAddress() const { return bus.address(); }
    PrivateBus& privateBus() { return bus; }
    // Where every daemon of the session writes its output.
    QString logPath() const { return folder() + QStringLiteral("/session.log"); }

    // The environment of a process of this session: its runtime, config, state, home and bus; no
    // display, no system bus.
    QProcessEnvironment environment() const;
    // Starts a further daemon of this session (through setpriv --pdeathsig KILL, output to the
    // log); false with errorString() if it did not start.
    bool startDaemon(QProcess& process, const QString& program, const QStringList& args);
    // Runs a tool of this session; its standard output, or a null string on failure.
    QString run(const QString& program, const QStringList& args, int waitMs = 5000) const;
    // Copies a file into the session's config folder (XDG_CONFIG_HOME) under relativePath.
    bool addConfig(const QString& source, const QString& relativePath);

private:
    bool waitForSessionManager(int waitMs);

    QTemporaryDir dir;
    PrivateBus bus;
    QProcess pipewire;
    QProcess wireplumber;
    QString error;
};
