#pragma once

#include "effects/screensync/AbsScreenSync.h"

// Reads the LEDs off the fifth of the frame at its top edge, squeezed to one pixel per LED.
class TopHalfScreen : public AbsScreenSync
{
    Q_OBJECT
public:
    Q_INVOKABLE TopHalfScreen(const EffectWorkerOptions& options, QObject* parent = nullptr);
    ~TopHalfScreen() override;

    QVector<QVector<OV_RGB>> processFrame(QImage frame) override;
};
