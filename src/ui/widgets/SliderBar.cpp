#include "ui/widgets/SliderBar.h"

#include <QKeyEvent>
#include <QLinearGradient>
#include <QMouseEvent>
#include <QPainter>
#include <QTimer>

#include <cmath>

SliderBar::SliderBar(QWidget* parent)
    : QWidget(parent)
    , timer(new QTimer(this))
{
    timer->setInterval(10);
    connect(timer, &QTimer::timeout, this, &SliderBar::slide);
}

void SliderBar::setBgColorStart(const QColor& color)
{
    bgColorStart_ = color;
    update();
}

void SliderBar::setBgColorEnd(const QColor& color)
{
    bgColorEnd_ = color;
    update();
}

void SliderBar::setBarColorStart(const QColor& color)
{
    barColorStart_ = color;
    update();
}

void SliderBar::setBarColorEnd(const QColor& color)
{
    barColorEnd_ = color;
    update();
}

void SliderBar::setTextNormalColor(const QColor& color)
{
    textNormalColor_ = color;
    update();
}

void SliderBar::setTextSelectColor(const QColor& color)
{
    textSelectColor_ = color;
    update();
}

void SliderBar::setItems(const QString& items)
{
    items_ = items;
    itemList.clear();
    const QStringList texts = items.split(QLatin1Char(';'), Qt::SkipEmptyParts);
    for (const QString& text : texts) {
        itemList.append(Item{text, QRectF()});
    }
    layoutItems();
    updateGeometry();
    update();
}

void SliderBar::setCurrentIndex(int index)
{
    if (index >= 0 && index < itemList.size()) {
        moveTo(index);
    }
}

void SliderBar::setCurrentItem(const QString& item)
{
    for (int i = 0; i < itemList.size(); ++i) {
        if (itemList[i].text == item) {
            moveTo(i);
            return;
        }
    }
    // Not an item yet: the next resize looks it up again.
    currentItem_ = item;
}

void SliderBar::setBgRadius(int radius)
{
    bgRadius_ = radius;
    update();
}

void SliderBar::setBarRadius(int radius)
{
    barRadius_ = radius;
    update();
}

void SliderBar::setSpace(int space)
{
    space_ = space;
    layoutItems();
    updateGeometry();
    update();
}

void SliderBar::setLineWidth(int width)
{
    lineWidth_ = width;
    update();
}

void SliderBar::setLineColor(const QColor& color)
{
    lineColor_ = color;
    update();
}

void SliderBar::setBarStyle(SliderBar::BarStyle style)
{
    barStyle_ = style;
    update();
}

void SliderBar::setKeyMove(bool keyMove)
{
    keyMove_ = keyMove;
    setFocusPolicy(keyMove ? Qt::StrongFocus : Qt::NoFocus);
}

void SliderBar::setHorizontal(bool horizontal)
{
    horizontal_ = horizontal;
    layoutItems();
    updateGeometry();
    update();
}

void SliderBar::setFlat(bool flat)
{
    flat_ = flat;
    update();
}

void SliderBar::clearItem()
{
    timer->stop();
    items_.clear();
    itemList.clear();
    currentIndex_ = -1;
    currentItem_.clear();
    barRect_ = QRectF();
    targetRect = QRectF();
    position = 0.0;
    update();
}

void SliderBar::moveFirst()
{
    moveTo(0);
}

void SliderBar::moveLast()
{
    moveTo(itemList.size() - 1);
}

void SliderBar::movePrevious()
{
    if (currentIndex_ > 0) {
        moveTo(currentIndex_ - 1);
    }
}

void SliderBar::moveNext()
{
    if (currentIndex_ < itemList.size() - 1) {
        moveTo(currentIndex_ + 1);
    }
}

void SliderBar::moveTo(int index)
{
    if (index < 0 || index >= itemList.size()) {
        return;
    }
    layoutItems();
    moveTo(itemList[index].rect.center());
}

void SliderBar::moveTo(const QString& item)
{
    for (int i = 0; i < itemList.size(); ++i) {
        if (itemList[i].text == item) {
            moveTo(i);
            return;
        }
    }
}

void SliderBar::moveTo(const QPointF& point)
{
    layoutItems();
    int index = -1;
    for (int i = 0; i < itemList.size(); ++i) {
        if (itemList[i].rect.contains(point)) {
            index = i;
            break;
        }
    }
    if (index < 0) {
        return;
    }
    currentIndex_ = index;
    currentItem_ = itemList[index].text;
    emit currentItemChanged(currentIndex_, currentItem_);

    targetRect = itemList[index].rect;
    position = horizontal_ ? barRect_.left() : barRect_.top();
    const double target = horizontal_ ? targetRect.left() : targetRect.top();
    forward = target >= position;
    // Start fast and brake by one pixel per tick: the first step is the smallest v >= 2 with
    // v * v over the distance, times 1.4.
    const double distance = std::fabs(target - position);
    int v = 1;
    if (distance >= 1.0) {
        v = 2;
        while (double(v) * v <= distance) {
            ++v;
        }
    }
    step = int(v * 1.4);
    timer->start();
}

void SliderBar::slide()
{
    if (step > 1) {
        --step;
    }
    const double target = horizontal_ ? targetRect.left() : targetRect.top();
    position += forward ? step : -step;
    if ((forward && position >= target) || (!forward && position <= target)) {
        position = target;
        timer->stop();
    }
    barRect_ = barAt(position);
    update();
}

QRectF SliderBar::barAt(double at) const
{
    QRectF rect = targetRect;
    if (horizontal_) {
        rect.moveLeft(at);
    } else {
        rect.moveTop(at);
    }
    return rect;
}

