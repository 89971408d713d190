#include "PixelOrder.h"

namespace PixelOrders {

QVector<PixelOrder> all()
{
    return {PixelOrder::BGRx, PixelOrder::RGBx, PixelOrder::xBGR,
            PixelOrder::xRGB, PixelOrder::BGRA, PixelOrder::RGBA};
}

QString name(PixelOrder order)
{
    switch (order) {
    case PixelOrder::BGRx:
        return QStringLiteral("BGRx");
    case PixelOrder::RGBx:
        return QStringLiteral("RGBx");
    case PixelOrder::xBGR:
        return QStringLiteral("xBGR");
    case PixelOrder::xRGB:
        return QStringLiteral("xRGB");
    case PixelOrder::BGRA:
        return QStringLiteral("BGRA");
    case PixelOrder::RGBA:
        return QStringLiteral("RGBA");
    }
    return QString();
}

PixelOrder fromName(const QString& text, bool* ok)
{
    for (PixelOrder order : all()) {
        if (name(order) == text) {
            *ok = true;
            return order;
        }
    }
    *ok = false;
    return PixelOrder::BGRx;
}

void packPixel(uchar* out, QRgb colour, PixelOrder order)
{
    const uchar r = uchar(qRed(colour));
    const uchar g = uchar(qGreen(colour));
    const uchar b = uchar(qBlue(colour));
    switch (order) {
    case PixelOrder::BGRx:
        out[0] = b, out[1] = g, out[2] = r, out[3] = 0;
        break;
    case PixelOrder::RGBx:
        out[0] = r, out[1] = g, out[2] = b, out[3] = 0;
        break;
    case PixelOrder::xBGR:
        out[0] = 0, out[1] = b, out[2] = g, out[3] = r;
        break;
    case PixelOrder::xRGB:
        out[0] = 0, out[1] = r, out[2] = g, out[3] = b;
        break;
    case PixelOrder::BGRA:
        out[0] = b, out[1] = g, out[2] = r, out[3] = 255;
        break;
    case PixelOrder::RGBA:
        out[0] = r, out[1] = g, out[2] = b, out[3] = 255;
        break;
    }
}

QByteArray pack(const QImage& image, PixelOrder order)
{
    const QImage rgb = image.convertToFormat(QImage::Format_RGB32);
    QByteArray out(rgb.width() * rgb.height() * 4, Qt::Uninitialized);
    uchar* at = reinterpret_cast<uchar*>(out.data());
    for (int y = 0; y < rgb.height(); ++y) {
        const QRgb* line = reinterpret_cast<const QRgb*>(rgb.constScanLine(y));
        for (int x = 0; x < rgb.width(); ++x, at += 4) {
            packPixel(at, line[x], order);
        }
    }
    return out;
}

} // namespace PixelOrders
