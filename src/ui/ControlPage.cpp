#include "ui/ControlPage.h"

#include "service/config/DataPaths.h"
#include "ui_ControlPage.h"

#include <QCoreApplication>
#include <QDebug>
#include <QEvent>
#include <QGridLayout>
#include <QPainter>
#include <QPainterPath>
#include <QRadioButton>
#include <QScrollBar>
#include <QSpacerItem>
#include <QTimer>

namespace {

constexpr char kTag[] = "[ControlPage]:";

// Effect pictures are square and the buttons round: the picture is cut to a circle a little
// smaller than the button, so the button's own colour shows as a ring, orange when chosen.
QIcon roundIcon(const QIcon& icon, qreal ratio)
{
    constexpr int side = 100;
    constexpr int inset = 5;
    const QPixmap picture = icon.pixmap(QSize(side, side) * ratio);
    if (picture.isNull()) {
        return icon;
    }
    QPixmap canvas(QSize(side, side) * ratio);
    canvas.setDevicePixelRatio(ratio);
    canvas.fill(Qt::transparent);
    QPainter painter(&canvas);
    painter.setRenderHints(QPainter::Antialiasing | QPainter::SmoothPixmapTransform);
    const QRectF inner(inset, inset, side - 2 * inset, side - 2 * inset);
    QPainterPath circle;
    circle.addEllipse(inner);
    painter.setClipPath(circle);
    painter.drawPixmap(inner, picture, QRectF());
    return QIcon(canvas);
}

} // namespace

ControlPage::ControlPage(QWidget* parent)
    : QWidget(parent)
    , ui(new Ui::ControlPage)
{
    ui->setupUi(this);
    ui->lOperateWidConatiner->setCurrentWidget(ui->productImgWid);

    // Only the left-to-right button reports: the other one toggles in the same click.
    connect(ui->installDirectionLTRButton, &QRadioButton::toggled, this,
            &ControlPage::onInstallDirRadioBtnChanged);
    connect(ui->LEDEnableButton, &QRadioButton::toggled, this, &ControlPage::onLEDSwitchBtnChanged);
    connect(ui->brightnessSlider, &QSlider::valueChanged, this, &ControlPage::onBrightnessChanged);
    // The options of a chosen effect sit below the fold once the effect grid has two rows: they
    // come into view while the page lays itself out anew, until the user scrolls.
    QScrollBar* bar = ui->scrollArea->verticalScrollBar();
    connect(bar, &QScrollBar::rangeChanged, this, [this] {
        if (optionsFollowChoice) {
            revealOptions();
        }
    });
    connect(bar, &QScrollBar::actionTriggered, this, [this] { optionsFollowChoice = false; });
    ui->modelImageHeader->setSizePolicy(QSizePolicy::Ignored,
                                        ui->modelImageHeader->sizePolicy().verticalPolicy());
}

ControlPage::~ControlPage()
{
    // The buttons go with the maps, while their containers still exist.
    workers.clear();
    groups.clear();
}

void ControlPage::setProductImage(QImage image)
{
    productImage = image;
}

void ControlPage::setDir(int dir)
{
    const bool blocked = blockSignals(true);
    if (dir != 0) {
        ui->installDirectionRTLButton->click();
    } else {
        ui->installDirectionLTRButton->click();
    }
    blockSignals(blocked);
    update();
}

void ControlPage::setEnable(bool enable)
{
    const bool blocked = blockSignals(true);
    if (enable) {
        ui->LEDEnableButton->click();
    } else {
        ui->LEDDisableButton->click();
    }
    blockSignals(blocked);
    update();
}

void ControlPage::setBrightness(float brightness)
{
    const bool blocked = blockSignals(true);
    // Single precision on purpose: 0.29 shows as 29, where double arithmetic would give 28.
    ui->brightnessSlider->setValue(int(brightness * 100.0f));
    blockSignals(blocked);
    update();
}

