#include "effects/music/PeakFollower.h"

#include <QDateTime>

#include <algorithm>

namespace {

PeakFollower::Clock clockOverride = nullptr;

} // namespace

void PeakFollower::setClock(Clock clock)
{
    clockOverride = clock;
}

qint64 PeakFollower::now()
{
    return clockOverride ? clockOverride() : QDateTime::currentMSecsSinceEpoch();
}

double PeakFollower::update(double input)
{
    const double v = std::clamp(input, 0.0, 80.0);
    const qint64 t = now();
    const double fall = fallTimeMs * (peak / 80.0);
    const double dt = static_cast<double>(t - peakTime);
    // With no peak there is no fall: the first sound passes at once, even in the same ms.
    if (dt > fall || fall <= 0.0) {
        peak = v;
        peakTime = t;
        return v;
    }
    const double current = (1.0 - dt / fall) * peak;
    if (v > current) {
        peak = v;
        peakTime = t;
        return v;
    }
    return current;
}
