#pragma once

#include <QColor>
#include <QGraphicsScene>
#include <QImage>
#include <QPoint>
#include <QSize>
#include <QVector>

#include <memory>

class FrameItem;
class LEDItem;

// The layout editor's grid of the virtual screen: the live frame behind one square per LED.
// It shows what the user sees on the screen; the cells it reports are always unmirrored.
class ScreenSyncEditScene : public QGraphicsScene
{
    Q_OBJECT
public:
    explicit ScreenSyncEditScene(QObject* parent = nullptr);

    void setLEDs(QVector<QPoint> points);
    void setDeviceDir(int dir);
    void setFrame(QImage frame);
    void setGridSize(int columns, int rows);

    int deviceDirection() const { return deviceDir; }
    QSize grid() const { return gridSize; }
    const QVector<LEDItem*>& leds() const { return ledItems; }
    // Snaps a dropped square to the cell under its centre and reports the cell.
    void dropItem(LEDItem* item);

signals:
    void ledItemPosChanged(int id, QPoint newPos);

protected:
    void drawBackground(QPainter* painter, const QRectF& rect) override;

private slots:
    void onSceneRectChanged(QRectF rect);

private:
    // Hands an item to the scene, which owns it from then on.
    template <typename Item> Item* added(std::unique_ptr<Item> item);
    void place(LEDItem* item);
    // Numbers only where they have room: in LED order, none over another's. More fit as the
    // view zooms in.
    void relabel();
    QPoint mirror(const QPoint& cell) const;

    QSize gridSize{31, 17};
    QColor gridColor = QColor(0xFF00FF00);
    bool gridVisible = false;
    FrameItem* frameItem = nullptr; // the scene's
    QVector<LEDItem*> ledItems;
    int deviceDir = 0;
};
