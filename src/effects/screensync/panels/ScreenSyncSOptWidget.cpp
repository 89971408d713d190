#include "effects/screensync/panels/ScreenSyncSOptWidget.h"

#include "effects/IPanelMaker.h"
#include "effects/panels/SharedPanel.h"
#include "effects/screensync/AbsScreenSync.h"
#include "service/screen/DeskDuplManager.h"
#include "ui_ScreenSyncSOptWidget.h"

#include <QCoreApplication>
#include <QEvent>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>

namespace {
const char* const kSliderSheet =
    "QSlider::groove:horizontal{ height: 10px;left: 5px; right: 5px; background: rgb(51,51,51);}"
    "QSlider::handle:horizontal{ width: 16px; margin: -3px 0; border-radius: 8px; background: "
    "rgb(247,175,55);}"
    "QSlider::sub-page:horizontal{ background: rgb(247,175,55);}";
}

ScreenSyncSOptWidget* ScreenSyncSOptWidget::instance()
{
    static SharedPanel<ScreenSyncSOptWidget> shared;
    if (!shared.live() && !IPanelMaker::current()) {
        return nullptr;
    }
    bool made = false;
    ScreenSyncSOptWidget* panel = shared.get(&made);
    if (made) {
        DeskDuplManager* sources = DeskDuplManager::instance();
        connect(sources, &DeskDuplManager::capturerFailed, panel,
                [panel](int id) { panel->onCapturerReady(id); });
        connect(sources, &DeskDuplManager::capturerReady, panel,
                [panel](int id) { panel->onCapturerReady(id); });
        connect(sources, &DeskDuplManager::stateChanged, panel, [panel](DeskCaptureState state) {
            panel->shownState = state;
            panel->showState();
        });
        panel->shownState = sources->state();
        panel->onCapturerReady(0);
    }
    return panel;
}

ScreenSyncSOptWidget::ScreenSyncSOptWidget(QWidget* parent)
    : AbsWorkerWidget(parent)
    , ui(new Ui::ScreenSyncSOptWidget)
    , noticeBox(new QWidget(this))
    , noticeLabel(new QLabel(noticeBox))
    , shareButton(new QPushButton(noticeBox))
{
    qRegisterMetaType<qintptr>("qintptr");
    ui->setupUi(this);
    noticeBox->setObjectName(QStringLiteral("noticeBox"));
    noticeLabel->setObjectName(QStringLiteral("noticeLabel"));
    noticeLabel->setWordWrap(true);
    shareButton->setObjectName(QStringLiteral("shareButton"));
    auto* row = new QHBoxLayout(noticeBox);
    row->setContentsMargins(0, 0, 0, 0);
    row->addWidget(noticeLabel, 1);
    row->addWidget(shareButton);
    noticeBox->hide(); // in the source row's place while shown
    connect(shareButton, &QPushButton::clicked, this,
            [] { DeskDuplManager::instance()->requestSources(true); });
    ui->saturationStrengthSlider->setStyleSheet(QLatin1String(kSliderSheet));
    ui->blurStrengthSlider->setStyleSheet(QLatin1String(kSliderSheet));
    connect(ui->comboBox, qOverload<int>(&QComboBox::currentIndexChanged), this,
            &ScreenSyncSOptWidget::onComboBoxChanged);
    connect(ui->saturationStrengthSlider, &QSlider::valueChanged, this,
            &ScreenSyncSOptWidget::onSaturationChanged);
    connect(ui->blurStrengthSlider, &QSlider::valueChanged, this, &ScreenSyncSOptWidget::onBlurChanged);
}

ScreenSyncSOptWidget::~ScreenSyncSOptWidget() = default;

void ScreenSyncSOptWidget::onCapturerReady(qintptr)
{
    DeskDuplManager* sources = DeskDuplManager::instance();
    const QString shown = ui->comboBox->currentText();
    const bool blocked = ui->comboBox->blockSignals(true);
    ui->comboBox->clear();
    capturerIds.clear();
    const QList<int> ids = sources->allCapturer();
    for (int id : ids) {
        ui->comboBox->addItem(sources->capturerDesc(id));
        capturerIds.append(id);
    }
    ui->comboBox->setCurrentText(shown);
    ui->comboBox->blockSignals(blocked);
    showSource();
    showState();
}

