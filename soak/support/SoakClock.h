#pragma once

#include <QElapsedTimer>
#include <QEventLoop>
#include <QTimer>
#include <QtGlobal>

#include <chrono>
#include <functional>

// The steady clock every party uses (the program's journal, the virtual device's frame times),
// and waiting for a condition while the event loop runs.
namespace SoakClock {

inline qint64 nowNs()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// Runs events until condition holds or waitMs have passed; whether it held.
inline bool waitFor(const std::function<bool()>& condition, int waitMs)
{
    if (condition()) {
        return true;
    }
    QElapsedTimer clock;
    clock.start();
    QEventLoop loop;
    QTimer poll;
    poll.setInterval(5);
    QObject::connect(&poll, &QTimer::timeout, &loop, [&] {
        if (condition() || clock.elapsed() >= waitMs) {
            loop.quit();
        }
    });
    poll.start();
    loop.exec();
    return condition();
}

// Runs events for ms milliseconds.
inline void pause(int ms)
{
    waitFor([] { return false; }, ms);
}

} // namespace SoakClock
