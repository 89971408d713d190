#include "service/screen/portal/DeskCaptureBackendPortal.h"

#include "service/config/ConfigurationManager.h"
#include "service/screen/portal/DeskFrameGrabberPortal.h"
#include "service/screen/portal/PipeWireCapture.h"
#include "service/screen/portal/PortalFrameSlot.h"
#include "service/screen/portal/PortalSession.h"
#include "service/screen/portal/PortalSlotTable.h"

#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusServiceWatcher>
#include <QDBusVariant>
#include <QJsonValue>
#include <QtDebug>

#include <algorithm>

namespace {

// Logs under DeskDuplManager's name, as the rest of screen capture does.
constexpr char kTag[] = "[DeskDuplManager]:";
const QString tokenKey = QStringLiteral("screenCastRestoreToken");

} // namespace

DeskCaptureBackendPortal::DeskCaptureBackendPortal(const QDBusConnection& connection, QObject* parent)
    : DeskCaptureBackend(parent)
    , bus(connection)
    , slotTable(std::make_shared<PortalSlotTable>())
{
    idleTimer.setSingleShot(true);
    idleTimer.setInterval(idleCloseMs);
    connect(&idleTimer, &QTimer::timeout, this, [this] {
        qInfo().noquote() << kTag << "No screen sync for" << idleCloseMs / 1000 << "s: screen sharing closed";
        wanted = false;
        endSession();
        setState(DeskCaptureState::Ready);
    });
    lossTimer.setSingleShot(true);
    lossTimer.setInterval(closedGraceMs);
    connect(&lossTimer, &QTimer::timeout, this, [this] {
        endSession();
        setState(DeskCaptureState::DisplayLost);
        scheduleRetry();
    });
    retryTimer.setSingleShot(true);
    connect(&retryTimer, &QTimer::timeout, this, [this] {
        if (wanted) {
            open();
        }
    });
}

DeskCaptureBackendPortal::~DeskCaptureBackendPortal()
{
    shutdown();
}

bool DeskCaptureBackendPortal::available(const QDBusConnection& bus)
{
    if (!bus.isConnected() || !bus.interface()) {
        return false;
    }
    const bool running = bus.interface()->isServiceRegistered(PortalSession::service);
    if (!running && !bus.interface()->activatableServiceNames().value().contains(PortalSession::service)) {
        return false;
    }
    QDBusMessage get = QDBusMessage::createMethodCall(PortalSession::service, PortalSession::objectPath,
                                                      QStringLiteral("org.freedesktop.DBus.Properties"),
                                                      QStringLiteral("Get"));
    get << QStringLiteral("org.freedesktop.portal.ScreenCast") << QStringLiteral("AvailableSourceTypes");
    const QDBusMessage reply = bus.call(get, QDBus::Block, 10000);
    if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty()) {
        return false;
    }
    const QVariant types = reply.arguments().constFirst().value<QDBusVariant>().variant();
    return types.toUInt() & 1u; // monitors
}

void DeskCaptureBackendPortal::start()
{
    // Nothing opens here: the desktop asks the user only when a screen effect wants sources.
    watcher = new QDBusServiceWatcher(
        PortalSession::service, bus,
        QDBusServiceWatcher::WatchForRegistration | QDBusServiceWatcher::WatchForUnregistration, this);
    connect(watcher, &QDBusServiceWatcher::serviceUnregistered, this,
            &DeskCaptureBackendPortal::onPortalGone);
    connect(watcher, &QDBusServiceWatcher::serviceRegistered, this, &DeskCaptureBackendPortal::onPortalBack);
}

QVector<DeskMonitor> DeskCaptureBackendPortal::monitors() const
{
    QVector<DeskMonitor> list;
    for (const PortalSource& source : sources) {
        if (source.monitor.geometry.isValid()) {
            list.append(source.monitor);
        }
    }
    return list;
}

std::unique_ptr<DeskFrameGrabber> DeskCaptureBackendPortal::createGrabber(const QString& monitor) const
{
    auto slot = slotTable->find(monitor);
    if (!slot || slot->isEnded()) {
        return nullptr;
    }
    return std::make_unique<DeskFrameGrabberPortal>(slotTable, monitor, std::move(slot));
}

