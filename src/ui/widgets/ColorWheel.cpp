#include "ui/widgets/ColorWheel.h"

#include <QConicalGradient>
#include <QMouseEvent>
#include <QPainter>
#include <QPainterPath>

#include <cmath>

namespace {
// The ring's hue formula uses this rather than pi; the small error is part of its behaviour.
constexpr double kPi = 3.14;
} // namespace

ColorWheel::ColorWheel(QWidget* parent)
    : QWidget(parent)
{
}

QSize ColorWheel::sizeHint() const
{
    return QSize(height(), height());
}

QSize ColorWheel::minimumSizeHint() const
{
    return initSize;
}

int ColorWheel::sideLength() const
{
    return qMin(width() - 1, height() - 1) + 1;
}

void ColorWheel::resizeEvent(QResizeEvent* event)
{
    QWidget::resizeEvent(event);
    wheelWidth = int(qMin(width(), height()) * 0.1);
    drawWheelImage(size());
    drawSquareImage(current.hue());
    update();
}

void ColorWheel::drawWheelImage(const QSize& newSize)
{
    const qreal ratio = devicePixelRatioF();
    renderedRatio = ratio;
    const int m = qMin(newSize.width(), newSize.height());
    wheelImage = QImage(newSize * ratio, QImage::Format_ARGB32_Premultiplied);
    wheelImage.setDevicePixelRatio(ratio);
    wheelImage.fill(Qt::transparent);

    QConicalGradient conical(0, 0, 0);
    conical.setColorAt(0.0, Qt::red);
    conical.setColorAt(1.0 / 6, Qt::yellow);
    conical.setColorAt(1.0 / 3, Qt::green);
    conical.setColorAt(0.5, Qt::cyan);
    conical.setColorAt(2.0 / 3, Qt::blue);
    conical.setColorAt(5.0 / 6, Qt::magenta);
    conical.setColorAt(1.0, Qt::red);

    offsetX = (newSize.width() - m) / 2;
    offsetY = (newSize.height() - m) / 2;
    const double r = m / 2.0;
    QPainterPath ring;
    ring.addEllipse(QPointF(0, 0), r - margin, r - margin);
    ring.addEllipse(QPointF(0, 0), r - margin - wheelWidth, r - margin - wheelWidth);

    QPainter painter(&wheelImage);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.translate(offsetX + r, offsetY + r);
    painter.setPen(Qt::NoPen);
    painter.setBrush(QBrush(conical));
    painter.drawPath(ring);
    painter.end();

    const int outer = m - 2 * margin;
    const int inner = m - 2 * (margin + wheelWidth);
    wheelRegion = QRegion(offsetX + margin, offsetY + margin, outer, outer, QRegion::Ellipse)
                      .subtracted(QRegion(offsetX + margin + wheelWidth, offsetY + margin + wheelWidth, inner,
                                          inner, QRegion::Ellipse));
    backgroundImage = wheelImage;
    backgroundPixmap = QPixmap::fromImage(wheelImage);
    backgroundPixmap.setDevicePixelRatio(ratio);
}

void ColorWheel::drawSquareImage(int hue)
{
    const int side = sideLength();
    const int radius = side / 2 - margin - wheelWidth;
    const double half = radius / std::sqrt(2.0);
    const double corner = side * 0.5 - half;

    QImage square(255, 255, QImage::Format_ARGB32_Premultiplied);
    for (int y = 0; y < 255; ++y) {
        auto* line = reinterpret_cast<QRgb*>(square.scanLine(y));
        for (int x = 0; x < 255; ++x) {
            line[x] = QColor::fromHsv(hue, x, y, 255).rgba();
        }
    }
    const int s = qMax(1, int(2 * radius / std::sqrt(2.0)));
    const qreal ratio = devicePixelRatioF();
    squareImage = square.scaled(QSize(s, s) * ratio, Qt::IgnoreAspectRatio, Qt::FastTransformation);
    squareImage.setDevicePixelRatio(ratio);
    squareRegion = QRegion(int(offsetX + corner), int(offsetY + corner), s, s);
}

void ColorWheel::paintEvent(QPaintEvent*)
{
    const qreal ratio = devicePixelRatioF();
    if (!qFuzzyCompare(ratio, renderedRatio)) {
        // Moved to a screen of another density: the images are made anew for it.
        drawWheelImage(size());
        drawSquareImage(current.hue());
    }
    if (backgroundPixmap.isNull()) {
        return;
    }
    // Straight onto the widget: the ring is the kept background, so nothing is composed twice.
    QPainter painter(this);
    painter.drawPixmap(0, 0, backgroundPixmap);
    painter.drawImage(squareRegion.boundingRect().topLeft(), squareImage);
    drawIndicator(painter, current.hue());
    drawPicker(painter, current);
}

