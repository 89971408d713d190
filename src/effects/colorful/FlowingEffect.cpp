#include "effects/colorful/FlowingEffect.h"

#include "effects/IPanelMaker.h"

#include <QCoreApplication>

#include <QColor>
#include <QTimer>

FlowingEffect::FlowingEffect(QObject* parent)
    : IEffectWorker(parent)
{
}

FlowingEffect::~FlowingEffect() = default;

EffectWorkerOptions FlowingEffect::staticWorkerOptions()
{
    static EffectWorkerOptions record = EffectWorkerOptions::make(
        QStringLiteral("com.orvanta.colorful.flowingEffect"), QStringLiteral("流光异彩"), 0);
    // Made when first asked for where widgets can exist, and made anew once it was deleted.
    record.optionWidget = IPanelMaker::sharedPanel(IPanelMaker::Panel::FrmFlowingEffect);
    return record;
}

int32_t FlowingEffect::load(const ControlOptions& options)
{
    lines = options.lines;
    nbLeds = options.nbLeds;
    auto* timer = new QTimer(this);
    timer->setInterval(33);
    timer->setTimerType(Qt::PreciseTimer);
    connect(timer, &QTimer::timeout, this, &FlowingEffect::update);
    timer->start();
    return 0;
}

EffectWorkerOptions FlowingEffect::workerOptions() const
{
    return staticWorkerOptions();
}

// Nothing is kept: a new worker starts at the default speed.
void FlowingEffect::unload() {}

int FlowingEffect::speed() const
{
    return static_cast<int>(speedStep / 0.05 * 100.0);
}

void FlowingEffect::setSpeed(int speed)
{
    speedStep = speed / 100.0 * 0.05;
}

void FlowingEffect::update()
{
    guard.run([this] { makeFrame(); });
}

void FlowingEffect::makeFrame()
{
    QVector<QVector<OV_RGB>> colors(lines.size());
    double h = hue;
    if (nbLeds == 0) {
        return;
    }
    const double step = 1.0 / static_cast<double>(nbLeds);
    for (int line = 0; line < lines.size(); ++line) {
        QVector<OV_RGB>& leds = colors[line];
        leds.resize(static_cast<int>(lines.at(line)));
        for (OV_RGB& led : leds) {
            h = h + step;
            if (h >= 1.0) {
                h -= 1.0;
            }
            const QColor c = QColor::fromHsvF(h, 1.0, 1.0, 1.0);
            led = OV_RGB{static_cast<uint8_t>(c.red()), static_cast<uint8_t>(c.green()),
                         static_cast<uint8_t>(c.blue())};
        }
    }
    hue = speedStep + hue;
    if (hue >= 1.0) {
        hue = 0.0; // a hard reset, not the remainder
    }
    emit updateColors(colors);
}

void FlowingEffect::onCtlDirChanged(uint32_t) {}

void FlowingEffect::onCtlBrightnessChanged(float) {}

void FlowingEffect::onCtlKindNameChanged(QString) {}

void FlowingEffect::onCtlEnableChanged(bool) {}