QRectF SliderBar::itemRect(int index)
{
    layoutItems();
    if (index < 0 || index >= itemList.size()) {
        return QRectF();
    }
    return itemList[index].rect;
}

void SliderBar::layoutItems()
{
    const QFontMetrics metrics(font());
    int extent = metrics.height();
    if (horizontal_) {
        // The text with the most characters sets one width for all items.
        QString longest;
        for (const Item& item : qAsConst(itemList)) {
            if (item.text.size() > longest.size()) {
                longest = item.text;
            }
        }
        extent = metrics.horizontalAdvance(longest);
    }
    double start = 0.0;
    for (Item& item : itemList) {
        const double length = extent + space_;
        item.rect = horizontal_ ? QRectF(start, 0.0, length, height()) : QRectF(0.0, start, width(), length);
        start += length;
    }
    // Follow a size change across the bar without restarting the glide.
    if (currentIndex_ >= 0 && currentIndex_ < itemList.size()) {
        targetRect = itemList[currentIndex_].rect;
        if (!timer->isActive()) {
            barRect_ = targetRect;
            position = horizontal_ ? barRect_.left() : barRect_.top();
        } else {
            barRect_ = barAt(position);
        }
    }
}

QSize SliderBar::sizeHint() const
{
    const QFontMetrics metrics(font());
    int longest = 0;
    for (const Item& item : itemList) {
        longest = qMax(longest, metrics.horizontalAdvance(item.text));
    }
    const int count = qMax(1, itemList.size());
    if (horizontal_) {
        return QSize(count * (longest + space_), metrics.height() + space_);
    }
    return QSize(longest + space_, count * (metrics.height() + space_));
}

QSize SliderBar::minimumSizeHint() const
{
    return sizeHint();
}

void SliderBar::paintEvent(QPaintEvent* event)
{
    Q_UNUSED(event)
    layoutItems();
    QPainter painter(this);
    painter.setRenderHints(QPainter::Antialiasing | QPainter::TextAntialiasing);
    drawBackground(painter);
    drawBar(painter);
    drawText(painter);
}

void SliderBar::drawBackground(QPainter& painter)
{
    painter.save();
    painter.setPen(Qt::NoPen);
    if (flat_) {
        painter.setBrush(bgColorStart_);
    } else {
        QLinearGradient gradient(QPointF(0, 0), QPointF(0, height()));
        gradient.setColorAt(0.0, bgColorStart_);
        gradient.setColorAt(1.0, bgColorEnd_);
        painter.setBrush(gradient);
    }
    painter.drawRoundedRect(rect(), bgRadius_, bgRadius_);
    painter.restore();
}

void SliderBar::drawBar(QPainter& painter)
{
    if (barRect_.isEmpty()) {
        return;
    }
    painter.save();
    QBrush brush(barColorStart_);
    if (!flat_) {
        QLinearGradient gradient(barRect_.topLeft(), barRect_.bottomLeft());
        gradient.setColorAt(0.0, barColorStart_);
        gradient.setColorAt(1.0, barColorEnd_);
        brush = QBrush(gradient);
    }
    if (barStyle_ == BarStyle_Rect) {
        painter.setPen(Qt::NoPen);
        painter.setBrush(brush);
        painter.drawRoundedRect(barRect_, barRadius_, barRadius_);
        painter.restore();
        return;
    }
    painter.setPen(QPen(brush, lineWidth_));
    painter.setBrush(brush);
    painter.drawRoundedRect(barRect_, barRadius_, barRadius_);

    painter.setPen(QPen(lineColor_, lineWidth_));
    const double inset = lineWidth_ / 2.0;
    const QRectF& r = barRect_;
    switch (barStyle_) {
    case BarStyle_Line_Top:
        painter.drawLine(QPointF(r.left(), r.top() + inset), QPointF(r.right(), r.top() + inset));
        break;
    case BarStyle_Line_Right:
        painter.drawLine(QPointF(r.right() - inset, r.top()), QPointF(r.right() - inset, r.bottom()));
        break;
    case BarStyle_Line_Bottom:
        painter.drawLine(QPointF(r.left(), r.bottom() - inset), QPointF(r.right(), r.bottom() - inset));
        break;
    case BarStyle_Line_Left:
        painter.drawLine(QPointF(r.left() + inset, r.top()), QPointF(r.left() + inset, r.bottom()));
        break;
    case BarStyle_Rect:
        break;
    }
    painter.restore();
}

void SliderBar::drawText(QPainter& painter)
{
    painter.save();
    for (int i = 0; i < itemList.size(); ++i) {
        painter.setPen(i == currentIndex_ ? textSelectColor_ : textNormalColor_);
        painter.drawText(itemList[i].rect, Qt::AlignCenter, itemList[i].text);
    }
    painter.restore();
}

void SliderBar::resizeEvent(QResizeEvent* event)
{
    QWidget::resizeEvent(event);
    if (itemList.isEmpty()) {
        return;
    }
    if (currentItem_.isEmpty()) {
        currentIndex_ = 0;
        currentItem_ = itemList.first().text;
    }
    int index = 0;
    for (int i = 0; i < itemList.size(); ++i) {
        if (itemList[i].text == currentItem_) {
            index = i;
            break;
        }
    }
    moveTo(index);
}

void SliderBar::mousePressEvent(QMouseEvent* event)
{
    moveTo(event->localPos());
}

void SliderBar::keyPressEvent(QKeyEvent* event)
{
    if (!keyMove_) {
        QWidget::keyPressEvent(event);
        return;
    }
    switch (event->key()) {
    case Qt::Key_Left:
    case Qt::Key_Up:
        movePrevious();
        break;
    case Qt::Key_Right:
    case Qt::Key_Down:
        moveNext();
        break;
    default:
        QWidget::keyPressEvent(event);
        break;
    }
}
