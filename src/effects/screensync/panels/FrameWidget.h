#pragma once

#include <QImage>
#include <QWidget>

// Diagnostic window showing the last frame, scaled to fit and centred.
class FrameWidget : public QWidget
{
    Q_OBJECT
public:
    explicit FrameWidget(QWidget* parent = nullptr);

public slots:
    void setImage(QImage img);

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    QImage image;
};