void DeskCaptureBackendPortal::requestSources(bool byUser)
{
    if (!byUser && current == DeskCaptureState::Declined) {
        return; // until the user asks
    }
    wanted = true;
    if (byUser) {
        retryMs = 0;
        retryTimer.stop();
    }
    if (pending || session || retryTimer.isActive()) {
        return;
    }
    open();
}

void DeskCaptureBackendPortal::open()
{
    if (pending) {
        return;
    }
    retryTimer.stop();
    const QString token = ConfigurationManager::instance()->globalValue(tokenKey).toString();
    auto* opening = new PortalSession(bus, this);
    pending = opening;
    connect(opening, &PortalSession::started, this,
            [this, opening](const QVector<PortalSource>& shared, const QString& next, int fd) {
                onStarted(opening, shared, next, fd);
            });
    connect(opening, &PortalSession::failed, this,
            [this, opening](uint response) { onFailed(opening, response); });
    connect(opening, &PortalSession::closed, this, [this, opening] {
        if (opening == session) {
            onClosed();
        } else if (opening == pending) {
            onFailed(opening, 3); // closed before it started: tried again like any failure
        }
    });
    if (!session) {
        setState(DeskCaptureState::Asking);
    }
    qInfo().noquote() << kTag
                      << (token.isEmpty() ? "Asking the desktop which screens to share"
                                          : "Restoring the shared screens");
    opening->open(token);
}

void DeskCaptureBackendPortal::storeToken(const QString& token)
{
    // Written at once: a token is single-use, and a crash must not leave a spent one stored.
    ConfigurationManager* store = ConfigurationManager::instance();
    store->setGlobalValue(tokenKey, token.isEmpty() ? QJsonValue() : QJsonValue(token));
    store->saveGlobalValues();
}

void DeskCaptureBackendPortal::onStarted(PortalSession* opened, const QVector<PortalSource>& shared,
                                         const QString& token, int fd)
{
    storeToken(token); // single use: the one just spent is gone either way
    pending.clear();
    const bool replacing = !session.isNull();
    ++generation;
    const int gen = generation;
    PipeWireCapture::Events events;
    events.streamEnded = [this, gen](uint32_t node) {
        QMetaObject::invokeMethod(
            this, [this, gen, node] { gen == generation ? onStreamEnded(node) : void(); },
            Qt::QueuedConnection);
    };
    events.negotiated = [this, gen](uint32_t node, QSize size) {
        QMetaObject::invokeMethod(
            this, [this, gen, node, size] { gen == generation ? onNegotiated(node, size) : void(); },
            Qt::QueuedConnection);
    };
    events.listened = [this, gen](uint32_t node, bool on) {
        QMetaObject::invokeMethod(
            this, [this, gen, node, on] { gen == generation ? onListened(node, on) : void(); },
            Qt::QueuedConnection);
    };
    auto video = std::make_unique<PipeWireCapture>(events);
    QVector<uint32_t> nodes;
    for (const PortalSource& source : shared) {
        nodes.append(source.node);
    }
    if (!video->start(fd, nodes)) {
        qWarning().noquote() << kTag
                             << "Screen sharing started, but its video did not:" << video->errorString();
        opened->close();
        opened->deleteLater();
        if (!replacing) {
            setState(DeskCaptureState::DisplayLost);
        }
        scheduleRetry();
        return;
    }
    // A restored session takes over from the one it replaces; the grabbers follow by name.
    QHash<QString, std::shared_ptr<PortalFrameSlot>> byName;
    for (const PortalSource& source : shared) {
        byName.insert(source.monitor.name, video->slot(source.node));
    }
    slotTable->set(byName);
    if (replacing) {
        capture.reset();
        session->close();
        session->deleteLater();
    }
    capture = std::move(video);
    session = opened;
    persistent = !token.isEmpty();
    listenedNodes.clear();
    endedNodes.clear();
    retryMs = 0;
    retryTimer.stop();
    sources = shared;
    for (PortalSource& source : sources) {
        // A stream that names no size keeps the one it had, so its source stays listed meanwhile.
        if (!source.monitor.geometry.isValid() && knownSizes.contains(source.monitor.name)) {
            source.monitor.geometry.setSize(knownSizes.value(source.monitor.name));
        }
    }
    QStringList shown;
    for (const PortalSource& source : shared) {
        shown << source.monitor.name;
    }
    qInfo().noquote() << kTag << "Sharing" << shared.size() << "screens:" << shown.join(QStringLiteral(", "))
                      << (persistent ? "(remembered)" : "");
    if (persistent) {
        idleTimer.start(); // stopped by the first listener
    }
    setState(DeskCaptureState::Ready);
    emit monitorsChanged();
}

