#include "effects/screensync/panels/LEDItem.h"

#include "effects/screensync/panels/ScreenSyncEditScene.h"

#include <QFontMetricsF>
#include <QPainter>

LEDItem::LEDItem(int id, QGraphicsItem* parent)
    : QGraphicsRectItem(0, 0, 30, 30, parent)
    , id(id)
{
    setFlags(ItemIsMovable | ItemSendsGeometryChanges);
    // Drawn once, then blitted: the frame behind repaints the whole scene for every live frame.
    setCacheMode(DeviceCoordinateCache);
    setZValue(1); // numbered: above the squares without one
}

QString LEDItem::label() const
{
    return QStringLiteral("%1").arg(id + 1);
}

// The scene's font, so that the room the scene gives a number is the room it takes.
QFont LEDItem::labelFont() const
{
    QFont font = scene() ? scene()->font() : QFont();
    font.setPointSize(label().size() > 2 ? 15 : 20);
    return font;
}

QRectF LEDItem::labelRect() const
{
    const QFontMetricsF metrics(labelFont());
    QRectF box(0, 0, metrics.horizontalAdvance(label()), metrics.height());
    box.moveCenter(rect().center());
    return box;
}

void LEDItem::setLabelShown(bool shown)
{
    if (shown != labelShown) {
        labelShown = shown;
        setZValue(shown ? 1 : 0);
        update();
    }
}

void LEDItem::paint(QPainter* painter, const QStyleOptionGraphicsItem*, QWidget*)
{
    painter->setPen(QPen(QColor(0, 164, 237, 255), 2));
    painter->setBrush(QColor(0, 155, 224, 196));
    painter->drawRect(rect());
    if (!labelShown) {
        return;
    }
    painter->setFont(labelFont());
    painter->setPen(QColor(239, 239, 239, 255));
    painter->drawText(rect(), Qt::AlignCenter, label());
}

void LEDItem::mouseReleaseEvent(QGraphicsSceneMouseEvent* event)
{
    QGraphicsRectItem::mouseReleaseEvent(event);
    if (auto* editScene = qobject_cast<ScreenSyncEditScene*>(scene())) {
        editScene->dropItem(this);
    }
}
