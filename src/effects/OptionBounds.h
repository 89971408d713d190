#pragma once

#include <QJsonValue>
#include <QtGlobal>

#include <cmath>

// Effect options read from files, kept within what their panels can set. A number outside the
// bounds is moved to the nearer bound; anything that is not a number gives the fallback.
namespace OptionBounds {

inline double number(const QJsonValue& value, double lo, double hi, double fallback)
{
    return value.isDouble() ? qBound(lo, value.toDouble(), hi) : fallback;
}

// Bounded while still a double, so that no conversion can overflow; a fraction is dropped.
inline int integer(const QJsonValue& value, int lo, int hi, int fallback)
{
    return value.isDouble() ? static_cast<int>(std::trunc(qBound(double(lo), value.toDouble(), double(hi))))
                            : fallback;
}

// A colour channel: 0 to 255, rounded.
inline int channel(const QJsonValue& value)
{
    return static_cast<int>(std::lround(number(value, 0.0, 255.0, 0.0)));
}

} // namespace OptionBounds
