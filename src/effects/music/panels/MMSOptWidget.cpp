#include "effects/music/panels/MMSOptWidget.h"

#include "effects/IPanelMaker.h"
#include "effects/music/MusicMode1.h"
#include "effects/music/panels/MediaSourceOptWidget.h"
#include "effects/panels/SharedPanel.h"

#include <QCoreApplication>
#include <QEvent>
#include <QGridLayout>
#include <QLabel>
#include <QSlider>
#include <QTimer>

MMSOptWidget* MMSOptWidget::instance()
{
    static SharedPanel<MMSOptWidget> shared;
    return shared.live() || IPanelMaker::current() ? shared.get() : nullptr;
}

MMSOptWidget::MMSOptWidget(QWidget* parent)
    : AbsWorkerWidget(parent)
    , source(new MediaSourceOptWidget(this))
    , slider(new QSlider(Qt::Horizontal, this))
    , label(new QLabel(tr("强度："), this))
{
    slider->setObjectName(QStringLiteral("strengthSlider"));
    slider->setRange(1, 200);
    label->setMargin(9);
    auto* grid = new QGridLayout(this);
    grid->setSpacing(0);
    grid->setContentsMargins(0, 0, 0, 0);
    grid->addWidget(source, 0, 0, 1, 3);
    grid->addWidget(label, 1, 0);
    grid->addWidget(slider, 1, 1);
    grid->setColumnStretch(1, 1);
    // The strength row lines up with the picker's: the same inset on both sides.
    grid->setColumnMinimumWidth(2, kInset);
    label->setIndent(kInset - label->margin());
    alignRows();
    setFixedWidth(443);
    setFixedHeight(source->minimumHeight() + 50);
    connect(slider, &QSlider::valueChanged, this, &MMSOptWidget::onSliderMoved);
}

double MMSOptWidget::strengthOf(int value)
{
    return value < 100 ? value * 0.005 + 0.5 : value * 0.03 - 2.0;
}

int MMSOptWidget::valueOf(double strength)
{
    return strength < 1.0 ? int((strength - 0.5) / 0.005) : int((strength + 2.0) / 0.03);
}

void MMSOptWidget::onEffectWorkerChanged(IEffectWorkerPtr worker)
{
    if (auto* mode = qobject_cast<MusicMode1*>(worker.data())) {
        const bool blocked = slider->blockSignals(true);
        slider->setValue(valueOf(mode->getStrength()));
        slider->blockSignals(blocked);
    }
    source->setEffectWorker(worker);
}

void MMSOptWidget::onEffectWorkerCleared()
{
    source->setEffectWorker(IEffectWorkerPtr());
}

void MMSOptWidget::onSliderMoved(int value)
{
    auto* mode = qobject_cast<MusicMode1*>(effectWorker().data());
    if (!mode) {
        return;
    }
    const double strength = strengthOf(value);
    mode->setMulEnhance(strength);
    mode->setStrength(strength);
}

void MMSOptWidget::changeEvent(QEvent* event)
{
    AbsWorkerWidget::changeEvent(event);
    if (event->type() == QEvent::LanguageChange) {
        label->setText(tr("强度："));
        // After the picker has relabelled itself too.
        QTimer::singleShot(0, this, &MMSOptWidget::alignRows);
    }
}

void MMSOptWidget::alignRows()
{
    // Both labels as wide as the wider text, so that the box and the slider start in one column.
    auto* sourceLabel = source->findChild<QLabel*>(QStringLiteral("label"));
    const int text =
        qMax(sourceLabel->sizeHint().width(), label->fontMetrics().horizontalAdvance(label->text()));
    sourceLabel->setMinimumWidth(text);
    label->setFixedWidth(kInset + text + kSourceSpacing);
}
