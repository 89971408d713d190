#include "effects/music/panels/MediaSourceOptWidget.h"

#include "effects/music/AbsMusicEffect.h"
#include "service/audio/AudioCapManager.h"
#include "ui_MediaSourceOptWidget.h"

#include <QDebug>
#include <QEvent>

MediaSourceOptWidget::MediaSourceOptWidget(QWidget* parent)
    : AbsWorkerWidget(parent)
    , ui(new Ui::MediaSourceOptWidget)
{
    qRegisterMetaType<std::pair<int, int>>("std::pair<int, int>");
    qRegisterMetaType<LEDBarEnum>("LEDBarEnum");
    ui->setupUi(this);
    AudioCapManager* outputs = AudioCapManager::instacne();
    for (const QString& id : outputs->allCapturers()) {
        onCapturerReady(id);
    }
    connect(outputs, &AudioCapManager::capturerReady, this, &MediaSourceOptWidget::onCapturerReady);
    connect(ui->devicesComboBox, qOverload<int>(&QComboBox::currentIndexChanged), this,
            &MediaSourceOptWidget::onDeviceSelectChanged);
}

MediaSourceOptWidget::~MediaSourceOptWidget() = default;

void MediaSourceOptWidget::onCapturerReady(QString id)
{
    const QString desc = AudioCapManager::instacne()->capturerDesc(id);
    devices.append({id, desc});
    const bool blocked = ui->devicesComboBox->blockSignals(true);
    ui->devicesComboBox->addItem(desc);
    ui->devicesComboBox->blockSignals(blocked);
}

void MediaSourceOptWidget::onCapturerLost(QString id)
{
    int row = -1;
    for (int i = 0; i < devices.size(); ++i) {
        if (devices[i].first == id) {
            row = i;
            break;
        }
    }
    if (row < 0) {
        qWarning().noquote() << "Mode1Widget正在尝试删除一个不存在的设备信息" << id;
        return;
    }
    devices.removeAt(row);
    if (ui->devicesComboBox->currentIndex() == row) {
        ui->devicesComboBox->setCurrentIndex(-1);
    }
    const bool blocked = ui->devicesComboBox->blockSignals(true);
    ui->devicesComboBox->removeItem(row);
    ui->devicesComboBox->blockSignals(blocked);
}

void MediaSourceOptWidget::onDeviceSelectChanged(int idx)
{
    emit capturerChanged(idx >= 0 && idx < devices.size() ? devices[idx].first : QString());
}

void MediaSourceOptWidget::onEffectWorkerChanged(IEffectWorkerPtr worker)
{
    current = qobject_cast<AbsMusicEffect*>(worker.data());
    if (!current) {
        return;
    }
    connect(
        this, &MediaSourceOptWidget::capturerChanged, current.data(),
        [this](QString id) {
            auto* music = qobject_cast<AbsMusicEffect*>(effectWorker().data());
            if (!music) {
                return;
            }
            const bool blocked = music->blockSignals(true);
            music->pinCapturer(id);
            music->blockSignals(blocked);
        },
        Qt::QueuedConnection);
    // A worker that follows the default output moves on its own; the row goes with it.
    connect(current.data(), &AbsMusicEffect::capturerIdChanged, this, &MediaSourceOptWidget::showCapturer);
    showCapturer(current->currentCapturerId());
}

void MediaSourceOptWidget::showCapturer(const QString& id)
{
    if (id.isEmpty()) {
        return;
    }
    for (int i = 0; i < devices.size(); ++i) {
        if (devices[i].first == id) {
            const bool blocked = ui->devicesComboBox->blockSignals(true);
            ui->devicesComboBox->setCurrentIndex(i);
            ui->devicesComboBox->blockSignals(blocked);
            return;
        }
    }
}

void MediaSourceOptWidget::changeEvent(QEvent* event)
{
    AbsWorkerWidget::changeEvent(event);
    if (event->type() == QEvent::LanguageChange) {
        ui->retranslateUi(this);
    }
}
