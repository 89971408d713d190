#pragma once

#include <QWidget>

class VirtualLedDevice;

// Shows the colours a VirtualLedDevice last decoded as rounded squares on a dark ground.
class StripView : public QWidget
{
    Q_OBJECT
public:
    explicit StripView(VirtualLedDevice* device, int displayLeds = 0, QWidget* parent = nullptr);

    QSize sizeHint() const override;

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    int ledCount() const;

    VirtualLedDevice* device;
    int displayLeds;
    bool repaintQueued = false;
};