void DeskCaptureBackendPortal::onFailed(PortalSession* opened, uint response)
{
    opened->deleteLater();
    pending.clear();
    if (response == 1 || response == 2) {
        storeToken(QString());
        if (session) {
            return; // the running session stays
        }
        qInfo().noquote() << kTag << "Screen sharing was declined";
        setState(DeskCaptureState::Declined);
        return;
    }
    if (!session) {
        setState(DeskCaptureState::DisplayLost);
    }
    scheduleRetry();
}

void DeskCaptureBackendPortal::onClosed()
{
    // Streams whose end we haven't handled yet still ran; those that ended a moment ago went with
    // the same stop.
    const bool running = lossTimer.isActive() || endedNodes.size() < sources.size();
    endSession();
    if (running) {
        // The user's "stop sharing": no question until the user or a new screen effect asks.
        qInfo().noquote() << kTag << "The desktop stopped screen sharing";
        wanted = false;
        retryTimer.stop();
        setState(DeskCaptureState::Stopped);
        return;
    }
    setState(DeskCaptureState::DisplayLost);
    scheduleRetry();
}

void DeskCaptureBackendPortal::onPortalGone()
{
    if (!session && !pending) {
        return;
    }
    qWarning().noquote() << kTag << "The desktop portal left the bus";
    if (pending) {
        pending->close();
        pending->deleteLater();
        pending.clear();
    }
    endSession();
    setState(DeskCaptureState::DisplayLost);
    scheduleRetry();
}

void DeskCaptureBackendPortal::onPortalBack()
{
    if (wanted && !session && !pending && retryTimer.isActive()) {
        open();
    }
}

void DeskCaptureBackendPortal::onStreamEnded(uint32_t node)
{
    endedNodes.insert(node);
    qInfo().noquote() << kTag << "The stream of node" << node << "ended";
    if (endedNodes.size() >= sources.size()) {
        // A user's stop ends the streams and closes the session, in either order as we see them:
        // Closed within a moment is that stop, else the screens are lost.
        lossTimer.start();
        return;
    }
    // The others run on; a restored session brings the lost screen back beside them.
    if (persistent) {
        scheduleRetry();
    }
}

void DeskCaptureBackendPortal::onNegotiated(uint32_t node, QSize size)
{
    for (PortalSource& source : sources) {
        if (source.node != node) {
            continue;
        }
        // Scale, mode or rotation: the stream's pixels are the monitor's size.
        knownSizes.insert(source.monitor.name, size);
        if (source.monitor.geometry.size() != size) {
            source.monitor.geometry.setSize(size);
            emit monitorsChanged();
        }
    }
}

void DeskCaptureBackendPortal::onListened(uint32_t node, bool on)
{
    if (on) {
        listenedNodes.insert(node);
        idleTimer.stop();
    } else {
        listenedNodes.remove(node);
        if (listenedNodes.isEmpty() && persistent && session) {
            idleTimer.start();
        }
    }
}

void DeskCaptureBackendPortal::endSession()
{
    idleTimer.stop();
    lossTimer.stop();
    ++generation;
    slotTable->set({});
    capture.reset(); // streams disconnected, loop joined
    if (session) {
        session->close();
        session->deleteLater();
        session.clear();
    }
    listenedNodes.clear();
    endedNodes.clear();
    const bool had = !sources.isEmpty();
    sources.clear();
    if (had) {
        emit connectionLost();
    }
}

void DeskCaptureBackendPortal::scheduleRetry()
{
    if (!wanted || pending) {
        return;
    }
    retryMs = std::clamp(retryMs * 2, int(firstRetryMs), int(lastRetryMs));
    qInfo().noquote() << kTag << "Asking for the shared screens again in" << retryMs / 1000 << "s";
    retryTimer.start(retryMs);
}

void DeskCaptureBackendPortal::setState(DeskCaptureState state)
{
    if (current != state) {
        current = state;
        emit stateChanged();
    }
}

void DeskCaptureBackendPortal::shutdown()
{
    retryTimer.stop();
    wanted = false;
    if (pending) {
        pending->close();
        delete pending.data();
    }
    endSession();
}
