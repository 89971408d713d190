#pragma once

#include <QElapsedTimer>
#include <QObject>
#include <QTimer>

// A 10 ms timer on the calling thread that records how late it ever came: how long that thread's
// event loop was kept from running. Starts when made.
class StallProbe : public QObject
{
public:
    static constexpr int kIntervalMs = 10;

    StallProbe()
    {
        timer.setTimerType(Qt::PreciseTimer);
        connect(&timer, &QTimer::timeout, this,
                [this] { worst = qMax(worst, clock.restart() - kIntervalMs); });
        clock.start();
        timer.start(kIntervalMs);
    }
    // The longest delay past the interval, in milliseconds.
    qint64 worstLateMs() const { return worst; }

private:
    QTimer timer;
    QElapsedTimer clock;
    qint64 worst = 0;
};
