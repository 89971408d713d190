#pragma once

#include <QDBusContext>
#include <QDBusUnixFileDescriptor>
#include <QList>
#include <QMutex>
#include <QObject>
#include <QString>

// The org.freedesktop.login1.Manager object of FakeLogind. It lives on a thread of its own, so
// that a caller in the same process may call it synchronously from the main thread.
class LoginManager : public QObject, protected QDBusContext
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.login1.Manager")

public:
    struct Lock
    {
        QString what;
        QString who;
        QString why;
        QString mode;
        QString sender;
        int fd = -1; // our read end of the pipe; -1 once the holder has closed its end
    };

    explicit LoginManager(QObject* parent = nullptr);
    ~LoginManager() override;

    // The test's thread (the only one that closes our ends): every lock handed out, held or not, after
    // checking which are still held.
    QList<Lock> locks();
    // The test's thread: our ends of the locks of the mode still held ("" for every mode).
    QList<int> heldFds(const QString& mode);

public slots:
    // Hands out the write end of a pipe; the holder closing it (or dying) releases the lock.
    QDBusUnixFileDescriptor Inhibit(const QString& what, const QString& who, const QString& why,
                                    const QString& mode);

signals:
    void PrepareForSleep(bool start);
    void PrepareForShutdown(bool start);

private:
    void pruneLocked();

    QMutex mutex;
    QList<Lock> all; // guarded by mutex
};
