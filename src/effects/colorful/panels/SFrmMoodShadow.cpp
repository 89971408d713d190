#include "effects/colorful/panels/SFrmMoodShadow.h"

#include "effects/colorful/MoodShadow.h"
#include "ui/widgets/ComboBoxDelegate.h"
#include "ui_SFrmMoodShadow.h"

#include <QDebug>
#include <QEvent>

constexpr char kTag[] = "[SFrmMoodShadow]:";

SFrmMoodShadow::SFrmMoodShadow(QWidget* parent)
    : AbsWorkerWidget(parent)
    , ui(new Ui::SFrmMoodShadow)
{
    ui->setupUi(this);
    delegate = new ComboBoxDelegate(ui->colorStrapBox);
    ui->colorStrapBox->setItemDelegate(delegate);
    ui->colorStrapBox->setEditable(false);
    connect(ui->addBtn, &QPushButton::clicked, this, &SFrmMoodShadow::onAddBtnClicked);
    connect(ui->rmBtn, &QPushButton::clicked, this, &SFrmMoodShadow::onRmBtnClicked);
    connect(ui->colorStrapBox, qOverload<int>(&QComboBox::currentIndexChanged), this,
            &SFrmMoodShadow::onStrapChanged);
}

SFrmMoodShadow::~SFrmMoodShadow() = default;

MoodShadow* SFrmMoodShadow::moodShadow() const
{
    auto* worker = qobject_cast<MoodShadow*>(effectWorker().data());
    if (!worker) {
        qCritical() << kTag << "The worker is empty.";
    }
    return worker;
}

void SFrmMoodShadow::onEffectWorkerChanged(IEffectWorkerPtr)
{
    MoodShadow* worker = moodShadow();
    if (!worker) {
        return;
    }
    // Another device may have changed the shared list since this worker read it.
    worker->reloadStraps();
    const bool blocked = ui->colorStrapBox->blockSignals(true);
    ui->colorStrapBox->clear();
    ui->colorStrapBox->addItems(worker->strapNames());

    QList<QList<QGradientStop>> gradients;
    const int current = worker->currentStrapIndex();
    for (int i = 0; i < worker->strapCount(); ++i) {
        gradients.append(worker->gradientStops(i));
    }
    delegate->setGradients(gradients);

    ui->colorStrapBox->setCurrentIndex(current);
    ui->colorStrapBox->blockSignals(blocked);
    ui->colorStrapBox->update();
    onStrapChanged(current);
    ui->rmBtn->setEnabled(worker->strapCount() > 1);

    connect(ui->gradientEditor, &GradientWidget::keyColorChanged, this,
            &SFrmMoodShadow::onGradientKeyColorChanged, Qt::UniqueConnection);
    connect(ui->speedSlider, &QSlider::valueChanged, worker,
            [worker](int v) { worker->setSpeed(v / 100.0); });
    connect(ui->rangeSlider, &QSlider::valueChanged, worker,
            [worker](int v) { worker->setRange(v / 1000.0); });
}

void SFrmMoodShadow::onStrapChanged(int strapIdx)
{
    MoodShadow* worker = moodShadow();
    if (!worker) {
        return;
    }
    worker->setCurrentStrap(strapIdx);
    ui->gradientEditor->setEndsColor(worker->endsColor());
    ui->gradientEditor->setKeyColors(worker->keyColors());
    // Not blocked: the values go back to the worker as the sliders hold them.
    ui->speedSlider->setValue(int(worker->speed() * 100.0));
    ui->rangeSlider->setValue(int(worker->range() * 1000.0));
    ui->colorStrapBox->update();
}

void SFrmMoodShadow::onAddBtnClicked()
{
    MoodShadow* worker = moodShadow();
    if (!worker) {
        return;
    }
    worker->addStrap(QString(), 0.0);
    const int current = worker->currentStrapIndex();
    ui->colorStrapBox->insertItem(ui->colorStrapBox->count(), worker->strapName());
    delegate->appendGradient(worker->gradientStops(current));
    ui->colorStrapBox->setCurrentIndex(current);
    onStrapChanged(current);
    if (worker->strapCount() > 1) {
        ui->rmBtn->setEnabled(true);
    }
}

void SFrmMoodShadow::onRmBtnClicked()
{
    MoodShadow* worker = moodShadow();
    if (!worker) {
        return;
    }
    const int i = ui->colorStrapBox->currentIndex();
    worker->removeStrap(i);
    const bool blocked = ui->colorStrapBox->blockSignals(true);
    ui->colorStrapBox->removeItem(i);
    delegate->removeGradient(i);
    onStrapChanged(worker->currentStrapIndex());
    ui->colorStrapBox->setCurrentIndex(worker->currentStrapIndex());
    ui->colorStrapBox->blockSignals(blocked);
    ui->colorStrapBox->update();
    // The list can't become empty from here.
    if (worker->strapCount() <= 1) {
        ui->rmBtn->setEnabled(false);
    }
}

void SFrmMoodShadow::onGradientKeyColorChanged(QList<QGradientStop> colors)
{
    MoodShadow* worker = moodShadow();
    if (!worker) {
        return;
    }
    if (colors.size() < 2) {
        qCritical() << kTag << "The colors size is invalid.";
        return;
    }
    const QColor ends = colors.first().second;
    delegate->replaceGradient(ui->colorStrapBox->currentIndex(), colors);
    ui->colorStrapBox->update();
    colors.removeFirst();
    colors.removeLast();
    worker->setKeyColor(colors);
    worker->setEndsColor(ends);
}

void SFrmMoodShadow::onStrapNameChanged(QString name)
{
    if (MoodShadow* worker = moodShadow()) {
        worker->setStrapName(name);
    }
}

void SFrmMoodShadow::changeEvent(QEvent* event)
{
    AbsWorkerWidget::changeEvent(event);
    if (event->type() == QEvent::LanguageChange) {
        ui->retranslateUi(this);
    }
}
