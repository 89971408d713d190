#include "effects/colorful/panels/FrmSingleColor.h"

#include "effects/colorful/SingleColor.h"
#include "ui_FrmSingleColor.h"

#include <QApplication>
#include <QColorDialog>
#include <QEvent>

FrmSingleColor::FrmSingleColor(QWidget* parent)
    : AbsWorkerWidget(parent)
    , ui(new Ui::FrmSingleColor)
{
    ui->setupUi(this);
    connect(ui->colorWheel, &ColorWheel::colorChanged, this, &FrmSingleColor::onColorWheelChanged);
    for (QSpinBox* box : {ui->Rbox, ui->Gbox, ui->Bbox}) {
        connect(box, qOverload<int>(&QSpinBox::valueChanged), this, &FrmSingleColor::onRGBBoxChanged);
    }
    connect(ui->selectColorBtn, &QPushButton::clicked, this, &FrmSingleColor::onSelectColorBtnClicked);
}

FrmSingleColor::~FrmSingleColor() = default;

void FrmSingleColor::onEffectWorkerChanged(IEffectWorkerPtr worker)
{
    // The catalogue gives this panel to the single colour only.
    auto* single = qobject_cast<SingleColor*>(worker.data());
    if (!single) {
        return;
    }
    ui->colorWheel->setColor(single->currentColor());
    connect(this, &FrmSingleColor::colorChanged, single, &SingleColor::setColor);
}

void FrmSingleColor::onColorWheelChanged(QColor color)
{
    const int values[] = {color.blue(), color.red(), color.green()};
    QSpinBox* boxes[] = {ui->Bbox, ui->Rbox, ui->Gbox};
    for (int i = 0; i < 3; ++i) {
        const bool blocked = boxes[i]->blockSignals(true);
        boxes[i]->setValue(values[i]);
        boxes[i]->blockSignals(blocked);
    }
    emit colorChanged(color);
}

void FrmSingleColor::onRGBBoxChanged(int)
{
    const QColor color(ui->Rbox->value(), ui->Gbox->value(), ui->Bbox->value(), 255);
    const bool blocked = ui->colorWheel->blockSignals(true);
    ui->colorWheel->setColor(color);
    ui->colorWheel->blockSignals(blocked);
    emit colorChanged(color);
}

void FrmSingleColor::onSelectColorBtnClicked()
{
    // The main window as the dialog's parent, so that it opens over it; else this panel's window.
    auto* parent = reinterpret_cast<QWidget*>(qApp->property("mainWindowPointer").value<quintptr>());
    const QColor color = QColorDialog::getColor(ui->colorWheel->color(), parent ? parent : window(),
                                                tr("选择颜色"), QColorDialog::DontUseNativeDialog);
    if (!color.isValid()) {
        return;
    }
    ui->colorWheel->setColor(color);
    onColorWheelChanged(color);
}

void FrmSingleColor::changeEvent(QEvent* event)
{
    AbsWorkerWidget::changeEvent(event);
    if (event->type() == QEvent::LanguageChange) {
        ui->retranslateUi(this);
    }
}
