#include "effects/AbsAnimatedEffect.h"

AbsAnimatedEffect::AbsAnimatedEffect(QObject* parent)
    : IEffectWorker(nullptr)
{
    setParent(parent);
    elapsed.start();
    timer.setInterval(33);
    timer.setTimerType(Qt::PreciseTimer);
    connect(&timer, &QTimer::timeout, this, &AbsAnimatedEffect::relayTick);
    timer.start();
}

AbsAnimatedEffect::~AbsAnimatedEffect() = default;

void AbsAnimatedEffect::onCtlDirChanged(uint32_t) {}

void AbsAnimatedEffect::onCtlBrightnessChanged(float) {}

void AbsAnimatedEffect::onCtlKindNameChanged(QString) {}

void AbsAnimatedEffect::onCtlEnableChanged(bool) {}

void AbsAnimatedEffect::setInterval(int ms)
{
    timer.setInterval(ms);
}

void AbsAnimatedEffect::resume()
{
    if (!timer.isActive()) {
        timer.start();
    }
}

void AbsAnimatedEffect::pause()
{
    timer.stop();
}

void AbsAnimatedEffect::relayTick()
{
    const qint64 ms = elapsed.restart();
    guard.run([this, ms] { tick(ms / 1000.0); });
}
