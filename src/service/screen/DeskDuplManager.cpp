#include "service/screen/DeskDuplManager.h"

#include "service/config/ConfigurationManager.h"
#include "service/screen/DeskCaptureBackend.h"
#include "service/screen/DeskCaptureOption.h"
#include "service/screen/DeskCapturer.h"

#include <QCoreApplication>
#include <QThread>
#include <QVariant>
#include <QtDebug>

#include <algorithm>
#include <memory>

namespace {

constexpr char kTag[] = "[DeskDuplManager]:";

// Made at first access, deleted by the exit hook below.
std::unique_ptr<DeskDuplManager> theInstance;

void shutdownInstance()
{
    if (theInstance) {
        theInstance->shutdown();
        theInstance.reset();
    }
}

int startMode()
{
    if (qApp && qApp->property("isWinRTCaptureFirst").toBool()) {
        return 1;
    }
    const int stored =
        ConfigurationManager::instance()->globalValue(QStringLiteral("deskCaptureMode")).toInt(0);
    if (stored < 0 || stored > 1) {
        qWarning().noquote() << kTag << "Ignored the stored capture mode" << stored;
        return 0;
    }
    return stored;
}

} // namespace

DeskDuplManager* DeskDuplManager::instance()
{
    if (!theInstance) {
        auto option = std::make_unique<DeskCaptureOption>(startMode());
        std::unique_ptr<DeskCaptureBackend> chosen = DeskCaptureBackend::createDefault();
        theInstance = std::make_unique<DeskDuplManager>(chosen ? QList<DeskCaptureBackend*>{chosen.release()}
                                                               : QList<DeskCaptureBackend*>{},
                                                        option.get());
        theInstance->chooses = true;
        theInstance->ownOption = std::move(option);
        // While the application object goes, after the hooks added later (the effects' work
        // threads): the capture threads are joined, then the registry and its backends deleted.
        qAddPostRoutine(shutdownInstance);
    }
    return theInstance.get();
}

DeskDuplManager::DeskDuplManager(const QList<DeskCaptureBackend*>& backendList, DeskCaptureOption* option,
                                 QObject* parent)
    : QObject(parent)
    , captureOption(option)
{
    qRegisterMetaType<DeskCaptureState>();
    for (DeskCaptureBackend* backend : backendList) {
        addBackend(backend);
    }
    if (!backends.isEmpty()) {
        updateState();
    }
}

DeskDuplManager::DeskDuplManager(DeskCaptureOption* option, QObject* parent)
    : DeskDuplManager(QList<DeskCaptureBackend*>{}, option, parent)
{
    chooses = true;
    if (std::unique_ptr<DeskCaptureBackend> chosen = DeskCaptureBackend::createDefault()) {
        addBackend(chosen.release());
    }
    updateState();
}

void DeskDuplManager::addBackend(DeskCaptureBackend* backend)
{
    const int i = backends.size();
    backends.append(backend);
    backend->setParent(this);
    connect(backend, &DeskCaptureBackend::monitorsChanged, this, [this, i] { onMonitorsChanged(i); });
    connect(backend, &DeskCaptureBackend::connectionLost, this, [this, i] { onConnectionLost(i); });
    connect(backend, &DeskCaptureBackend::stateChanged, this, &DeskDuplManager::updateState);
    qInfo().noquote() << kTag << "Screen capture through" << backend->kind();
    backend->start();
}

DeskDuplManager::State DeskDuplManager::state() const
{
    return State(current.load());
}

const char* DeskDuplManager::noticeOf(State state)
{
    switch (state) {
    case State::Ready:
        return "";
    case State::NoSource:
    case State::DisplayLost:
        return "Screen sync needs an X11 session or screen sharing (xdg-desktop-portal).";
    case State::XwaylandWithoutSharing:
        return "No screen sharing here: install your desktop's portal backend.";
    case State::Asking:
        return "Choose the screens to share...";
    case State::Declined:
        return "Screen sharing was declined.";
    case State::Stopped:
        return "The desktop stopped screen sharing.";
    }
    return "";
}

