#pragma once

#include <QColor>
#include <QGraphicsItem>
#include <QObject>

// One stop of a gradient bar: a 20 x 20 square that slides along the bar. Its position runs
// from 0.0 at the bar's left end to 1.0 at its right end.
class GradientHandler : public QObject, public QGraphicsItem
{
    Q_OBJECT
    Q_INTERFACES(QGraphicsItem)
public:
    explicit GradientHandler(const QColor& color, QObject* parent = nullptr);

    QRectF boundingRect() const override;
    void paint(QPainter* painter, const QStyleOptionGraphicsItem* option, QWidget* widget) override;

    // Places the handle at p (bounded to 0.0 .. 1.0) of the scene's width; y stays.
    void setPos(double p);
    using QGraphicsItem::setPos;

    QColor color;
    double pos = 0.0;

signals:
    void posChanged(double pos);
    void requestChangeColor();
    void requestDelete();

protected:
    void mouseMoveEvent(QGraphicsSceneMouseEvent* event) override;
    void contextMenuEvent(QGraphicsSceneContextMenuEvent* event) override;
};
