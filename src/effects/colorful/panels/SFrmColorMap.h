#pragma once

#include "effects/panels/AbsWorkerWidget.h"

namespace Ui {
class SFrmColorMap;
}

// The colour maps' panel, one for all six: the speed, in two straight pieces that meet at the
// middle of the slider (0.5 to 0.995, then 1.0 to 4.0).
class SFrmColorMap : public AbsWorkerWidget
{
    Q_OBJECT
public:
    explicit SFrmColorMap(QWidget* parent = nullptr);
    ~SFrmColorMap() override;

    static double speedOf(int value);
    static int valueOf(double speed);

protected:
    void onEffectWorkerChanged(IEffectWorkerPtr worker) override;
    void changeEvent(QEvent* event) override;

private slots:
    void onSpeedSliderChanged(int value);

private:
    QScopedPointer<Ui::SFrmColorMap> ui;
};
