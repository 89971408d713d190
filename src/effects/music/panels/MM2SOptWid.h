#pragma once

#include "effects/panels/AbsWorkerWidget.h"

class MediaSourceOptWidget;
class SFrmMoodShadow;

// The panel of music mode 2: the sound output, and the mood panel on the mode's own background
// mood worker.
class MM2SOptWid : public AbsWorkerWidget
{
    Q_OBJECT
public:
    explicit MM2SOptWid(QWidget* parent = nullptr);

protected:
    void onEffectWorkerChanged(IEffectWorkerPtr worker) override;
    void onEffectWorkerCleared() override;

private:
    MediaSourceOptWidget* source;
    SFrmMoodShadow* mood;
};
