#include "ui/widgets/GradientHandler.h"

#include <QGraphicsScene>
#include <QGraphicsSceneContextMenuEvent>
#include <QGraphicsSceneMouseEvent>
#include <QMenu>
#include <QPainter>

GradientHandler::GradientHandler(const QColor& color, QObject* parent)
    : QObject(parent)
    , color(color)
{
    setFlag(ItemIsMovable);
}

QRectF GradientHandler::boundingRect() const
{
    return QRectF(0, 0, 20, 20);
}

void GradientHandler::paint(QPainter* painter, const QStyleOptionGraphicsItem*, QWidget*)
{
    painter->setBrush(color);
    painter->setPen(color);
    painter->fillRect(QRect(QPoint(0, 0), QPoint(19, 19)), color);
}

void GradientHandler::setPos(double p)
{
    pos = qBound(0.0, p, 1.0);
    const double width = scene() ? scene()->sceneRect().width() : 0.0;
    setX(pos * width - boundingRect().width() * 0.5);
}

void GradientHandler::mouseMoveEvent(QGraphicsSceneMouseEvent* event)
{
    const qreal keptY = y();
    QGraphicsItem::mouseMoveEvent(event);
    if (!scene()) {
        return;
    }
    const QRectF bar = scene()->sceneRect();
    setX(qBound(bar.left() - 10, x(), bar.left() + bar.width() - 10));
    setY(keptY);
    pos = bar.width() > 0 ? qBound(0.0, (x() + 10) / bar.width(), 1.0) : 0.0;
    emit posChanged(pos);
}

void GradientHandler::contextMenuEvent(QGraphicsSceneContextMenuEvent* event)
{
    QMenu menu;
    QAction* change = menu.addAction(tr("修改"));
    // The two ends of the bar can't move, and can't be deleted either.
    QAction* remove = (flags() & ItemIsMovable) ? menu.addAction(tr("删除")) : nullptr;
    QAction* chosen = menu.exec(event->screenPos());
    if (chosen && chosen == change) {
        emit requestChangeColor();
    } else if (chosen && chosen == remove) {
        emit requestDelete();
    }
}
