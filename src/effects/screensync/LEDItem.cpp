#include "LEDItem.h"

#include "ScreenSyncEditScene.h"

#include <QPainter>

LEDItem::LEDItem(int id, QGraphicsItem* parent)
    : QGraphicsRectItem(0, 0, 30, 30, parent)
    , id(id)
{
    setFlags(ItemIsMovable | ItemSendsGeometryChanges);
    // Drawn once, then blitted: the frame behind repaints the whole scene for every live frame.
    setCacheMode(DeviceCoordinateCache);
}

void LEDItem::paint(QPainter* painter, const QStyleOptionGraphicsItem*, QWidget*)
{
    painter->setPen(QPen(QColor(0, 164, 237, 255), 2));
    painter->setBrush(QColor(0, 155, 224, 196));
    painter->drawRect(rect());
    const QString label = QStringLiteral("%1").arg(id + 1);
    QFont font = painter->font();
    font.setPointSize(label.size() > 2 ? 15 : 20);
    painter->setFont(font);
    painter->setPen(QColor(239, 239, 239, 255));
    painter->drawText(rect(), Qt::AlignCenter, label);
}

void LEDItem::mouseReleaseEvent(QGraphicsSceneMouseEvent* event)
{
    QGraphicsRectItem::mouseReleaseEvent(event);
    if (auto* editScene = qobject_cast<ScreenSyncEditScene*>(scene())) {
        editScene->dropItem(this);
    }
}
