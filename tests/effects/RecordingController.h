#pragma once

#include "devices/AbsRGBController.h"

// A controller that keeps every frame it would send, for checking workers without a port.
class RecordingController : public AbsRGBController
{
    Q_OBJECT
public:
    explicit RecordingController(const QString& id, uint32_t nbLeds = 0, QVector<uint32_t> lines = {})
    {
        options.id = id;
        options.model = id;
        options.nbLeds = nbLeds;
        options.lines = lines;
    }

    void updateFrameHeader() override {}

    QVector<QVector<QVector<OV_RGB>>> frames;

protected:
    void writeColors(const QVector<QVector<OV_RGB>>& colors) override { frames.append(colors); }
};
