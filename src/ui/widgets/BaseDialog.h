#pragma once

#include <QAbstractNativeEventFilter>
#include <QDialog>
#include <QPoint>

// Frameless base of the program's dialogs: the top `headerSize` rows drag the window, except a
// square of `headerSize` at the right end where the close button lies.
class BaseDialog : public QDialog, public QAbstractNativeEventFilter
{
    Q_OBJECT
    Q_PROPERTY(int headerSize READ headerSize WRITE setHeaderSize NOTIFY headerSizeChanged)
public:
    explicit BaseDialog(QWidget* parent = nullptr);
    ~BaseDialog() override;

    int headerSize() const { return headerSize_; }
    void setHeaderSize(int size);

    bool nativeEventFilter(const QByteArray& eventType, void* message, long* result) override;

signals:
    void headerSizeChanged();

protected:
    void paintEvent(QPaintEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;

private:
    bool inDragArea(const QPoint& pos) const;

    int headerSize_ = 30;
    bool dragging = false;
    // Global cursor position minus the window's top-left at the press.
    QPoint dragOffset;
};
