#pragma once

#include <QCoreApplication>
#include <QElapsedTimer>

// Runs the event loop, and the deletions handed to deleteLater (no outer loop runs them here),
// until `done` holds or `timeoutMs` pass; false on time-out.
template <typename Predicate> bool spinUntil(Predicate done, int timeoutMs)
{
    QElapsedTimer clock;
    clock.start();
    while (!done()) {
        if (clock.elapsed() > timeoutMs) {
            return false;
        }
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 5);
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }
    return true;
}
