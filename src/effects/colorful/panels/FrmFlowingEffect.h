#pragma once

#include "effects/panels/AbsWorkerWidget.h"

namespace Ui {
class FrmFlowingEffect;
}

// The rainbow's panel: its speed.
class FrmFlowingEffect : public AbsWorkerWidget
{
    Q_OBJECT
public:
    explicit FrmFlowingEffect(QWidget* parent = nullptr);
    ~FrmFlowingEffect() override;

protected:
    void onEffectWorkerChanged(IEffectWorkerPtr worker) override;
    void changeEvent(QEvent* event) override;

private slots:
    void onSpeedSliderChanged(int value);

private:
    QScopedPointer<Ui::FrmFlowingEffect> ui;
};
