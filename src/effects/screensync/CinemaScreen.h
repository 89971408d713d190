#pragma once

#include "effects/screensync/FullScreenMode.h"

// The full-screen map over the frame's central 80 %, so a film's black bars never reach the LEDs.
class CinemaScreen : public FullScreenMode
{
    Q_OBJECT
public:
    Q_INVOKABLE CinemaScreen(const EffectWorkerOptions& options, QObject* parent = nullptr);
    ~CinemaScreen() override;

    QVector<QVector<OV_RGB>> processFrame(QImage frame) override;
};