QString ScreenSyncSOptWidget::noticeOf(DeskCaptureState state)
{
    switch (state) {
    case DeskCaptureState::Ready:
        break;
    case DeskCaptureState::NoSource:
    case DeskCaptureState::DisplayLost:
        return tr("屏幕同步需要 X11 会话或屏幕共享（xdg-desktop-portal）。");
    case DeskCaptureState::XwaylandWithoutSharing:
        return tr("此处无法共享屏幕：请安装桌面的门户后端。");
    case DeskCaptureState::Asking:
        return tr("请选择要共享的屏幕...");
    case DeskCaptureState::Declined:
        return tr("屏幕共享已被拒绝。");
    case DeskCaptureState::Stopped:
        return tr("桌面已停止屏幕共享。");
    }
    return QString();
}

void ScreenSyncSOptWidget::showState()
{
    const DeskCaptureState state = shownState;
    const bool notice =
        state != DeskCaptureState::Ready && DeskDuplManager::instance()->allCapturer().isEmpty();
    // The notice replaces the source row rather than hiding it: a hidden row keeps its spacing.
    int row = -1;
    QFormLayout::ItemRole role;
    ui->layout->getWidgetPosition(noticeBox, &row, &role);
    if (notice != (row >= 0)) {
        const QFormLayout::TakeRowResult taken = ui->layout->takeRow(0);
        delete taken.labelItem; // the widgets stay
        delete taken.fieldItem;
        if (notice) {
            ui->layout->insertRow(0, noticeBox);
        } else {
            ui->layout->insertRow(0, ui->label, ui->comboBox);
        }
    }
    ui->label->setVisible(!notice);
    ui->comboBox->setVisible(!notice);
    noticeBox->setVisible(notice);
    noticeLabel->setText(noticeOf(state));
    shareButton->setText(tr("共享屏幕..."));
    shareButton->setVisible(state == DeskCaptureState::Declined || state == DeskCaptureState::Stopped);
}

void ScreenSyncSOptWidget::showSource()
{
    const int row = capturerIds.indexOf(shownSource);
    if (row < 0) {
        return;
    }
    const bool blocked = ui->comboBox->blockSignals(true);
    ui->comboBox->setCurrentIndex(row);
    ui->comboBox->blockSignals(blocked);
}

void ScreenSyncSOptWidget::onEffectWorkerChanged(IEffectWorkerPtr worker)
{
    // The catalogue gives this panel to screen modes only.
    auto* screen = qobject_cast<AbsScreenSync*>(worker.data());
    if (!screen) {
        return;
    }
    shownSource = screen->currentSourceIndex();
    showSource();
    {
        const bool blocked = blockSignals(true);
        ui->saturationStrengthSlider->setValue(int(screen->currentSaturationStrength() * 100 + 100));
        ui->blurStrengthSlider->setValue(int(screen->currentBlurStrength() * 100));
        blockSignals(blocked);
    }
    connect(this, &ScreenSyncSOptWidget::blurChanged, screen, &AbsScreenSync::setBlurStrength);
    connect(this, &ScreenSyncSOptWidget::saturationChanged, screen, &AbsScreenSync::setSaturationStrength);
    connect(this, &ScreenSyncSOptWidget::frameSourcesChanged, screen, &AbsScreenSync::setInputSourceIdx);
    connect(screen, &AbsScreenSync::frameImageTick, this, &ScreenSyncSOptWidget::onFrameUpdated,
            Qt::QueuedConnection);
    // The worker moves by itself when its monitor goes.
    connect(
        screen, &AbsScreenSync::inputSourceChanged, this,
        [this](qintptr id) {
            shownSource = id;
            showSource();
        },
        Qt::QueuedConnection);
}

void ScreenSyncSOptWidget::onBlurChanged(int value)
{
    emit blurChanged(float(value / 100.0));
}

void ScreenSyncSOptWidget::onSaturationChanged(int value)
{
    emit saturationChanged(float((value - 100.0) / 100.0));
}

void ScreenSyncSOptWidget::onComboBoxChanged(int idx)
{
    if (idx >= 0 && idx < capturerIds.size()) {
        emit frameSourcesChanged(capturerIds[idx]);
    }
}

void ScreenSyncSOptWidget::onFrameUpdated(QImage)
{
    // The connection is kept; the frame is not shown here.
}

void ScreenSyncSOptWidget::resizeEvent(QResizeEvent* event)
{
    AbsWorkerWidget::resizeEvent(event);
    adjustSize();
}

void ScreenSyncSOptWidget::changeEvent(QEvent* event)
{
    AbsWorkerWidget::changeEvent(event);
    if (event->type() == QEvent::LanguageChange) {
        ui->retranslateUi(this);
        showState();
    }
}
