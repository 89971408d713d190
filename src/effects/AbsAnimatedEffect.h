#pragma once

#include "effects/FrameGuard.h"
#include "effects/IEffectWorker.h"

#include <QElapsedTimer>
#include <QTimer>

// Timer-driven base of the simple animations: tick() gets the measured time since the last
// tick, so an effect keeps its speed when the timer runs late.
class AbsAnimatedEffect : public IEffectWorker
{
    Q_OBJECT
public:
    explicit AbsAnimatedEffect(QObject* parent = nullptr);
    ~AbsAnimatedEffect() override;

public slots:
    void onCtlDirChanged(uint32_t dir) override;
    void onCtlBrightnessChanged(float brightness) override;
    void onCtlKindNameChanged(QString kindName) override;
    void onCtlEnableChanged(bool enable) override;

public:
    // Public so that a test or a benchmark can drive the animation with chosen times.
    virtual void tick(double seconds) = 0;

protected:
    void setInterval(int ms);
    void resume();
    void pause();

private slots:
    void relayTick();

private:
    QTimer timer; // no parent: a plain member
    QElapsedTimer elapsed;
    FrameGuard guard{this};
};
