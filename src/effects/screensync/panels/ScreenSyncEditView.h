#pragma once

#include <QGraphicsView>
#include <QImage>
#include <QPointF>
#include <QSize>

class ScreenSyncEditScene;

// Shows the layout editor's scene at the grid's aspect; the wheel zooms, the right or middle
// button pans, the left button drags squares.
class ScreenSyncEditView : public QGraphicsView
{
    Q_OBJECT
public:
    explicit ScreenSyncEditView(QWidget* parent = nullptr);

    ScreenSyncEditScene* editScene() const { return scene; }

public slots:
    void setFrame(QImage frame);
    void setSceneSize(QSize size);

protected:
    void wheelEvent(QWheelEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;
    void showEvent(QShowEvent* event) override;

private:
    ScreenSyncEditScene* scene;
    double baseWidth = 120.0;
    double baseHeight = 67.0;
    double zoom = 1.0;
    bool panning = false;
    QPointF panCentre;
    QPointF panStart;
    QSize lastSize{120, 67}; // the grid, laid out again once the view has its real size
};