void DeskDuplManager::updateState()
{
    // Any backend with sources makes the registry ready; else the newest choice speaks.
    State next = backends.isEmpty() ? DeskCaptureBackend::noBackendState() : backends.last()->state();
    for (DeskCaptureBackend* backend : qAsConst(backends)) {
        if (backend->state() == State::Ready) {
            next = State::Ready;
        }
    }
    if (State(current.exchange(int(next))) == next && logged) {
        return;
    }
    logged = true;
    if (next != State::Ready) {
        qInfo().noquote() << kTag << noticeOf(next);
    }
    emit stateChanged(next);
}

void DeskDuplManager::requestSources(bool byUser)
{
    if (thread() != QThread::currentThread()) {
        QMetaObject::invokeMethod(
            this, [this, byUser] { requestSources(byUser); }, Qt::QueuedConnection);
        return;
    }
    const State now = state();
    if (chooses && (now == State::NoSource || now == State::XwaylandWithoutSharing)) {
        // The desktop may have gained a portal since the start.
        std::unique_ptr<DeskCaptureBackend> chosen = DeskCaptureBackend::createDefault();
        bool known = !chosen;
        for (DeskCaptureBackend* backend : qAsConst(backends)) {
            known = known || backend->kind() == chosen->kind();
        }
        if (!known) {
            addBackend(chosen.release());
        }
    }
    for (DeskCaptureBackend* backend : qAsConst(backends)) {
        backend->requestSources(byUser);
    }
    updateState();
}

DeskDuplManager::~DeskDuplManager()
{
    shutdown();
}

void DeskDuplManager::shutdown()
{
    for (DeskCaptureBackend* backend : qAsConst(backends)) {
        backend->shutdown();
    }
    QList<QSharedPointer<DeskCapturer>> all;
    {
        QMutexLocker locker(&mutex);
        for (const Source& source : qAsConst(sources)) {
            all.append(source.capturer);
        }
    }
    for (const auto& capturer : qAsConst(all)) {
        capturer->stop();
    }
}

QString DeskDuplManager::describe(const QString& name, const QRect& geometry)
{
    return QStringLiteral("%1 %2x%3+%4+%5")
        .arg(name)
        .arg(geometry.width())
        .arg(geometry.height())
        .arg(geometry.x())
        .arg(geometry.y());
}

QList<int> DeskDuplManager::allCapturer() const
{
    QMutexLocker locker(&mutex);
    QList<int> ids;
    for (auto it = sources.constBegin(); it != sources.constEnd(); ++it) {
        if (it->present) {
            ids.append(it.key());
        }
    }
    std::sort(ids.begin(), ids.end());
    return ids;
}

QSharedPointer<IDeskCapture> DeskDuplManager::capturer(int id) const
{
    QMutexLocker locker(&mutex);
    const auto it = sources.constFind(id);
    if (it == sources.constEnd() || !it->present) {
        return {};
    }
    return it->capturer;
}

QString DeskDuplManager::capturerDesc(int id) const
{
    QMutexLocker locker(&mutex);
    const auto it = sources.constFind(id);
    return it == sources.constEnd() || !it->present ? QString() : it->desc;
}

