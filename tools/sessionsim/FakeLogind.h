#pragma once

#include "LoginManager.h"

#include <QList>
#include <QString>
#include <QThread>

// org.freedesktop.login1 on a private bus (the program's DBUS_SYSTEM_BUS_ADDRESS), as much of
// logind as sleep handling needs: Inhibit hands out one end of a pipe whose hang-up releases the
// lock, and sleep() announces PrepareForSleep(true) and waits for the delay locks as logind does.
class FakeLogind
{
public:
    using Lock = LoginManager::Lock;

    FakeLogind();
    ~FakeLogind();

    // Connects to the bus and owns the name; false with errorString() if that failed.
    bool start(const QString& busAddress);
    // Leaves the bus: the name goes, the locks stay as they are.
    void stop();
    QString errorString() const { return error; }

    // Locks whose holder has not closed its end, of one mode ("delay", "block") or of all.
    int locksHeld(const QString& mode = QString());
    // Every Inhibit call that was granted, in order; fd -1 once released.
    QList<Lock> locks();

    // PrepareForSleep(true), then waits, running the event loop, until no delay lock is held or
    // 5 s (logind's InhibitDelayMaxSec) have passed. True if every delay lock was released; the
    // wait in waitedMs.
    bool sleep(qint64* waitedMs = nullptr);
    // PrepareForSleep(false), as after resume.
    void wake();

private:
    void announce(bool sleeping);

    QThread thread;
    LoginManager* manager = nullptr; // lives on thread
    QString connectionName;
    QString error;
};
