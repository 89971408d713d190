#include "ui/dialogs/HelpDialog.h"

#include "online/HelpDialogViewModel.h"
#include "service/net/CompareVersion.h"
#include "ui_HelpDialog.h"

#include <QEvent>

namespace {

QString link(const QString& target, const QString& text)
{
    return QStringLiteral("<a href=\"%1\" style=\"color: rgb(231,150,26);\">%2</a>")
        .arg(target.toHtmlEscaped(), text.toHtmlEscaped());
}

} // namespace

HelpDialog::HelpDialog(std::shared_ptr<HelpDialogViewModel> viewModel, QWidget* parent)
    : BaseDialog(parent)
    , ui(new Ui::HelpDialog)
    , viewModel(std::move(viewModel))
{
    // The header's close picture lives in the program's resources, which a static library only
    // links in when asked.
    Q_INIT_RESOURCE(ui);
    ui->setupUi(this);
    ui->pushButton_send->setProperty("class", QStringLiteral("Button1"));
    ui->updateBtn->setProperty("class", QStringLiteral("Button1"));

    ui->sliderBar->setItems(tr("版本信息;问题反馈;联系我们"));
    ui->sliderBar->setHorizontal(false);
    ui->sliderBar->setBarStyle(SliderBar::BarStyle_Line_Left);
    ui->sliderBar->setBarColorStart(QColor(61, 66, 77));
    ui->sliderBar->setBarColorEnd(QColor(61, 66, 77));
    ui->sliderBar->setBgColorStart(QColor(41, 44, 51));
    ui->sliderBar->setBgColorEnd(QColor(41, 44, 51));
    ui->sliderBar->setTextNormalColor(QColor(187, 187, 188));
    ui->sliderBar->setTextSelectColor(QColor(231, 150, 26));
    ui->sliderBar->setLineColor(QColor(250, 160, 14));
    connect(ui->sliderBar, &SliderBar::currentItemChanged, this, &HelpDialog::currentItemChanged);
    ui->sliderBar->setCurrentIndex(0);

    const QString website = QStringLiteral(ORVANTA_WEBSITE_URL);
    const QString email = QStringLiteral(ORVANTA_SUPPORT_EMAIL);
    // The addresses speak for themselves in every language.
    ui->label_web->setText(link(website, website));
    ui->label_email->setText(link(QStringLiteral("mailto:") + email, email));

    connect(ui->toolButton, &QToolButton::clicked, this, &QDialog::reject);
    connect(ui->updateBtn, &QPushButton::clicked, this, &HelpDialog::onUpdateBtnClicked);
    connect(ui->pushButton_send, &QPushButton::clicked, this, &HelpDialog::onSendFeedbackBtnClicked);

    ui->currentVerLabel->setText(this->viewModel->currentVersion());
    onLatestVersionChanged();
    connect(this->viewModel.get(), &HelpDialogViewModel::latestVersionChanged, this,
            &HelpDialog::onLatestVersionChanged);
}

HelpDialog::~HelpDialog() = default;

void HelpDialog::currentItemChanged(int index, QString item)
{
    Q_UNUSED(item)
    ui->stackedWidget->setCurrentIndex(index);
}

void HelpDialog::onSendFeedbackBtnClicked()
{
    const QString userMsg = ui->userMsgEdit->toPlainText();
    const QString userContactInfo = ui->userContactInfoEdit->text();
    // checkBox_2 is read by nobody: what is sent never depends on it.
    const HelpDialogViewModel::FeedbackHandler handler = viewModel->feedbackHandler();
    if (handler) {
        handler(userMsg, userContactInfo);
    }
}

void HelpDialog::onLatestVersionChanged()
{
    const QString latest = viewModel->latestVersion();
    const bool newer = !latest.isEmpty() && compareVersion(latest, viewModel->currentVersion());
    if (newer) {
        ui->latestVerDescLabel->setText(tr("最新版本号："));
        ui->latestVerLabel->setText(latest);
        ui->latestVerLabel->show();
        ui->updateBtn->show();
    } else {
        ui->latestVerLabel->hide();
        ui->latestVerDescLabel->setText(tr("已是最新版本"));
        ui->updateBtn->hide();
    }
}

void HelpDialog::onUpdateBtnClicked()
{
    const HelpDialogViewModel::UpdateHandler handler = viewModel->updateHandler();
    if (handler) {
        handler();
    }
}

void HelpDialog::changeEvent(QEvent* event)
{
    // Only the tabs follow a language change; the dialog is modal, so none reaches it open.
    if (event->type() == QEvent::LanguageChange) {
        ui->sliderBar->setItems(tr("版本信息;问题反馈;联系我们"));
    }
}