void DeskDuplManager::onMonitorsChanged(int backendIndex)
{
    QVector<DeskMonitor> monitors = backends[backendIndex]->monitors();
    bool first = true;
    {
        QMutexLocker locker(&mutex);
        for (const Source& source : qAsConst(sources)) {
            first = first && source.backend != backendIndex;
        }
    }
    if (first) {
        // So that a stored source index finds the same monitor next run: primary first, then left
        // to right, then top to bottom.
        std::stable_sort(monitors.begin(), monitors.end(), [](const DeskMonitor& a, const DeskMonitor& b) {
            if (a.primary != b.primary) {
                return a.primary;
            }
            if (a.geometry.x() != b.geometry.x()) {
                return a.geometry.x() < b.geometry.x();
            }
            return a.geometry.y() < b.geometry.y();
        });
    }

    QList<int> ready;
    QList<int> failed;
    QList<QPair<QSharedPointer<DeskCapturer>, bool>> activations;
    {
        QMutexLocker locker(&mutex);
        QSet<int> listed;
        for (const DeskMonitor& monitor : qAsConst(monitors)) {
            int id = -1;
            for (auto it = sources.begin(); it != sources.end(); ++it) {
                if (it->backend == backendIndex && it->name == monitor.name) {
                    id = it.key();
                    break;
                }
            }
            const QString desc =
                describe(monitor.label.isEmpty() ? monitor.name : monitor.label, monitor.geometry);
            if (id < 0) {
                id = nextId++;
                Source source;
                source.backend = backendIndex;
                source.name = monitor.name;
                source.capturer.reset(
                    new DeskCapturer(backends[backendIndex], captureOption, monitor.name, monitor.geometry));
                connect(source.capturer.data(), &DeskCapturer::grabberFailed, this,
                        [this, id] { onGrabberFailed(id); });
                connect(source.capturer.data(), &DeskCapturer::grabberRecovered, this,
                        [this, id] { onGrabberRecovered(id); });
                sources.insert(id, source);
            }
            Source& source = sources[id];
            listed.insert(id);
            const bool changed = !source.present || source.capturer->geometry() != monitor.geometry;
            source.capturer->setGeometry(monitor.geometry);
            source.desc = desc;
            if (source.present && source.failed) {
                // Listed again by a fresh enumeration: its grabber retries now, not after its back-off.
                activations.append({source.capturer, true});
            }
            if (changed) {
                if (!source.present) {
                    activations.append({source.capturer, true});
                }
                source.present = true;
                ready.append(id);
            }
        }
        for (auto it = sources.begin(); it != sources.end(); ++it) {
            if (it->backend == backendIndex && it->present && !listed.contains(it.key())) {
                it->present = false;
                activations.append({it->capturer, false});
                failed.append(it.key());
                it->failed = false;
            }
        }
    }
    for (const auto& activation : qAsConst(activations)) {
        activation.first->setActive(activation.second);
    }
    for (int id : qAsConst(failed)) {
        qInfo().noquote() << kTag << "Capturer" << id << "is gone";
        emit capturerFailed(id);
    }
    for (int id : qAsConst(ready)) {
        qInfo().noquote() << kTag << "Capturer" << id << "is ready:" << capturerDesc(id);
        emit capturerReady(id);
    }
}

void DeskDuplManager::onConnectionLost(int backendIndex)
{
    QList<int> failed;
    QList<QSharedPointer<DeskCapturer>> silenced;
    {
        QMutexLocker locker(&mutex);
        for (auto it = sources.begin(); it != sources.end(); ++it) {
            if (it->backend == backendIndex && it->present) {
                it->present = false;
                it->failed = false;
                failed.append(it.key());
                silenced.append(it->capturer);
            }
        }
    }
    for (const auto& capturer : qAsConst(silenced)) {
        capturer->setActive(false, true);
    }
    std::sort(failed.begin(), failed.end());
    for (int id : qAsConst(failed)) {
        emit capturerFailed(id);
    }
}

void DeskDuplManager::onGrabberFailed(int id)
{
    {
        QMutexLocker locker(&mutex);
        const auto it = sources.find(id);
        if (it == sources.end() || !it->present || it->failed) {
            return;
        }
        it->failed = true;
    }
    emit capturerFailed(id);
}

void DeskDuplManager::onGrabberRecovered(int id)
{
    {
        QMutexLocker locker(&mutex);
        const auto it = sources.find(id);
        if (it == sources.end() || !it->present || !it->failed) {
            return;
        }
        it->failed = false;
    }
    emit capturerReady(id);
}
