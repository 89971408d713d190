#pragma once

#include <QMetaType>
#include <QVector>
#include <cstdint>

// One LED's colour; vectors of it go to the wire byte for byte, so the layout is the wire order.
struct OV_RGB
{
    uint8_t r = 0;
    uint8_t g = 0;
    uint8_t b = 0;
};
static_assert(sizeof(OV_RGB) == 3, "OV_RGB must be exactly 3 bytes with no padding");

inline bool operator==(const OV_RGB& a, const OV_RGB& b)
{
    return a.r == b.r && a.g == b.g && a.b == b.b;
}
inline bool operator!=(const OV_RGB& a, const OV_RGB& b)
{
    return !(a == b);
}

Q_DECLARE_METATYPE(OV_RGB)
Q_DECLARE_METATYPE(QVector<OV_RGB>)
Q_DECLARE_METATYPE(QVector<QVector<OV_RGB>>)
