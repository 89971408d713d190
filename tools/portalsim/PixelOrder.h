#pragma once

#include <QByteArray>
#include <QImage>
#include <QString>
#include <QVector>

// The byte orders of the screen cast streams, as PipeWire names them (SPA_VIDEO_FORMAT_*): the
// order of the four bytes of each pixel in memory. "x" is padding, which the simulator fills with
// 0 so that a reader taking it for alpha shows up; "A" is 255.
enum class PixelOrder
{
    BGRx,
    RGBx,
    xBGR,
    xRGB,
    BGRA,
    RGBA,
};

namespace PixelOrders {
QVector<PixelOrder> all();
QString name(PixelOrder order);
// The order named by name() (case as there); false in ok for anything else.
PixelOrder fromName(const QString& name, bool* ok);
// The image's pixels in the order, rows of width * 4 bytes, top row first.
QByteArray pack(const QImage& image, PixelOrder order);
// One pixel's four bytes.
void packPixel(uchar* out, QRgb colour, PixelOrder order);
} // namespace PixelOrders
