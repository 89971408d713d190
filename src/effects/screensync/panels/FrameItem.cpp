#include "effects/screensync/panels/FrameItem.h"

#include "effects/screensync/panels/ScreenSyncEditScene.h"

#include <QPainter>
#include <QStyleOptionGraphicsItem>

FrameItem::FrameItem(QGraphicsItem* parent)
    : QGraphicsRectItem(parent)
{
    setFlag(ItemIsMovable, false);
}

void FrameItem::paint(QPainter* painter, const QStyleOptionGraphicsItem* option, QWidget*)
{
    const QRectF exposed = option->exposedRect.isEmpty() ? rect() : option->exposedRect;
    if (frame.isNull()) {
        painter->fillRect(exposed, QColor(120, 120, 120, 255));
        return;
    }
    auto* editScene = qobject_cast<ScreenSyncEditScene*>(scene());
    const bool mirrored = editScene && editScene->deviceDirection() == 1;
    painter->setRenderHint(QPainter::SmoothPixmapTransform, false);
    painter->drawImage(rect(), mirrored ? frame.mirrored(true, false) : frame);
}
