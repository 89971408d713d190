#pragma once

#include "effects/screensync/AbsScreenSync.h"

// Reads the LEDs off the fifth of the frame at its left edge, squeezed to one pixel per LED.
class LeftHalfScreen : public AbsScreenSync
{
    Q_OBJECT
public:
    Q_INVOKABLE LeftHalfScreen(const EffectWorkerOptions& options, QObject* parent = nullptr);
    ~LeftHalfScreen() override;

    QVector<QVector<OV_RGB>> processFrame(QImage frame) override;
};
