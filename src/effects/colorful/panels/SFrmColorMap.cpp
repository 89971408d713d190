#include "effects/colorful/panels/SFrmColorMap.h"

#include "effects/colorful/ColorMap.h"
#include "ui_SFrmColorMap.h"

#include <QDebug>
#include <QEvent>

constexpr char kTag[] = "[SFrmColorMap]:";

SFrmColorMap::SFrmColorMap(QWidget* parent)
    : AbsWorkerWidget(parent)
    , ui(new Ui::SFrmColorMap)
{
    ui->setupUi(this);
    connect(ui->speedSlider, &QSlider::valueChanged, this, &SFrmColorMap::onSpeedSliderChanged);
}

SFrmColorMap::~SFrmColorMap() = default;

double SFrmColorMap::speedOf(int value)
{
    return value < 100 ? value * 0.005 + 0.5 : value * 0.03 - 2.0;
}

int SFrmColorMap::valueOf(double speed)
{
    return speed < 1.0 ? int((speed - 0.5) / 0.005) : int((speed + 2.0) / 0.03);
}

void SFrmColorMap::onEffectWorkerChanged(IEffectWorkerPtr worker)
{
    auto* map = qobject_cast<ColorMap*>(worker.data());
    if (!map) {
        qCritical() << kTag << "The worker is empty.";
        return;
    }
    const bool blocked = ui->speedSlider->blockSignals(true);
    ui->speedSlider->setValue(valueOf(map->speed()));
    ui->speedSlider->blockSignals(blocked);
}

void SFrmColorMap::onSpeedSliderChanged(int value)
{
    auto* map = qobject_cast<ColorMap*>(effectWorker().data());
    if (!map) {
        qCritical() << kTag << "The worker is empty.";
        return;
    }
    map->setSpeed(speedOf(value));
}

void SFrmColorMap::changeEvent(QEvent* event)
{
    AbsWorkerWidget::changeEvent(event);
    if (event->type() == QEvent::LanguageChange) {
        ui->retranslateUi(this);
    }
}
