#include "effects/screensync/panels/ScreenSyncEditScene.h"

#include "effects/screensync/panels/FrameItem.h"
#include "effects/screensync/panels/LEDItem.h"

#include <QDebug>
#include <QHash>
#include <QPainter>

#include <cmath>
#include <memory>

constexpr char kTag[] = "[ScreenSyncEditScene]:";

template <typename Item> Item* ScreenSyncEditScene::added(std::unique_ptr<Item> item)
{
    addItem(item.get());
    return item.release();
}

ScreenSyncEditScene::ScreenSyncEditScene(QObject* parent)
    : QGraphicsScene(parent)
{
    // Always set explicitly: grown from its items, the rectangle would chase the frame item.
    setSceneRect(0, 0, 120, 67);
    frameItem = added(std::make_unique<FrameItem>());
    frameItem->setZValue(-1);
    frameItem->setRect(sceneRect());
    connect(this, &QGraphicsScene::sceneRectChanged, this, &ScreenSyncEditScene::onSceneRectChanged);
}

void ScreenSyncEditScene::place(LEDItem* item)
{
    const double cellWidth = sceneRect().width() / gridSize.width();
    const double cellHeight = sceneRect().height() / gridSize.height();
    item->setPos(item->gridPos.x() * cellWidth + cellWidth / 2 - item->rect().width() / 2,
                 item->gridPos.y() * cellHeight + cellHeight / 2 - item->rect().height() / 2);
}

QPoint ScreenSyncEditScene::mirror(const QPoint& cell) const
{
    return QPoint(gridSize.width() - 1 - cell.x(), cell.y());
}

void ScreenSyncEditScene::setLEDs(QVector<QPoint> points)
{
    for (LEDItem* item : qAsConst(ledItems)) {
        removeItem(item);
        delete item;
    }
    ledItems.clear();
    for (int i = 0; i < points.size(); ++i) {
        LEDItem* item = added(std::make_unique<LEDItem>(i));
        item->gridPos = points[i];
        place(item);
        ledItems.append(item);
    }
    deviceDir = 0;
    relabel();
}

void ScreenSyncEditScene::relabel()
{
    // Labels are a few tens of units wide: a spatial hash keeps this linear in the LEDs.
    constexpr double bucket = 64.0;
    QHash<quint64, QVector<QRectF>> taken;
    const auto key = [](int x, int y) { return quint64(quint32(x)) << 32 | quint32(y); };
    for (LEDItem* item : qAsConst(ledItems)) {
        const QRectF box = item->labelRect().translated(item->pos());
        const int x0 = int(std::floor(box.left() / bucket));
        const int x1 = int(std::floor(box.right() / bucket));
        const int y0 = int(std::floor(box.top() / bucket));
        const int y1 = int(std::floor(box.bottom() / bucket));
        bool room = true;
        for (int x = x0; x <= x1 && room; ++x) {
            for (int y = y0; y <= y1 && room; ++y) {
                for (const QRectF& other : taken.value(key(x, y))) {
                    room = room && !other.intersects(box);
                }
            }
        }
        item->setLabelShown(room);
        for (int x = x0; x <= x1 && room; ++x) {
            for (int y = y0; y <= y1; ++y) {
                taken[key(x, y)].append(box);
            }
        }
    }
}

void ScreenSyncEditScene::setDeviceDir(int dir)
{
    if (dir == deviceDir) {
        return;
    }
    deviceDir = dir;
    // Leaving 1 mirrors nothing: every change of direction comes after a reload from the true map.
    if (dir == 1) {
        for (LEDItem* item : qAsConst(ledItems)) {
            item->gridPos = mirror(item->gridPos);
            place(item);
        }
        relabel();
    }
    update();
}

void ScreenSyncEditScene::setFrame(QImage frame)
{
    frameItem->frame = frame;
    if (!frame.isNull() && frameItem->rect() != sceneRect()) {
        frameItem->setRect(sceneRect());
    }
    update();
}

void ScreenSyncEditScene::setGridSize(int columns, int rows)
{
    gridSize = QSize(qMax(1, columns), qMax(1, rows));
    for (LEDItem* item : qAsConst(ledItems)) {
        place(item);
    }
    relabel();
    update();
}

void ScreenSyncEditScene::onSceneRectChanged(QRectF rect)
{
    if (frameItem->rect() != rect) {
        frameItem->setRect(rect);
    }
    for (LEDItem* item : qAsConst(ledItems)) {
        place(item);
    }
    relabel();
}

void ScreenSyncEditScene::dropItem(LEDItem* item)
{
    const QRectF bounds = sceneRect();
    const double w = item->rect().width();
    const double h = item->rect().height();
    item->setPos(qBound(bounds.left(), item->x(), bounds.right() - w),
                 qBound(bounds.top(), item->y(), bounds.bottom() - h));
    const double cellWidth = bounds.width() / gridSize.width();
    const double cellHeight = bounds.height() / gridSize.height();
    const int column = qBound(0, int((item->x() + w / 2) / cellWidth), gridSize.width() - 1);
    const int row = qBound(0, int((item->y() + h / 2) / cellHeight), gridSize.height() - 1);
    item->gridPos = QPoint(column, row);
    place(item);
    relabel();
    if (item->id < 0 || item->id >= ledItems.size()) {
        qWarning().noquote() << kTag << "The id" << item->id << "is out of range";
        return;
    }
    emit ledItemPosChanged(item->id, deviceDir == 1 ? mirror(item->gridPos) : item->gridPos);
}

void ScreenSyncEditScene::drawBackground(QPainter* painter, const QRectF& rect)
{
    QGraphicsScene::drawBackground(painter, rect);
    if (!gridVisible) {
        return;
    }
    painter->setPen(gridColor);
    const QRectF bounds = sceneRect();
    for (int c = 1; c < gridSize.width(); ++c) {
        const double x = bounds.left() + bounds.width() * c / gridSize.width();
        painter->drawLine(QPointF(x, bounds.top()), QPointF(x, bounds.bottom()));
    }
    for (int r = 1; r < gridSize.height(); ++r) {
        const double y = bounds.top() + bounds.height() * r / gridSize.height();
        painter->drawLine(QPointF(bounds.left(), y), QPointF(bounds.right(), y));
    }
}
