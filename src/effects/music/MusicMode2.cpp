#include "effects/music/MusicMode2.h"

#include <algorithm>

MusicMode2::MusicMode2(const EffectWorkerOptions& options, QObject* parent)
    : AbsMusicEffect(parent)
    , effectOptions(options)
{
}

MusicMode2::~MusicMode2() = default;

EffectWorkerOptions MusicMode2::workerOptions() const
{
    return effectOptions;
}

int32_t MusicMode2::load(const ControlOptions& ctlOptions)
{
    AbsMusicEffect::load(ctlOptions);
    // Under this effect's id, so that its straps are this effect's own settings.
    moodShadow.reset(new MoodShadow(effectOptions, nullptr), &QObject::deleteLater);
    moodShadow->load(ctlOptions);
    connect(moodShadow.data(), QOverload<QVector<QVector<OV_RGB>>>::of(&IEffectWorker::updateColors), this,
            &MusicMode2::update);
    return 0;
}

void MusicMode2::unload()
{
    if (moodShadow) {
        moodShadow->stopTimer();
        moodShadow->unload();
    }
    AbsMusicEffect::unload();
}

void MusicMode2::spectrumUpdate(QVector<SoundChannel> channels)
{
    const float left = static_cast<float>(peakDb(channels[0].spectrums, 20.0, 16000.0));
    const float right = static_cast<float>(peakDb(channels[1].spectrums, 20.0, 16000.0));
    const float v = std::max(left, right) / 80.0f;
    level = std::clamp(v, 0.1f, 1.0f);
}

void MusicMode2::capturerChangedHook() {}

void MusicMode2::update(QVector<QVector<OV_RGB>> colors)
{
    guard.run([this, &colors] {
        for (QVector<OV_RGB>& line : colors) {
            for (OV_RGB& led : line) {
                led.r = static_cast<uint8_t>(led.r * level);
                led.g = static_cast<uint8_t>(led.g * level);
                led.b = static_cast<uint8_t>(led.b * level);
            }
        }
        emit updateColors(colors);
    });
}
