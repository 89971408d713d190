#include "effects/screensync/panels/FrameWidget.h"

#include <QPainter>

FrameWidget::FrameWidget(QWidget* parent)
    : QWidget(parent)
{
}

void FrameWidget::setImage(QImage img)
{
    image = img;
    update();
}

void FrameWidget::paintEvent(QPaintEvent*)
{
    if (image.isNull()) {
        return;
    }
    const float s = std::min(float(width()) / float(image.width()), float(height()) / float(image.height()));
    const QSizeF size(image.width() * s, image.height() * s);
    QRectF target(QPointF(), size);
    target.moveCenter(QRectF(rect()).center());
    QPainter painter(this);
    painter.drawImage(target, image);
}
