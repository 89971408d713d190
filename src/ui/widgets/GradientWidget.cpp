#include "ui/widgets/GradientWidget.h"

#include "ui/widgets/GradientHandler.h"

#include <QColorDialog>
#include <QGraphicsScene>
#include <QGraphicsView>
#include <QMouseEvent>

GradientWidget::GradientWidget(QWidget* parent)
    : QWidget(parent)
{
    view = new QGraphicsView(this);
    scene = new QGraphicsScene(view);
    view->setScene(scene);
    scene->setSceneRect(0, 0, width(), 25);
    view->setGeometry(0, 0, width(), 24);
    view->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    view->setVerticalScrollBarPolicy(Qt::ScrollBarAlwaysOff);

    startHandler = makeHandler(endsColor);
    endHandler = makeHandler(endsColor);
    for (const auto& end : {startHandler, endHandler}) {
        end->setFlag(QGraphicsItem::ItemIsMovable, false);
        scene->addItem(end.data());
        connect(end.data(), &GradientHandler::requestChangeColor, this,
                &GradientWidget::onEndsColorRequestUpdate);
    }
    startHandler->setPos(0.0);
    endHandler->setPos(1.0);
}

GradientWidget::~GradientWidget()
{
    // The handles belong to their shared pointers, not to the scene.
    for (QGraphicsItem* item : scene->items()) {
        scene->removeItem(item);
    }
}

QSharedPointer<GradientHandler> GradientWidget::makeHandler(const QColor& color)
{
    // Deleted later: a handle may be dropped from inside its own signal.
    return QSharedPointer<GradientHandler>(new GradientHandler(color, this), &QObject::deleteLater);
}

void GradientWidget::release(const QSharedPointer<GradientHandler>& handler)
{
    if (handler->scene()) {
        scene->removeItem(handler.data());
    }
}

void GradientWidget::resizeEvent(QResizeEvent* event)
{
    QWidget::resizeEvent(event);
    view->setFixedSize(width(), 25);
    scene->setSceneRect(0, 0, width(), 25);
    for (auto it = keyHandlers.cbegin(); it != keyHandlers.cend(); ++it) {
        it.value()->setPos(it.value()->pos);
    }
    startHandler->setPos(0.0);
    endHandler->setPos(1.0);
    view->update();
}

void GradientWidget::paintEvent(QPaintEvent*)
{
    // Nothing of its own: the gradient shows in the box above the bar.
}

void GradientWidget::mousePressEvent(QMouseEvent* event)
{
    QWidget::mousePressEvent(event);
    if (event->y() < 35 && event->button() == Qt::LeftButton && width() > 0) {
        const double p = double(event->x()) / width();
        const QColor color =
            QColorDialog::getColor(Qt::white, this, tr("选择颜色"), QColorDialog::DontUseNativeDialog);
        if (color.isValid()) {
            addKeyColor(color, p);
        }
    }
}

void GradientWidget::setEndsColor(const QColor& color)
{
    endsColor = color;
    startHandler->color = color;
    endHandler->color = color;
    startHandler->update();
    endHandler->update();
    update();
}

void GradientWidget::setKeyColors(const QList<QGradientStop>& stops)
{
    for (const auto& handler : qAsConst(keyHandlers)) {
        release(handler);
    }
    keyHandlers.clear();
    const bool wasBlocked = blockSignals(true);
    for (const QGradientStop& stop : stops) {
        addKeyColor(stop.second, stop.first);
    }
    blockSignals(wasBlocked);
}

void GradientWidget::addKeyColor(const QColor& color, double pos)
{
    QSharedPointer<GradientHandler> handler = makeHandler(color);
    GradientHandler* raw = handler.data();
    keyHandlers.insert(pos, handler);
    connect(raw, &GradientHandler::posChanged, this, [this, raw](double p) { onHandlerMoved(raw, p); });
    connect(raw, &GradientHandler::requestChangeColor, this, [this, raw] { onHandlerColorRequested(raw); });
    connect(raw, &GradientHandler::requestDelete, this, [this, raw] { onHandlerDeleteRequested(raw); });
    scene->addItem(raw);
    raw->setPos(pos);
    changed();
}

QList<QGradientStop> GradientWidget::colors() const
{
    QList<QGradientStop> stops{{0.0, endsColor}};
    for (auto it = keyHandlers.cbegin(); it != keyHandlers.cend(); ++it) {
        stops.append({it.key(), it.value()->color});
    }
    stops.append({1.0, endsColor});
    return stops;
}

void GradientWidget::changed()
{
    update();
    emit keyColorChanged(colors());
}

void GradientWidget::onHandlerMoved(GradientHandler* handler, double pos)
{
    for (auto it = keyHandlers.begin(); it != keyHandlers.end(); ++it) {
        if (it.value().data() == handler) {
            const QSharedPointer<GradientHandler> kept = it.value();
            keyHandlers.erase(it);
            keyHandlers.insert(pos, kept);
            break;
        }
    }
    changed();
}

void GradientWidget::onHandlerColorRequested(GradientHandler* handler)
{
    const QColor color =
        QColorDialog::getColor(handler->color, this, tr("选择颜色"), QColorDialog::DontUseNativeDialog);
    if (!color.isValid()) {
        return;
    }
    handler->color = color;
    handler->update();
    changed();
}

void GradientWidget::onHandlerDeleteRequested(GradientHandler* handler)
{
    for (auto it = keyHandlers.begin(); it != keyHandlers.end();) {
        if (it.value().data() == handler) {
            release(it.value());
            it = keyHandlers.erase(it);
        } else {
            ++it;
        }
    }
    changed();
}

void GradientWidget::onEndsColorRequestUpdate()
{
    const QColor color =
        QColorDialog::getColor(endsColor, this, tr("选择颜色"), QColorDialog::DontUseNativeDialog);
    if (!color.isValid()) {
        return;
    }
    setEndsColor(color);
    changed();
}
