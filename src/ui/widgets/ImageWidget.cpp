#include "ui/widgets/ImageWidget.h"

#include <QPainter>
#include <QStyleOption>

ImageWidget::ImageWidget(QWidget* parent)
    : QWidget(parent)
{
}

void ImageWidget::setImg(QImage img)
{
    image = img;
    update();
}

void ImageWidget::paintEvent(QPaintEvent* event)
{
    Q_UNUSED(event)
    QPainter painter(this);
    // Let a style sheet background show until a picture is set.
    QStyleOption option;
    option.initFrom(this);
    style()->drawPrimitive(QStyle::PE_Widget, &option, &painter, this);
    if (image.isNull()) {
        return;
    }
    painter.setRenderHint(QPainter::SmoothPixmapTransform);
    painter.drawImage(QRectF(rect()), image, QRectF(image.rect()));
}