void ControlPage::setWorkGroups(QMap<QString, WorkGroupModel> newGroups, QString current)
{
    {
        QMap<QString, GroupEntry> old;
        groups.swap(old);
    }
    delete ui->workGroupContainer->layout();
    auto* grid = new QGridLayout(ui->workGroupContainer);
    grid->setContentsMargins(20, 20, 20, 20);
    grid->setHorizontalSpacing(10);
    grid->setVerticalSpacing(15);

    QMap<int, QSharedPointer<QRadioButton>> ordered;
    for (auto it = newGroups.cbegin(); it != newGroups.cend(); ++it) {
        const QString id = it.key();
        const WorkGroupModel& model = it.value();
        QSharedPointer<QRadioButton> button(new QRadioButton(ui->workGroupContainer));
        button->setProperty("class", QStringLiteral("RadioButton1"));
        button->setText(QCoreApplication::translate("GroupInformation", model.name.toUtf8().constData()));
        button->setToolTip(model.description);
        // Of two groups with one order the later wins; the other stays out of the grid.
        if (ordered.contains(model.order)) {
            ordered.value(model.order)->hide();
        }
        ordered.insert(model.order, button);
        connect(button.data(), &QRadioButton::toggled, this, [this, id](bool checked) {
            if (checked) {
                currentGroup = id;
                emit workGoupChanged(id);
                followChoice();
            }
        });
        groups.insert(id, GroupEntry{model, button});
    }

    int i = 0;
    for (const QSharedPointer<QRadioButton>& button : qAsConst(ordered)) {
        grid->addWidget(button.data(), i / 3, i % 3, Qt::AlignLeft | Qt::AlignHCenter);
        ++i;
    }
    ui->workGroupContainer->adjustSize();
    if (!current.isEmpty()) {
        setCurrentGroup(current);
    }
}

void ControlPage::setWorkGroups(QMap<QString, WorkGroupModel> newGroups)
{
    setWorkGroups(newGroups, QString());
}

void ControlPage::setWorkers(QMap<QString, WorkerModel> newWorkers, QString current)
{
    {
        QMap<QString, WorkerEntry> old;
        workers.swap(old);
    }
    delete ui->workerContainer->layout();
    auto* grid = new QGridLayout(ui->workerContainer);

    QMap<int, QSharedPointer<QRadioButton>> ordered;
    for (auto it = newWorkers.cbegin(); it != newWorkers.cend(); ++it) {
        const QString id = it.key();
        const WorkerModel& model = it.value();
        QSharedPointer<QRadioButton> button(new QRadioButton(ui->workerContainer));
        button->setProperty("class", QStringLiteral("WorkerButton"));
        button->setText(QCoreApplication::translate("EffectNames", model.name.toUtf8().constData()));
        QIcon icon = model.icon;
        if (icon.isNull()) {
            QString fileName = id;
            fileName.replace(QLatin1Char('.'), QLatin1Char('_'));
            icon = QIcon(DataPaths::locate(QStringLiteral("images/icons/%1.png").arg(fileName)));
        }
        button->setIcon(roundIcon(icon, devicePixelRatioF()));
        button->setIconSize(QSize(100, 100));
        button->setFixedSize(100, 100);
        button->setToolTip(
            QCoreApplication::translate("EffectNames", model.description.toUtf8().constData()));
        button->setToolTipDuration(30000);
        if (ordered.contains(model.order)) {
            ordered.value(model.order)->hide();
        }
        ordered.insert(model.order, button);
        connect(button.data(), &QRadioButton::toggled, this, [this, id](bool checked) {
            if (checked) {
                currentWorker = id;
                emit workerChanged(id);
                followChoice();
            }
        });
        workers.insert(id, WorkerEntry{model, button});
    }

    int i = 0;
    for (const QSharedPointer<QRadioButton>& button : qAsConst(ordered)) {
        grid->addWidget(button.data(), i / 4, i % 4, Qt::AlignHCenter | Qt::AlignVCenter);
        ++i;
    }
    grid->addItem(new QSpacerItem(20, 40, QSizePolicy::Minimum, QSizePolicy::Expanding), 100, 0);
    grid->addItem(new QSpacerItem(20, 40, QSizePolicy::Expanding, QSizePolicy::Minimum), 0, 4);

    if (!current.isEmpty()) {
        setCurrentWorker(current);
    }
    // A group of exactly one effect has no sub mode to choose.
    ui->workersRegion->setVisible(workers.size() != 1);
}

void ControlPage::setWorkers(QMap<QString, WorkerModel> newWorkers)
{
    setWorkers(newWorkers, QString());
}

