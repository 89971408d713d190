#pragma once

#include "effects/screensync/AbsScreenSync.h"

// Reads the LEDs off the fifth of the frame at its right edge, squeezed to one pixel per LED.
class RightHalfScreen : public AbsScreenSync
{
    Q_OBJECT
public:
    Q_INVOKABLE RightHalfScreen(const EffectWorkerOptions& options, QObject* parent = nullptr);
    ~RightHalfScreen() override;

    QVector<QVector<OV_RGB>> processFrame(QImage frame) override;
};
