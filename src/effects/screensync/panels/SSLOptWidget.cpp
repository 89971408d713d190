#include "effects/screensync/panels/SSLOptWidget.h"

#include "effects/screensync/FullScreenMode.h"
#include "effects/screensync/panels/ScreenSyncEditScene.h"
#include "effects/screensync/panels/ScreenSyncEditView.h"

#include <QDebug>
#include <QEvent>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QSpinBox>

#include <memory>

constexpr char kTag[] = "[SSLOptWidget]:";

SSLOptWidget::SSLOptWidget(QWidget* parent)
    : AbsWorkerWidget(parent)
    , view(new ScreenSyncEditView(this))
    , widthBox(new QSpinBox(this))
    , heightBox(new QSpinBox(this))
    , resetBtn(new QPushButton(tr("重置"), this))
{
    view->setObjectName(QStringLiteral("strapEditor"));
    widthBox->setObjectName(QStringLiteral("widthBox"));
    heightBox->setObjectName(QStringLiteral("heightBox"));
    resetBtn->setObjectName(QStringLiteral("resetBtn"));
    resetBtn->setProperty("class", QStringLiteral("Button1"));
    widthBox->setRange(FullScreenMode::minScreenWidth, FullScreenMode::maxScreenWidth);
    widthBox->setValue(120);
    heightBox->setRange(FullScreenMode::minScreenHeight, FullScreenMode::maxScreenHeight);
    heightBox->setValue(67);

    auto controls = std::make_unique<QHBoxLayout>();
    controls->setSpacing(8);
    controls->addWidget(new QLabel(QStringLiteral("W:"), this));
    controls->addWidget(widthBox);
    controls->addSpacing(12);
    controls->addWidget(new QLabel(QStringLiteral("H:"), this));
    controls->addWidget(heightBox);
    controls->addStretch(1);
    controls->addWidget(resetBtn);
    auto* layout = new QGridLayout(this);
    layout->setContentsMargins(10, 10, 10, 10);
    layout->setSpacing(10);
    layout->addWidget(view, 0, 0);
    layout->addLayout(controls.release(), 1, 0);

    connect(view->editScene(), &ScreenSyncEditScene::ledItemPosChanged, this,
            &SSLOptWidget::onLedItemPosChanged);
    connect(widthBox, qOverload<int>(&QSpinBox::valueChanged), this, &SSLOptWidget::onScreenSizeChanged);
    connect(heightBox, qOverload<int>(&QSpinBox::valueChanged), this, &SSLOptWidget::onScreenSizeChanged);
    connect(resetBtn, &QPushButton::clicked, this, &SSLOptWidget::onResetBtnClicked);
}

FullScreenMode* SSLOptWidget::fullScreen() const
{
    auto* mode = qobject_cast<FullScreenMode*>(effectWorker().data());
    if (!mode) {
        qCritical() << kTag << "The worker is nullptr";
    }
    return mode;
}

void SSLOptWidget::reload()
{
    FullScreenMode* mode = fullScreen();
    if (!mode) {
        return;
    }
    const QSize size = mode->screenSize();
    for (QSpinBox* box : {widthBox, heightBox}) {
        const bool blocked = box->blockSignals(true);
        box->setValue(box == widthBox ? size.width() : size.height());
        box->blockSignals(blocked);
    }
    view->setSceneSize(size);
    view->editScene()->setLEDs(mode->ledMapCopy());
    view->editScene()->setDeviceDir(int(mode->currentInstallDirection()));
}

void SSLOptWidget::onEffectWorkerChanged(IEffectWorkerPtr worker)
{
    auto* mode = qobject_cast<FullScreenMode*>(worker.data());
    if (!mode) {
        qCritical() << kTag << "The worker is nullptr";
        return;
    }
    reload();
    connect(mode, &FullScreenMode::frameSnapshot, this, &SSLOptWidget::onFrameTick, Qt::QueuedConnection);
    connect(mode, &FullScreenMode::deviceDirChanged, this, &SSLOptWidget::onDeviceDirChanged,
            Qt::QueuedConnection);
}

void SSLOptWidget::onFrameTick(QImage frame)
{
    view->setFrame(frame);
}

void SSLOptWidget::onLedItemPosChanged(int id, QPoint newPos)
{
    FullScreenMode* mode = fullScreen();
    if (!mode) {
        return;
    }
    mode->setLEDPos(id, newPos);
}

void SSLOptWidget::onScreenSizeChanged(int)
{
    FullScreenMode* mode = fullScreen();
    if (!mode) {
        return;
    }
    mode->setScreenSize(QSize(widthBox->value(), heightBox->value()));
    reload();
}

void SSLOptWidget::onResetBtnClicked()
{
    FullScreenMode* mode = fullScreen();
    if (!mode) {
        return;
    }
    mode->resetLEDMap();
    reload();
}

void SSLOptWidget::onDeviceDirChanged(int)
{
    reload();
}

void SSLOptWidget::changeEvent(QEvent* event)
{
    AbsWorkerWidget::changeEvent(event);
    if (event->type() == QEvent::LanguageChange) {
        resetBtn->setText(tr("重置"));
    }
}
