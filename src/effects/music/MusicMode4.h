#pragma once

#include "effects/music/MusicMode3.h"

// A spectrum analyser mirrored around the strip's centre: one band per LED, left channel from
// the first LED, right channel from the last.
class MusicMode4 : public MusicMode3
{
    Q_OBJECT
public:
    Q_INVOKABLE MusicMode4(const EffectWorkerOptions& options, QObject* parent = nullptr);
    ~MusicMode4() override;

    int32_t load(const ControlOptions& ctlOptions) override;
    void unload() override;
};
