#pragma once

#include <QColor>
#include <QGradient>
#include <QMultiMap>
#include <QSharedPointer>
#include <QWidget>

class GradientHandler;
class QGraphicsScene;
class QGraphicsView;

// Edits a list of gradient stops: two fixed ends sharing one colour and any number of movable
// key handles between them. A click on an empty stretch of the bar adds a key there; a right
// click on a handle changes or deletes it.
class GradientWidget : public QWidget
{
    Q_OBJECT
public:
    explicit GradientWidget(QWidget* parent = nullptr);
    ~GradientWidget() override;

    void setEndsColor(const QColor& color);
    // Replaces the keys; nothing is emitted.
    void setKeyColors(const QList<QGradientStop>& stops);
    void addKeyColor(const QColor& color, double pos);
    // (0.0, ends colour), the keys by position, (1.0, ends colour).
    QList<QGradientStop> colors() const;

signals:
    void keyColorChanged(QList<QGradientStop> colors);

protected:
    void mousePressEvent(QMouseEvent* event) override;
    void paintEvent(QPaintEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;

private slots:
    void onEndsColorRequestUpdate();

private:
    QSharedPointer<GradientHandler> makeHandler(const QColor& color);
    void onHandlerMoved(GradientHandler* handler, double pos);
    void onHandlerColorRequested(GradientHandler* handler);
    void onHandlerDeleteRequested(GradientHandler* handler);
    void release(const QSharedPointer<GradientHandler>& handler);
    void changed();

    QMultiMap<double, QSharedPointer<GradientHandler>> keyHandlers;
    QSharedPointer<GradientHandler> startHandler;
    QSharedPointer<GradientHandler> endHandler;
    QColor endsColor = Qt::white;
    QGraphicsScene* scene = nullptr;
    QGraphicsView* view = nullptr;
};
