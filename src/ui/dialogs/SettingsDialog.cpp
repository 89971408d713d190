#include "ui/dialogs/SettingsDialog.h"

#include "i18n/LanguageManager.h"
#include "service/config/ConfigurationManager.h"
#include "service/config/DataPaths.h"
#include "service/screen/DeskCaptureOption.h"
#include "ui_SettingsDialog.h"

#include <QCoreApplication>
#include <QDesktopServices>
#include <QDir>
#include <QMessageBox>
#include <QSignalBlocker>
#include <QStandardPaths>
#include <QUrl>

namespace {

constexpr char kTag[] = "[SettingsDialog]:";
constexpr char kCaptureOptionProperty[] = "com.orvanta.runtime.options.deskCaptureOption";

DeskCaptureOption* captureOption()
{
    return reinterpret_cast<DeskCaptureOption*>(qApp->property(kCaptureOptionProperty).value<quintptr>());
}

} // namespace

SettingsDialog::SettingsDialog(QWidget* parent)
    : BaseDialog(parent)
    , ui(new Ui::SettingsDialog)
    , autostart(AutostartEntry::forThisProgram())
    , languageDir(DataPaths::folderWith(QStringLiteral("languages"), QStringLiteral("orvanta_*.qm"),
                                        DataPaths::First::ProgramFolder))
{
    Q_INIT_RESOURCE(ui);
    ui->setupUi(this);
    connect(ui->quitBtn, &QToolButton::clicked, this, &QDialog::reject);
    for (QPushButton* button : {ui->btnOpenConfigDir, ui->btnDefaultSettings}) {
        button->setProperty("class", QStringLiteral("Button1"));
    }
    ui->hotkeyEditWidget->setContentsMargins(28, 20, 28, 20);

    ui->chkStartup->setChecked(autostart.state() == AutostartEntry::State::On);
    connect(ui->chkStartup, &QCheckBox::stateChanged, this, &SettingsDialog::onCheckBoxStateChanged);

    languageNames = {
        {"zh", QStringLiteral("中文")},     {"en", QStringLiteral("English")},
        {"fr", QStringLiteral("français")}, {"de", QStringLiteral("Deutsch")},
        {"ja", QStringLiteral("日本語")},   {"ko", QStringLiteral("한국어")},
        {"es", QStringLiteral("español")},  {"pt", QStringLiteral("português")},
        {"ru", QStringLiteral("русский")},  {"ar", QStringLiteral("العربية")},
    };
    fillLanguages();
    connect(ui->cbxLanguage, QOverload<int>::of(&QComboBox::currentIndexChanged), this,
            &SettingsDialog::onCbxLanguageCurrentIndexChanged);

    SliderBar* tabs = ui->sliderBar;
    tabs->setItems(tr("通用设置;快捷键设置"));
    tabs->setHorizontal(false);
    tabs->setBarStyle(SliderBar::BarStyle_Line_Left);
    tabs->setBarColorStart(QColor(61, 66, 77));
    tabs->setBarColorEnd(QColor(61, 66, 77));
    tabs->setBgColorStart(QColor(41, 44, 51));
    tabs->setBgColorEnd(QColor(41, 44, 51));
    tabs->setTextNormalColor(QColor(187, 187, 188));
    tabs->setTextSelectColor(QColor(231, 150, 26));
    tabs->setLineColor(QColor(250, 160, 14));
    connect(tabs, &SliderBar::currentItemChanged, this, &SettingsDialog::onSliderBarCurItemChanged);

    fillCaptureModes();
    alignRows();
    if (DeskCaptureOption* option = captureOption()) {
        // Once: the box is refilled at each language change, the choice reaches the option once.
        connect(ui->screenCaptureModeComboBox, QOverload<int>::of(&QComboBox::currentIndexChanged), option,
                &DeskCaptureOption::setCurMode);
    }

    connect(ui->btnDefaultSettings, &QPushButton::clicked, this, &SettingsDialog::askForDefaults);
    ui->btnOpenConfigDir->setToolTip(QStandardPaths::writableLocation(QStandardPaths::AppConfigLocation));
}

SettingsDialog::~SettingsDialog() = default;

HotKeyEditWidget* SettingsDialog::hotkeyEditor() const
{
    return ui->hotkeyEditWidget;
}

void SettingsDialog::onCheckBoxStateChanged(int state)
{
    QString why;
    ui->autostartNote->hide();
    if (state != Qt::Checked) {
        if (autostart.disable(&why) == AutostartEntry::Result::Failed) {
            qWarning().noquote() << kTag << "Cannot remove the autostart file" << autostart.filePath() << "-"
                                 << why;
        }
        return;
    }
    switch (autostart.enable(&why)) {
    case AutostartEntry::Result::Done:
        qInfo().noquote() << kTag << "The autostart file has been written:" << autostart.filePath();
        return;
    case AutostartEntry::Result::Refused:
        refuseAutostart(why);
        return;
    case AutostartEntry::Result::Failed:
        qWarning().noquote() << kTag << "Cannot write the autostart file" << autostart.filePath() << "-"
                             << why;
        break;
    }
    const QSignalBlocker blocker(ui->chkStartup);
    ui->chkStartup->setChecked(false);
}

