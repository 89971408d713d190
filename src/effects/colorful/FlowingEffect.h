#pragma once

#include "effects/FrameGuard.h"
#include "effects/IEffectWorker.h"

// A rainbow running along the LED lines, one full hue circle over all LEDs.
class FlowingEffect : public IEffectWorker
{
    Q_OBJECT
public:
    Q_INVOKABLE explicit FlowingEffect(QObject* parent = nullptr);
    ~FlowingEffect() override;

    static EffectWorkerOptions staticWorkerOptions();

    int32_t load(const ControlOptions& options) override;
    EffectWorkerOptions workerOptions() const override;
    void unload() override;

    // Slider position: 100 is 0.05 hue per frame, 0 stands still.
    int speed() const;

public slots:
    void setSpeed(int speed);
    void onCtlDirChanged(uint32_t dir) override;
    void onCtlBrightnessChanged(float brightness) override;
    void onCtlKindNameChanged(QString kindName) override;
    void onCtlEnableChanged(bool enable) override;

private slots:
    void update();

private:
    void makeFrame();

    double hue = 0.0;
    QVector<uint32_t> lines;
    uint32_t nbLeds = 0;
    double speedStep = 0.01;
    FrameGuard guard{this};
};
