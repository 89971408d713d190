#pragma once

#include "effects/screensync/AbsScreenSync.h"

// Reads the LEDs off the fifth of the frame at its bottom edge, squeezed to one pixel per LED.
class BottomHalfScreen : public AbsScreenSync
{
    Q_OBJECT
public:
    Q_INVOKABLE BottomHalfScreen(const EffectWorkerOptions& options, QObject* parent = nullptr);
    ~BottomHalfScreen() override;

    QVector<QVector<OV_RGB>> processFrame(QImage frame) override;
};
