#pragma once

#include "effects/panels/AbsWorkerWidget.h"

#include <QColor>
#include <QScopedPointer>

namespace Ui {
class FrmSingleColor;
}

// The single colour's panel: a colour wheel, red/green/blue boxes and the colour dialog, kept in
// step without loops by blocking single widgets.
class FrmSingleColor : public AbsWorkerWidget
{
    Q_OBJECT
public:
    explicit FrmSingleColor(QWidget* parent = nullptr);
    ~FrmSingleColor() override;

signals:
    void colorChanged(QColor color);

protected:
    void onEffectWorkerChanged(IEffectWorkerPtr worker) override;
    void changeEvent(QEvent* event) override;

private slots:
    void onColorWheelChanged(QColor color);
    void onRGBBoxChanged(int);
    void onSelectColorBtnClicked();

private:
    QScopedPointer<Ui::FrmSingleColor> ui;
};
