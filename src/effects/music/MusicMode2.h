#pragma once

#include "effects/FrameGuard.h"
#include "effects/colorful/MoodShadow.h"
#include "effects/music/AbsMusicEffect.h"

#include <QSharedPointer>

// The mood gradient flows on the strip, its brightness pumped by the loudness of the music.
class MusicMode2 : public AbsMusicEffect
{
    Q_OBJECT
public:
    Q_INVOKABLE MusicMode2(const EffectWorkerOptions& options, QObject* parent = nullptr);
    ~MusicMode2() override;

    int32_t load(const ControlOptions& ctlOptions) override;
    EffectWorkerOptions workerOptions() const override;
    void unload() override;

    QSharedPointer<MoodShadow> getMoodShadow() const { return moodShadow; }
    float currentLevel() const { return level; }

public slots:
    void spectrumUpdate(QVector<SoundChannel> channels) override;
    void capturerChangedHook() override;

private slots:
    void update(QVector<QVector<OV_RGB>> colors);

private:
    EffectWorkerOptions effectOptions;
    QSharedPointer<MoodShadow> moodShadow;
    float level = 0.1f; // silence keeps a tenth
    FrameGuard guard{this};
};