void SettingsDialog::refuseAutostart(const QString& why)
{
    qWarning().noquote() << kTag
                         << "An autostart file of this name is not the program's own and stays as it is:"
                         << autostart.filePath() << "-" << why;
    {
        const QSignalBlocker blocker(ui->chkStartup);
        ui->chkStartup->setChecked(false);
    }
    ui->autostartNote->setText(
        tr("已存在同名的自启动文件：%1。请移除或重命名后再试。").arg(autostart.filePath()));
    ui->autostartNote->show();
}

void SettingsDialog::fillLanguages()
{
    const QSignalBlocker blocker(ui->cbxLanguage);
    ui->cbxLanguage->clear();
    const QStringList files =
        QDir(languageDir).entryList({QStringLiteral("orvanta_*.qm")}, QDir::Files, QDir::Name);
    for (const QString& file : files) {
        const QString code = file.mid(8, 2);
        if (!languageNames.contains(code)) {
            continue;
        }
        if (code == QLatin1String("zh")) {
            ui->cbxLanguage->insertItem(0, languageNames.value(code), code);
        } else {
            ui->cbxLanguage->addItem(languageNames.value(code), code);
        }
    }
    // A language with no row is shown in the source texts, which are Chinese.
    int row = ui->cbxLanguage->findData(LanguageManager::instance()->language());
    if (row < 0) {
        row = ui->cbxLanguage->findData(QStringLiteral("zh"));
    }
    ui->cbxLanguage->setCurrentIndex(row);
}

void SettingsDialog::onCbxLanguageCurrentIndexChanged(int index)
{
    LanguageManager::instance()->setLanguage(ui->cbxLanguage->itemData(index).toString());
}

void SettingsDialog::fillCaptureModes()
{
    DeskCaptureOption* option = captureOption();
    if (!option) {
        ui->screenCaptureModeView->hide();
        qWarning().noquote() << kTag << "Cannot found deskCaptureOption instance.";
        return;
    }
    const QSignalBlocker blocker(ui->screenCaptureModeComboBox);
    ui->screenCaptureModeComboBox->clear();
    for (int mode = 1; mode <= option->totalOfMode(); ++mode) {
        ui->screenCaptureModeComboBox->addItem(tr("模式 %1").arg(mode));
    }
    ui->screenCaptureModeComboBox->setCurrentIndex(option->curMode());
}

void SettingsDialog::askForDefaults()
{
    const QMessageBox::StandardButton answer = QMessageBox::question(
        nullptr, QStringLiteral("Orvanta"), tr("清理配置文件需要重启应用程序, 这个操作将退出Orvanta."),
        QMessageBox::Yes | QMessageBox::No);
    if (answer != QMessageBox::Yes) {
        return;
    }
    ConfigurationManager::instance()->EnableCleanStartup();
    QCoreApplication::quit();
}

void SettingsDialog::on_btnOpenConfigDir_clicked()
{
    const QString path = QStandardPaths::writableLocation(QStandardPaths::AppConfigLocation);
    if (!QDesktopServices::openUrl(QUrl::fromLocalFile(path))) {
        qWarning().noquote() << kTag << "Cannot open the configuration folder" << path;
    }
    if (qApp->property("enableCrashTest").toBool()) {
        // The reporting path's test: a write through a null pointer the optimiser must keep.
        volatile int* nowhere = nullptr;
        *nowhere = 1;
    }
}

void SettingsDialog::alignRows()
{
    // The two boxes line up whatever the labels' language.
    const int width = qMax(ui->labLanguage->sizeHint().width(), ui->labCaptureMode->sizeHint().width());
    ui->labLanguage->setMinimumWidth(width);
    ui->labCaptureMode->setMinimumWidth(width);
}

void SettingsDialog::onSliderBarCurItemChanged(int index, QString item)
{
    Q_UNUSED(item)
    ui->stackedWidget->setCurrentIndex(index);
}

void SettingsDialog::changeEvent(QEvent* event)
{
    if (event->type() == QEvent::LanguageChange) {
        ui->retranslateUi(this);
        const int tab = ui->stackedWidget->currentIndex();
        ui->sliderBar->setItems(tr("通用设置;快捷键设置"));
        ui->sliderBar->setCurrentIndex(tab);
        fillCaptureModes();
        alignRows();
        if (!ui->autostartNote->isHidden()) {
            ui->autostartNote->setText(
                tr("已存在同名的自启动文件：%1。请移除或重命名后再试。").arg(autostart.filePath()));
        }
    }
    BaseDialog::changeEvent(event);
}
