#pragma once

#include "effects/AbsAnimatedEffect.h"

#include <QImage>

// Plays a picture over the strip: one row per tick, stretched over all LEDs, moving down and
// wrapping round at 30 rows a second times the speed.
class ColorMap : public AbsAnimatedEffect
{
    Q_OBJECT
public:
    Q_INVOKABLE ColorMap(const EffectWorkerOptions& options, QObject* parent = nullptr);
    ~ColorMap() override;

    int32_t load(const ControlOptions& options) override;
    EffectWorkerOptions workerOptions() const override;
    void unload() override;
    void tick(double seconds) override;

    // Path of the picture of an effect id: the id's last component names the file.
    static QString picturePath(const QString& effectId);

    // The ends of the panel's slider; a stored speed is kept within them.
    static constexpr double kMinSpeed = 0.5;
    static constexpr double kMaxSpeed = 4.0;

    double speed() const { return playSpeed; }
    // Kept in the store as it changes.
    void setSpeed(double speed);

private:
    void save();

    EffectWorkerOptions options;
    ControlOptions controlOptions;
    QImage image;
    double playSpeed = 1.0;
    double position = 0.0; // fraction of the picture height, 0 up to 1
};
