#pragma once

#include <QGraphicsRectItem>
#include <QPoint>

// One LED of the layout editor: a numbered 30 x 30 square that snaps to the grid cell under its
// centre when dropped.
class LEDItem : public QGraphicsRectItem
{
public:
    explicit LEDItem(int id, QGraphicsItem* parent = nullptr);

    int id;
    QPoint gridPos; // as shown: mirrored when the scene is

    void paint(QPainter* painter, const QStyleOptionGraphicsItem* option, QWidget* widget) override;

protected:
    void mouseReleaseEvent(QGraphicsSceneMouseEvent* event) override;
};
