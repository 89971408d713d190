#pragma once

#include <QImage>
#include <QWidget>

// Draws one picture stretched over the whole widget, aspect ratio not kept.
class ImageWidget : public QWidget
{
    Q_OBJECT
public:
    explicit ImageWidget(QWidget* parent = nullptr);

    void setImg(QImage img);
    QImage img() const { return image; }

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    QImage image;
};