void ControlPage::setCurrentGroup(QString id)
{
    const auto it = groups.constFind(id);
    if (it == groups.cend()) {
        qWarning() << kTag << "No group button for id" << id;
        return;
    }
    currentGroup = id;
    const bool blocked = blockSignals(true);
    it->button->setChecked(true);
    blockSignals(blocked);
}

void ControlPage::setCurrentWorker(QString id)
{
    const auto it = workers.constFind(id);
    if (it == workers.cend()) {
        qWarning() << kTag << "No effect button for id" << id;
        return;
    }
    currentWorker = id;
    const bool blocked = blockSignals(true);
    it->button->setChecked(true);
    blockSignals(blocked);
}

void ControlPage::setOperateWidget(QWidget* sOperateWidget, QWidget* lOperateWidget)
{
    QGridLayout* grid = ui->otherOptionsLayout;
    if (QLayoutItem* item = grid->itemAtPosition(0, 0)) {
        grid->removeItem(item);
        // The old panel stays alive and parked here: it belongs to its effect.
        if (QWidget* old = item->widget()) {
            old->hide();
        }
        delete item;
    }

    if (sOperateWidget) {
        if (!sOperateWidget->parent()) {
            sOperateWidget->setParent(ui->otherOptionsWidget);
        }
        sOperateWidget->show();
        grid->addWidget(sOperateWidget, 0, 0);
        ui->otherOptionsWidget->setFixedHeight(sOperateWidget->height());
    } else {
        // An effect without options leaves the region empty, a strip under its header.
        ui->otherOptionsWidget->setFixedHeight(20);
    }

    QStackedWidget* stack = ui->lOperateWidConatiner;
    if (lOperateWidget) {
        int index = stack->indexOf(lOperateWidget);
        if (index < 0) {
            index = stack->addWidget(lOperateWidget);
        }
        stack->setCurrentIndex(index);
    } else {
        stack->setCurrentWidget(ui->productImgWid);
        ui->productImgWid->setImg(productImage);
    }
    update();
}

void ControlPage::setControllerName(QString name)
{
    controllerName = name;
    updateHeader();
}

void ControlPage::setControllerId(QString id)
{
    optionsFollowChoice = false;
    controllerId = id;
    updateHeader();
}

void ControlPage::followChoice()
{
    if (signalsBlocked()) {
        return; // the program set the choice, not the user
    }
    optionsFollowChoice = true;
    // Also when nothing changes size: the layout is settled by then.
    QTimer::singleShot(0, this, &ControlPage::revealOptions);
}

void ControlPage::revealOptions()
{
    ui->scrollArea->ensureWidgetVisible(ui->otherOptionsWidget, 0, 0);
}

void ControlPage::updateHeader()
{
    // A long name (a device path, say) is shortened in the middle rather than widen the page.
    QLabel* header = ui->modelImageHeader;
    const QString text = QStringLiteral("  %1 (%2)").arg(controllerName, controllerId);
    const int room = header->contentsRect().width() - 2 * header->margin();
    const QString shown = header->fontMetrics().elidedText(text, Qt::ElideMiddle, room);
    header->setText(shown);
    header->setToolTip(shown == text ? QString() : text.trimmed());
}

void ControlPage::resizeEvent(QResizeEvent* event)
{
    QWidget::resizeEvent(event);
    updateHeader();
}

void ControlPage::changeEvent(QEvent* event)
{
    QWidget::changeEvent(event);
    if (event->type() != QEvent::LanguageChange) {
        return;
    }
    ui->retranslateUi(this);
    for (const GroupEntry& entry : qAsConst(groups)) {
        entry.button->setText(
            QCoreApplication::translate("GroupInformation", entry.model.name.toUtf8().constData()));
    }
    for (const WorkerEntry& entry : qAsConst(workers)) {
        entry.button->setText(
            QCoreApplication::translate("EffectNames", entry.model.name.toUtf8().constData()));
    }
    // The form's retranslation doesn't know the header.
    setControllerName(controllerName);
}

void ControlPage::onInstallDirRadioBtnChanged(bool checked)
{
    emit dirChanged(int(!checked));
}

void ControlPage::onLEDSwitchBtnChanged(bool checked)
{
    emit enableChanged(checked);
}

void ControlPage::onBrightnessChanged(int value)
{
    emit brightnessChanged(value / 100.0f);
}
