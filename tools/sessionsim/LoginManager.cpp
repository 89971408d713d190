#include "LoginManager.h"

#include <QDBusMessage>
#include <QMutexLocker>
#include <QStringList>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

LoginManager::LoginManager(QObject* parent)
    : QObject(parent)
{
}

LoginManager::~LoginManager()
{
    for (const Lock& lock : qAsConst(all)) {
        if (lock.fd >= 0) {
            ::close(lock.fd);
        }
    }
}

QDBusUnixFileDescriptor LoginManager::Inhibit(const QString& what, const QString& who, const QString& why,
                                              const QString& mode)
{
    // logind's checks: known lock kinds separated by colons, a known mode, a name.
    const QStringList known{QStringLiteral("shutdown"),
                            QStringLiteral("sleep"),
                            QStringLiteral("idle"),
                            QStringLiteral("handle-power-key"),
                            QStringLiteral("handle-suspend-key"),
                            QStringLiteral("handle-hibernate-key"),
                            QStringLiteral("handle-lid-switch")};
    const QStringList kinds = what.split(QLatin1Char(':'));
    bool valid = !who.isEmpty() && (mode == QLatin1String("delay") || mode == QLatin1String("block"));
    for (const QString& kind : kinds) {
        valid = valid && known.contains(kind);
    }
    if (!valid) {
        sendErrorReply(QDBusError::InvalidArgs, QStringLiteral("Invalid inhibitor"));
        return QDBusUnixFileDescriptor();
    }
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) {
        sendErrorReply(QDBusError::Failed, QStringLiteral("No pipe"));
        return QDBusUnixFileDescriptor();
    }
    const QDBusUnixFileDescriptor handed(ends[1]); // a copy travels; ours closes here
    ::close(ends[1]);
    QMutexLocker locker(&mutex);
    all.append(Lock{what, who, why, mode, message().service(), ends[0]});
    return handed;
}

void LoginManager::pruneLocked()
{
    for (Lock& lock : all) {
        if (lock.fd < 0) {
            continue;
        }
        pollfd entry{lock.fd, POLLIN, 0};
        if (::poll(&entry, 1, 0) > 0 && (entry.revents & (POLLHUP | POLLERR | POLLIN))) {
            ::close(lock.fd); // a holder never writes: any event is the hang-up
            lock.fd = -1;
        }
    }
}

QList<LoginManager::Lock> LoginManager::locks()
{
    QMutexLocker locker(&mutex);
    pruneLocked();
    return all;
}

QList<int> LoginManager::heldFds(const QString& mode)
{
    QMutexLocker locker(&mutex);
    pruneLocked();
    QList<int> fds;
    for (const Lock& lock : qAsConst(all)) {
        if (lock.fd >= 0 && (mode.isEmpty() || lock.mode == mode)) {
            fds << lock.fd;
        }
    }
    return fds;
}
