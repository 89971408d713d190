#pragma once

#include <QColor>
#include <QImage>
#include <QPixmap>
#include <QRegion>
#include <QWidget>

// A hue ring around a saturation/value square, painted by hand. Saturation grows to the right
// and value downward in the square. Images are made at the screen's pixel ratio; positions,
// regions and formulas stay in logical pixels.
class ColorWheel : public QWidget
{
    Q_OBJECT
public:
    explicit ColorWheel(QWidget* parent = nullptr);

    QSize sizeHint() const override;
    QSize minimumSizeHint() const override;
    QColor color() const { return current; }

signals:
    void colorChanged(QColor color);

public slots:
    // May emit up to three times: after a hue change, after a saturation/value change, and once
    // more with the colour as given. Callers that must not loop block the wheel's signals.
    void setColor(QColor color);

protected:
    void mousePressEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void paintEvent(QPaintEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;

private slots:
    void hueChanged(int hue);
    void svChanged(QColor newcolor);

private:
    QColor posColor(const QPoint& point) const;
    void drawWheelImage(const QSize& newSize);
    void drawSquareImage(int hue);
    void drawIndicator(QPainter& painter, int hue) const;
    void drawPicker(QPainter& painter, const QColor& color) const;
    int sideLength() const;

    QSize initSize{128, 128};
    QImage wheelImage;
    QImage squareImage;
    bool mouseDown = false;
    QPoint lastPos;
    int margin = 0;
    int wheelWidth = 10;
    QRegion wheelRegion;
    QRegion squareRegion;
    QColor current = QColor::fromHsv(0, 255, 255, 255);
    bool inWheel = false;
    bool inSquare = false;
    int offsetX = 0;
    int offsetY = 0;
    QPixmap backgroundPixmap;
    QImage backgroundImage;
    qreal renderedRatio = 0.0; // the pixel ratio the images were made at
};
