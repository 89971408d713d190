#pragma once

#include <QGraphicsRectItem>
#include <QPoint>

// One LED of the layout editor: a numbered 30 x 30 square that snaps to the grid cell under its
// centre when dropped. The scene leaves out the number where it would cover another.
class LEDItem : public QGraphicsRectItem
{
public:
    explicit LEDItem(int id, QGraphicsItem* parent = nullptr);

    int id;
    QPoint gridPos; // as shown: mirrored when the scene is

    void paint(QPainter* painter, const QStyleOptionGraphicsItem* option, QWidget* widget) override;

    // The number's box in item coordinates, as paint draws it.
    QRectF labelRect() const;
    bool hasLabel() const { return labelShown; }
    void setLabelShown(bool shown);

protected:
    void mouseReleaseEvent(QGraphicsSceneMouseEvent* event) override;

private:
    QString label() const;
    QFont labelFont() const;

    bool labelShown = true;
};
