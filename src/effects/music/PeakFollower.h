#pragma once

#include <QtGlobal>

// A peak that falls in a straight line, from full scale to silence in fallTimeMs; higher peaks
// take longer to fall.
struct PeakFollower
{
    double peak = 0.0;
    qint64 peakTime = 0; // ms since the epoch
    qint64 fallTimeMs = 500;

    double update(double input);

    // The clock in ms since the epoch; tests set their own, nullptr restores the wall clock.
    using Clock = qint64 (*)();
    static void setClock(Clock clock);
    static qint64 now();
};
