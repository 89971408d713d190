#pragma once

#include <QColor>
#include <QGradientStop>
#include <QList>
#include <QString>

// One named gradient of the mood shadow effect: a closed loop that starts and ends in endsColor.
struct ColorStrap
{
    QString name;
    QString uuid;
    QList<QGradientStop> keyColors;
    QColor endsColor;
    double speed = 0.0; // whole strip lengths per second
    double range = 0.5; // share of the gradient that fits on the strip
};
