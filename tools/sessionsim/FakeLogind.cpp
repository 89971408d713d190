#include "FakeLogind.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusError>
#include <QElapsedTimer>

#include <poll.h>

#include <vector>

namespace {
const QString service = QStringLiteral("org.freedesktop.login1");
const QString objectPath = QStringLiteral("/org/freedesktop/login1");
constexpr int delayMaxMs = 5000;
} // namespace

FakeLogind::FakeLogind()
{
    thread.setObjectName(QStringLiteral("FakeLogind"));
    thread.start();
}

FakeLogind::~FakeLogind()
{
    stop();
    if (manager) {
        QMetaObject::invokeMethod(manager, &QObject::deleteLater);
    }
    thread.quit();
    thread.wait();
}

bool FakeLogind::start(const QString& busAddress)
{
    stop();
    if (!manager) {
        manager = new LoginManager;
        manager->moveToThread(&thread);
    }
    static int serial = 0;
    connectionName = QStringLiteral("orvanta-fake-logind-%1").arg(++serial);
    QDBusConnection bus = QDBusConnection::connectToBus(busAddress, connectionName);
    if (!bus.isConnected()) {
        error = QStringLiteral("cannot connect to ") + busAddress + QStringLiteral(": ") +
                bus.lastError().message();
        return false;
    }
    // On the manager's thread: the bus gives it a child there that relays its signals.
    bool registered = false;
    QMetaObject::invokeMethod(
        manager,
        [&] {
            registered = bus.registerObject(
                objectPath, manager, QDBusConnection::ExportAllSlots | QDBusConnection::ExportAllSignals);
        },
        Qt::BlockingQueuedConnection);
    if (!registered || !bus.registerService(service)) {
        error = QStringLiteral("cannot own ") + service + QStringLiteral(": ") + bus.lastError().message();
        stop();
        return false;
    }
    return true;
}

void FakeLogind::stop()
{
    if (connectionName.isEmpty()) {
        return;
    }
    QDBusConnection bus(connectionName);
    QMetaObject::invokeMethod(
        manager, [&] { bus.unregisterObject(objectPath); }, Qt::BlockingQueuedConnection);
    bus.unregisterService(service);
    QDBusConnection::disconnectFromBus(connectionName);
    connectionName.clear();
}

int FakeLogind::locksHeld(const QString& mode)
{
    return manager ? manager->heldFds(mode).size() : 0;
}

QList<FakeLogind::Lock> FakeLogind::locks()
{
    return manager ? manager->locks() : QList<Lock>();
}

void FakeLogind::announce(bool sleeping)
{
    if (manager) {
        // Emitted on the manager's thread, where the bus relays its signals from.
        QMetaObject::invokeMethod(
            manager, [this, sleeping] { emit manager->PrepareForSleep(sleeping); },
            Qt::BlockingQueuedConnection);
    }
}

bool FakeLogind::sleep(qint64* waitedMs)
{
    QElapsedTimer clock;
    clock.start();
    announce(true);
    QList<int> held = manager ? manager->heldFds(QStringLiteral("delay")) : QList<int>();
    while (!held.isEmpty() && clock.elapsed() < delayMaxMs) {
        QCoreApplication::processEvents(QEventLoop::AllEvents);
        // Wakes at a hang-up at once; the short timeout keeps the event loop turning for a
        // holder in this process.
        std::vector<pollfd> entries;
        for (int fd : qAsConst(held)) {
            entries.push_back(pollfd{fd, POLLIN, 0});
        }
        ::poll(entries.data(), entries.size(), 5);
        held = manager->heldFds(QStringLiteral("delay"));
    }
    if (waitedMs) {
        *waitedMs = clock.elapsed();
    }
    return held.isEmpty();
}

void FakeLogind::wake()
{
    announce(false);
}
