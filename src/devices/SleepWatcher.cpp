#include "devices/SleepWatcher.h"

#include "devices/DeviceManager.h"
#include "devices/OVControllerEnumerator.h"

#include <QDebug>
#include <QFileInfo>

namespace {

constexpr char kTag[] = "[SleepWatcher]:";
// The black frames have 500 ms to leave; the lock goes back within a second whatever happens.
constexpr int kDarkenDeadlineMs = 900;
// Each check writes a frame with 500 ms to leave; a device that never answers counts as kept.
constexpr int kCheckDeadlineMs = 2000;
const QString kBuiltInEnumerator = QStringLiteral("@@@OVControllerEnumerator");

} // namespace

SleepWatcher::SleepWatcher(DeviceManager* deviceManager, QObject* parent)
    : QObject(parent)
    , devices(deviceManager)
{
    deadline.setSingleShot(true);
    connectToLoginManager();
}

SleepWatcher::~SleepWatcher()
{
    dropLock();
}

OVControllerEnumerator* SleepWatcher::enumerator() const
{
    return qobject_cast<OVControllerEnumerator*>(
        devices->enumeratorEntries().value(kBuiltInEnumerator).second);
}

void SleepWatcher::onPrepareForSleep(bool start)
{
    if (start && !asleep) {
        asleep = true;
        darken();
    } else if (!start) {
        takeLock();
        if (asleep) {
            asleep = false;
            checkDevices();
        }
    }
}

void SleepWatcher::endRound()
{
    deadline.stop();
    deadline.disconnect();
    for (const QMetaObject::Connection& c : qAsConst(round)) {
        disconnect(c);
    }
    round.clear();
    waitingFor.clear();
}

void SleepWatcher::darken()
{
    if (checking) {
        finishChecking(); // asleep again before every device answered: count what came
    }
    endRound();
    clock.start();
    written = 0;
    portsAtSleep.clear();
    if (OVControllerEnumerator* e = enumerator()) {
        e->holdArrivals();
    }
    const QStringList ids = devices->controllerNames();
    for (const QString& id : ids) {
        const AbsRGBControllerPtr controller = devices->controller(id);
        if (!controller) {
            continue;
        }
        portsAtSleep.insert(id, controller->controlOptions().portName);
        waitingFor.insert(id);
        round << connect(controller.data(), &AbsRGBController::darkened, this,
                         [this, id](bool ok) { onDarkened(id, ok); });
    }
    connect(&deadline, &QTimer::timeout, this, &SleepWatcher::finishDarkening);
    deadline.start(kDarkenDeadlineMs);
    for (const QString& id : ids) {
        if (const AbsRGBControllerPtr controller = devices->controller(id)) {
            controller->enterSleep(); // all queued at once: the ports darken in parallel
        }
    }
    if (waitingFor.isEmpty()) {
        finishDarkening();
    }
}

void SleepWatcher::onDarkened(const QString& id, bool ok)
{
    if (waitingFor.remove(id)) {
        written += ok ? 1 : 0;
        if (waitingFor.isEmpty()) {
            finishDarkening();
        }
    }
}

void SleepWatcher::finishDarkening()
{
    const int late = waitingFor.size();
    endRound();
    dropLock();
    qInfo().noquote() << kTag
                      << QStringLiteral("%1 of %2 strips dark before sleep after %3 ms%4")
                             .arg(written)
                             .arg(portsAtSleep.size())
                             .arg(clock.elapsed())
                             .arg(late > 0 ? QStringLiteral(", %1 without an answer").arg(late) : QString());
}

void SleepWatcher::checkDevices()
{
    endRound();
    clock.start();
    checking = true;
    resumed = 0;
    const QStringList ids = devices->controllerNames();
    for (const QString& id : ids) {
        const AbsRGBControllerPtr controller = devices->controller(id);
        if (!controller) {
            continue;
        }
        waitingFor.insert(id);
        round << connect(controller.data(), &AbsRGBController::woken, this,
                         [this, id](bool kept) { onWoken(id, kept); });
        // A device gone in the meantime still answers, through its port's failure.
        round << connect(controller.data(), &QObject::destroyed, this, [this, id] { onWoken(id, false); });
    }
    connect(&deadline, &QTimer::timeout, this, &SleepWatcher::finishChecking);
    deadline.start(kCheckDeadlineMs);
    for (const QString& id : ids) {
        if (const AbsRGBControllerPtr controller = devices->controller(id)) {
            controller->wake();
        }
    }
    if (waitingFor.isEmpty()) {
        finishChecking();
    }
}

void SleepWatcher::onWoken(const QString& id, bool kept)
{
    if (waitingFor.remove(id)) {
        resumed += kept ? 1 : 0;
        if (waitingFor.isEmpty()) {
            finishChecking();
        }
    }
}

void SleepWatcher::finishChecking()
{
    const int unanswered = waitingFor.size();
    endRound();
    checking = false;
    // Every device that did not come through, by this check or by an error while asleep, whose
    // port exists again is saluted as a new arrival: settings back, frames as before.
    const QStringList present = devices->controllerNames();
    QStringList arrivals;
    for (auto it = portsAtSleep.cbegin(); it != portsAtSleep.cend(); ++it) {
        if (!present.contains(it.key()) && QFileInfo::exists(it.value())) {
            arrivals << it.value();
        }
    }
    qInfo().noquote() << kTag
                      << QStringLiteral(
                             "After sleep %1 strips resumed, %2 come back as arrivals, checked in %3 ms%4")
                             .arg(resumed)
                             .arg(arrivals.size())
                             .arg(clock.elapsed())
                             .arg(unanswered > 0 ? QStringLiteral(", %1 without an answer").arg(unanswered)
                                                 : QString());
    portsAtSleep.clear();
    if (OVControllerEnumerator* e = enumerator()) {
        e->releaseArrivals(arrivals);
    }
}
