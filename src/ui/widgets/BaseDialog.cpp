#include "ui/widgets/BaseDialog.h"

#include <QApplication>
#include <QMouseEvent>
#include <QPainter>
#include <QStyleOption>
#include <QWindow>

BaseDialog::BaseDialog(QWidget* parent)
    : QDialog(parent)
{
    setWindowFlags(Qt::Dialog | Qt::FramelessWindowHint);
    qApp->installNativeEventFilter(this);
}

BaseDialog::~BaseDialog()
{
    qApp->removeNativeEventFilter(this);
}

void BaseDialog::setHeaderSize(int size)
{
    if (size == headerSize_) {
        return;
    }
    headerSize_ = size;
    emit headerSizeChanged();
}

// X11 and Wayland have no frame hit-test message to answer: the header drag is done by the mouse
// handlers below, with the same geometry.
bool BaseDialog::nativeEventFilter(const QByteArray& eventType, void* message, long* result)
{
    Q_UNUSED(eventType)
    Q_UNUSED(message)
    Q_UNUSED(result)
    return false;
}

void BaseDialog::paintEvent(QPaintEvent* event)
{
    Q_UNUSED(event)
    // Lets style-sheet backgrounds show on subclasses.
    QStyleOption option;
    option.initFrom(this);
    QPainter painter(this);
    style()->drawPrimitive(QStyle::PE_Widget, &option, &painter, this);
}

bool BaseDialog::inDragArea(const QPoint& pos) const
{
    return pos.y() >= 0 && pos.y() < headerSize_ && pos.x() >= 0 && pos.x() < width() - headerSize_;
}

void BaseDialog::mousePressEvent(QMouseEvent* event)
{
    if (event->button() == Qt::LeftButton && inDragArea(event->pos())) {
        event->accept();
        // Wayland lets no client place its own window: the compositor runs the move.
        if (QGuiApplication::platformName().startsWith(QLatin1String("wayland")) && windowHandle() &&
            windowHandle()->startSystemMove()) {
            return;
        }
        dragging = true;
        dragOffset = event->globalPos() - frameGeometry().topLeft();
        return;
    }
    QDialog::mousePressEvent(event);
}

void BaseDialog::mouseMoveEvent(QMouseEvent* event)
{
    if (dragging && (event->buttons() & Qt::LeftButton)) {
        move(event->globalPos() - dragOffset);
        event->accept();
        return;
    }
    QDialog::mouseMoveEvent(event);
}

void BaseDialog::mouseReleaseEvent(QMouseEvent* event)
{
    if (event->button() == Qt::LeftButton && dragging) {
        dragging = false;
        event->accept();
        return;
    }
    QDialog::mouseReleaseEvent(event);
}
