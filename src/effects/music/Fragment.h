#pragma once

#include <QList>

// One bar of the level meter: a run of LEDs that follows one band of one or both channels.
struct Fragment
{
    int beginIndex = 0; // first LED over all lines in strip order
    int endIndex = 0;   // the LED after the last one
    double dbEnhance = 0.0;
    double mulEnhance = 1.0;
    double minFrequency = 0.0;
    double maxFrequency = 0.0;
    int soundChannel = 0;       // 1 left, 2 right, else the louder of both
    int dir = 0;                // 0 grows from beginIndex, 1 from endIndex - 1; else lights nothing
    QList<double> recentLevels; // for the fall smoothing; never stored
};
