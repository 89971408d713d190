#include "effects/colorful/panels/FrmFlowingEffect.h"

#include "effects/colorful/FlowingEffect.h"
#include "ui_FrmFlowingEffect.h"

#include <QDebug>
#include <QEvent>

constexpr char kTag[] = "[FrmFlowingEffect]:";

FrmFlowingEffect::FrmFlowingEffect(QWidget* parent)
    : AbsWorkerWidget(parent)
    , ui(new Ui::FrmFlowingEffect)
{
    ui->setupUi(this);
    connect(ui->speedSlider, &QSlider::valueChanged, this, &FrmFlowingEffect::onSpeedSliderChanged);
}

FrmFlowingEffect::~FrmFlowingEffect() = default;

void FrmFlowingEffect::onEffectWorkerChanged(IEffectWorkerPtr worker)
{
    auto* flowing = qobject_cast<FlowingEffect*>(worker.data());
    if (!flowing) {
        qCritical() << kTag << "The worker is empty.";
        return;
    }
    ui->speedSlider->setValue(flowing->speed());
}

void FrmFlowingEffect::onSpeedSliderChanged(int value)
{
    auto* flowing = qobject_cast<FlowingEffect*>(effectWorker().data());
    if (!flowing) {
        qCritical() << kTag << "The worker is empty.";
        return;
    }
    flowing->setSpeed(value);
}

void FrmFlowingEffect::changeEvent(QEvent* event)
{
    AbsWorkerWidget::changeEvent(event);
    if (event->type() == QEvent::LanguageChange) {
        ui->retranslateUi(this);
    }
}
