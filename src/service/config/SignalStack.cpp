#include "service/config/SignalStack.h"

#include <QThread>
#include <QVariant>

namespace {
// Marks a thread already watched, so that a second watch() adds no second pair of connections.
constexpr char kWatchedProperty[] = "orvanta.signalStackWatched";
} // namespace

bool SignalStack::enabled()
{
#ifdef ORVANTA_SANITIZED
    return false;
#else
    return true;
#endif
}

void SignalStack::watch(QThread* thread)
{
    if (!enabled() || !thread || thread->property(kWatchedProperty).toBool()) {
        return;
    }
    thread->setProperty(kWatchedProperty, true);
    // Direct: both signals are emitted on the thread itself, which is where the stack belongs.
    QObject::connect(thread, &QThread::started, thread, &SignalStack::installForCurrentThread,
                     Qt::DirectConnection);
    QObject::connect(thread, &QThread::finished, thread, &SignalStack::removeForCurrentThread,
                     Qt::DirectConnection);
}