void ColorWheel::drawIndicator(QPainter& painter, int hue) const
{
    painter.save();
    painter.setRenderHint(QPainter::Antialiasing);
    const int side = sideLength();
    painter.translate(offsetX + side / 2.0, offsetY + side / 2.0);
    painter.rotate(-hue);
    painter.setPen(QPen(hue >= 21 && hue <= 199 ? Qt::black : Qt::white, 3));
    painter.setBrush(Qt::NoBrush);
    painter.drawEllipse(QPointF(side / 2.0 - margin - wheelWidth / 2.0, 0), 5, 5);
    painter.restore();
}

void ColorWheel::drawPicker(QPainter& painter, const QColor& color) const
{
    painter.save();
    painter.setRenderHint(QPainter::Antialiasing);
    const int side = sideLength();
    const int radius = side / 2 - margin - wheelWidth;
    const double corner = side * 0.5 - radius / std::sqrt(2.0);
    const int s = int(2 * radius / std::sqrt(2.0));
    const bool dark = color.saturation() < 31 && color.value() >= 50;
    painter.setPen(QPen(dark ? Qt::black : Qt::white, 3));
    painter.setBrush(Qt::NoBrush);
    painter.translate(offsetX + corner - 5, offsetY + corner - 5);
    painter.drawEllipse(QRectF(int(color.saturationF() * s), int(color.valueF() * s), 10, 10));
    painter.restore();
}

QColor ColorWheel::posColor(const QPoint& point) const
{
    if (!QRect(QPoint(0, 0), size()).contains(point)) {
        return QColor();
    }
    if (wheelRegion.contains(point)) {
        const int x = point.x() - offsetX;
        const int y = point.y() - offsetY;
        const int c = (qMin(width() - offsetX, height() - offsetY) + 1) / 2;
        double hue = 0.0;
        if (x <= c && y < c) {
            hue = std::atan2(c - x, c - y) / kPi * 0.5 * 360 + 90;
        } else if (x <= c) {
            hue = 270 - std::atan2(c - x, y - c) / kPi * 0.5 * 360;
        } else if (y < c) {
            hue = 90 - std::atan2(x - c, c - y) / kPi * 0.5 * 360;
        } else {
            hue = std::atan2(x - c, y - c) / kPi * 0.5 * 360 + 270;
        }
        hue = qBound(0.0, hue, 359.0);
        return QColor::fromHsv(int(hue), current.saturation(), current.value(), 255);
    }
    if (squareRegion.contains(point)) {
        const int side = sideLength();
        const int radius = side / 2 - margin - wheelWidth;
        const double corner = side * 0.5 - radius / std::sqrt(2.0);
        const double s = int(2 * radius / std::sqrt(2.0));
        const double saturation = qBound(0.0, (point.x() - int(corner) - offsetX) / s, 1.0);
        const double value = qBound(0.0, (point.y() - int(corner) - offsetY) / s, 1.0);
        return QColor::fromHsvF(current.hueF(), saturation, value, 1.0);
    }
    return QColor();
}

void ColorWheel::mousePressEvent(QMouseEvent* event)
{
    lastPos = event->pos();
    if (wheelRegion.contains(lastPos)) {
        inWheel = true;
        inSquare = false;
        hueChanged(posColor(lastPos).hue());
    } else if (squareRegion.contains(lastPos)) {
        inSquare = true;
        inWheel = false;
        svChanged(posColor(lastPos));
    }
    mouseDown = true;
}

void ColorWheel::mouseMoveEvent(QMouseEvent* event)
{
    lastPos = event->pos();
    if (!mouseDown) {
        return;
    }
    // A drag that leaves the part it started on is ignored until it comes back.
    if (wheelRegion.contains(lastPos) && inWheel) {
        hueChanged(posColor(lastPos).hue());
    } else if (squareRegion.contains(lastPos) && inSquare) {
        svChanged(posColor(lastPos));
    }
}

void ColorWheel::mouseReleaseEvent(QMouseEvent*)
{
    mouseDown = false;
    inWheel = false;
    inSquare = false;
}

void ColorWheel::hueChanged(int hue)
{
    if (hue < 360) {
        current = QColor::fromHsv(hue, current.saturation(), current.value(), 255);
        drawSquareImage(hue);
    }
    if (isVisible()) {
        repaint();
        emit colorChanged(current);
    }
}

void ColorWheel::svChanged(QColor newcolor)
{
    current = QColor::fromHsv(current.hue(), newcolor.saturation(), newcolor.value(), 255);
    if (isVisible()) {
        repaint();
        emit colorChanged(current);
    }
}

void ColorWheel::setColor(QColor color)
{
    if (color == current) {
        return;
    }
    if (color.hue() != current.hue()) {
        hueChanged(color.hue());
    }
    if (color.saturation() != current.saturation() || color.value() != current.value()) {
        svChanged(color);
    }
    update();
    emit colorChanged(color);
}
