#include "effects/screensync/panels/ScreenSyncEditView.h"

#include "effects/screensync/panels/ScreenSyncEditScene.h"

#include <QMouseEvent>
#include <QWheelEvent>

ScreenSyncEditView::ScreenSyncEditView(QWidget* parent)
    : QGraphicsView(parent)
    , scene(new ScreenSyncEditScene(this))
{
    setScene(scene);
    setRenderHint(QPainter::Antialiasing, false);
    setAlignment(Qt::AlignLeft | Qt::AlignTop);
    setSceneSize(lastSize);
}

void ScreenSyncEditView::setFrame(QImage frame)
{
    scene->setFrame(frame);
}

void ScreenSyncEditView::setSceneSize(QSize size)
{
    if (size.width() <= 0 || size.height() <= 0) {
        return;
    }
    lastSize = size;
    const double w = size.width();
    const double h = size.height();
    double sceneWidth = 0.0;
    double sceneHeight = 0.0;
    if (w <= h) {
        sceneHeight = viewport()->height();
        sceneWidth = sceneHeight / (h / w);
    } else {
        sceneWidth = viewport()->width();
        sceneHeight = sceneWidth / (w / h);
    }
    scene->setSceneRect(0, 0, sceneWidth, sceneHeight);
    baseWidth = sceneWidth;
    baseHeight = sceneHeight;
    zoom = 1.0;
    scene->setGridSize(size.width(), size.height());
}

void ScreenSyncEditView::resizeEvent(QResizeEvent* event)
{
    QGraphicsView::resizeEvent(event);
    // The first reload may come before the view was laid out: fill it again at its real size.
    setSceneSize(lastSize);
}

void ScreenSyncEditView::showEvent(QShowEvent* event)
{
    QGraphicsView::showEvent(event);
    setSceneSize(lastSize);
}

void ScreenSyncEditView::wheelEvent(QWheelEvent* event)
{
    zoom = qMax(0.5, zoom + event->angleDelta().y() / 720.0);
    scene->setSceneRect(0, 0, baseWidth * zoom, baseHeight * zoom);
    QGraphicsView::wheelEvent(event);
}

void ScreenSyncEditView::mousePressEvent(QMouseEvent* event)
{
    if (event->button() == Qt::RightButton || event->button() == Qt::MiddleButton) {
        panning = true;
        panCentre = mapToScene(viewport()->rect().center());
        panStart = event->localPos();
        return;
    }
    QGraphicsView::mousePressEvent(event);
}

void ScreenSyncEditView::mouseMoveEvent(QMouseEvent* event)
{
    if (panning) {
        centerOn(panCentre - (event->localPos() - panStart));
        return;
    }
    QGraphicsView::mouseMoveEvent(event);
}

void ScreenSyncEditView::mouseReleaseEvent(QMouseEvent* event)
{
    if (panning && (event->button() == Qt::RightButton || event->button() == Qt::MiddleButton)) {
        panning = false;
        return;
    }
    QGraphicsView::mouseReleaseEvent(event);
}
