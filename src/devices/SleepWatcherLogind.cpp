// The login manager's side of SleepWatcher: org.freedesktop.login1 on the system bus.
#include "devices/SleepWatcher.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusUnixFileDescriptor>
#include <QDebug>

#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr char kTag[] = "[SleepWatcher]:";
const QString kService = QStringLiteral("org.freedesktop.login1");
const QString kPath = QStringLiteral("/org/freedesktop/login1");
const QString kInterface = QStringLiteral("org.freedesktop.login1.Manager");

} // namespace

void SleepWatcher::connectToLoginManager()
{
    QDBusConnection bus = QDBusConnection::systemBus();
    if (!bus.isConnected()) {
        qInfo().noquote() << kTag << "No system bus, so the strips stay lit while the computer sleeps:"
                          << bus.lastError().message();
        return;
    }
    // A D-Bus signal connects by its signature only.
    bus.connect(kService, kPath, kInterface, QStringLiteral("PrepareForSleep"), this,
                SLOT(onPrepareForSleep(bool)));
    takeLock();
}

void SleepWatcher::takeLock()
{
    if (lockFd >= 0 || lockPending) {
        return;
    }
    QDBusConnection bus = QDBusConnection::systemBus();
    if (!bus.isConnected()) {
        return;
    }
    QDBusMessage call =
        QDBusMessage::createMethodCall(kService, kPath, kInterface, QStringLiteral("Inhibit"));
    call << QStringLiteral("sleep") << QStringLiteral("Orvanta") << QStringLiteral("Turn the LED strips off")
         << QStringLiteral("delay");
    lockPending = true;
    auto* watcher = new QDBusPendingCallWatcher(bus.asyncCall(call), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [this](QDBusPendingCallWatcher* w) {
        w->deleteLater();
        lockPending = false;
        const QDBusPendingReply<QDBusUnixFileDescriptor> reply = *w;
        if (reply.isError()) {
            qInfo().noquote() << kTag
                              << "No login manager to wait for, so the strips stay lit while the computer"
                              << "sleeps:" << reply.error().message();
            return;
        }
        // Ours to close: the lock lasts as long as this descriptor is open.
        const int fd =
            reply.value().isValid() ? ::fcntl(reply.value().fileDescriptor(), F_DUPFD_CLOEXEC, 0) : -1;
        if (fd < 0) {
            qWarning().noquote() << kTag << "The login manager's lock came without a descriptor";
            return;
        }
        if (lockFd >= 0 || asleep) {
            ::close(fd); // a sleep began while asking: nothing left to wait for
            return;
        }
        lockFd = fd;
        qDebug().noquote() << kTag << "Holding a delay lock for sleep";
    });
}

void SleepWatcher::dropLock()
{
    if (lockFd >= 0) {
        ::close(lockFd);
        lockFd = -1;
    }
}
