#pragma once

#include <QGraphicsRectItem>
#include <QImage>

// The layout editor's background: the frame the strip reads, drawn without smoothing so each
// cell shows the pixel its LED takes; mid-grey before the first frame.
class FrameItem : public QGraphicsRectItem
{
public:
    explicit FrameItem(QGraphicsItem* parent = nullptr);

    QImage frame;

    void paint(QPainter* painter, const QStyleOptionGraphicsItem* option, QWidget* widget) override;
};
