#include "crash/reporter/CrashReporterWindow.h"

#include "crash/reporter/CrashSender.h"

#include <QCheckBox>
#include <QDateTime>
#include <QDesktopServices>
#include <QEvent>
#include <QFile>
#include <QFileInfo>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QUrl>
#include <QVBoxLayout>
#include <QVariant>

#include <memory>

CrashReporterWindow::CrashReporterWindow(CrashReportQueue* queue, const QString& reportPath,
                                         const CrashReport& report, const QStringList& reports,
                                         QWidget* parent)
    : QDialog(parent)
    , queue(queue)
    , reportPath(reportPath)
    , report(report)
    , reports(reports)
    , sender(new CrashSender(queue, this))
    , headline(new QLabel(this))
    , explanation(new QLabel(this))
    , contents(new QLabel(this))
    , status(new QLabel(this))
    , detailsBox(new QWidget(this))
    , details(new QLabel(detailsBox))
    , detailsButton(new QPushButton(this))
    , openFolderButton(new QPushButton(detailsBox))
    , restartCheck(new QCheckBox(this))
    , sendButton(new QPushButton(this))
    , dontSendButton(new QPushButton(this))
    , closeButton(new QPushButton(this))
{
    // The program's dark look, from a resource of the reporter's own.
    Q_INIT_RESOURCE(crashreporter);
    QFile style(QStringLiteral(":/crashreporter/style.qss"));
    if (style.open(QIODevice::ReadOnly)) {
        setStyleSheet(QString::fromUtf8(style.readAll()));
    }
    setWindowTitle(QStringLiteral("Orvanta"));
    setObjectName(QStringLiteral("CrashReporterWindow"));
    headline->setObjectName(QStringLiteral("headline"));
    headline->setProperty("class", QStringLiteral("headline"));
    explanation->setObjectName(QStringLiteral("explanation"));
    status->setObjectName(QStringLiteral("status"));
    details->setObjectName(QStringLiteral("details"));
    detailsButton->setObjectName(QStringLiteral("detailsButton"));
    openFolderButton->setObjectName(QStringLiteral("openFolderButton"));
    restartCheck->setObjectName(QStringLiteral("restartCheck"));
    sendButton->setObjectName(QStringLiteral("sendButton"));
    dontSendButton->setObjectName(QStringLiteral("dontSendButton"));
    closeButton->setObjectName(QStringLiteral("closeButton"));
    for (QLabel* label : {headline, explanation, contents, status, details}) {
        label->setWordWrap(true);
    }
    details->setTextInteractionFlags(Qt::TextSelectableByMouse);

    auto* detailsLayout = new QVBoxLayout(detailsBox);
    detailsLayout->setContentsMargins(0, 0, 0, 0);
    detailsLayout->addWidget(details);
    detailsLayout->addWidget(openFolderButton, 0, Qt::AlignLeft);
    detailsBox->hide();

    auto buttons = std::make_unique<QHBoxLayout>();
    buttons->addWidget(detailsButton);
    buttons->addStretch();
    buttons->addWidget(dontSendButton);
    buttons->addWidget(sendButton);
    buttons->addWidget(closeButton);
    closeButton->hide();

    auto* layout = new QVBoxLayout(this);
    layout->addWidget(headline);
    layout->addWidget(explanation);
    layout->addWidget(contents);
    layout->addWidget(detailsBox);
    layout->addWidget(restartCheck);
    layout->addWidget(status);
    layout->addLayout(buttons.release());
    status->hide();
    setMinimumWidth(520);

    sendButton->setDefault(true);
    sendButton->setAutoDefault(true);
    restartCheck->setChecked(!report.valid || report.uptimeNs >= kEarlyCrashNs);

    connect(detailsButton, &QPushButton::clicked, this, [this] {
        detailsBox->setVisible(!detailsBox->isVisible());
        adjustSize(); // wrapped labels: the window grows to show every line
    });
    connect(openFolderButton, &QPushButton::clicked, this,
            [this] { QDesktopServices::openUrl(QUrl::fromLocalFile(this->queue->folder())); });
    connect(sendButton, &QPushButton::clicked, this, &CrashReporterWindow::onSend);
    connect(dontSendButton, &QPushButton::clicked, this, &CrashReporterWindow::onDontSend);
    connect(closeButton, &QPushButton::clicked, this, &QDialog::accept);
    connect(sender, &CrashSender::finished, this, &CrashReporterWindow::onSenderFinished);
    retranslate();
}

bool CrashReporterWindow::restartChecked() const
{
    return restartCheck->isChecked();
}

void CrashReporterWindow::onSend()
{
    if (state != State::Asking) {
        return;
    }
    state = State::Sending;
    queue->agree(reports);
    sendButton->setEnabled(false);
    dontSendButton->setEnabled(false);
    restartCheck->setEnabled(false);
    status->show();
    emit decided(true, restartCheck->isChecked());
    if (!sender->online()) {
        // Agreed all the same: a later start with the services on sends it.
        onSenderFinished();
        return;
    }
    retranslate();
    adjustSize();
    sender->start();
}

void CrashReporterWindow::onDontSend()
{
    if (state != State::Asking) {
        return;
    }
    queue->decline(reports);
    state = State::Done;
    emit decided(false, restartCheck->isChecked());
    reject();
}

void CrashReporterWindow::onSenderFinished()
{
    state = State::Done;
    sendButton->hide();
    dontSendButton->hide();
    closeButton->show();
    closeButton->setDefault(true);
    retranslate();
    adjustSize();
}

QString CrashReporterWindow::detailsText() const
{
    const QFileInfo file(reportPath);
    const QDateTime when = QDateTime::fromMSecsSinceEpoch(report.realtimeNs / 1000000);
    return QStringLiteral("%1: %2 (%3)\n%4: 0x%5\n%6: %7\n%8: %9\n%10: %11 KiB\n%12: %13")
        .arg(tr("信号"), report.signalName(), report.codeName(), tr("地址"))
        .arg(report.faultAddress, 0, 16)
        .arg(tr("版本"), report.version, tr("时间"), when.toString(Qt::ISODate), tr("大小"))
        .arg((file.size() + 1023) / 1024)
        .arg(tr("文件"), file.absoluteFilePath());
}

void CrashReporterWindow::retranslate()
{
    headline->setText(tr("Orvanta 意外停止了。"));
    QString saved = tr("已保存一份错误报告");
    if (reports.size() == 2) {
        saved += tr("，以及 1 份更早的报告");
    } else if (reports.size() > 2) {
        saved += tr("，以及 %1 份更早的报告").arg(reports.size() - 1);
    }
    explanation->setText(saved + tr("。发送它有助于修复这个问题。"));
    contents->setText(tr("报告包含版本、崩溃发生的位置、崩溃线程的栈、已加载的库和最后的日志行。"
                         "它不包含您的任何文件，但其中的路径可能含有您的用户名，并且包含程序内存的片段。"));
    details->setText(detailsText());
    detailsButton->setText(tr("详细信息"));
    openFolderButton->setText(tr("打开文件夹"));
    restartCheck->setText(tr("重新启动 Orvanta"));
    sendButton->setText(tr("发送报告"));
    dontSendButton->setText(tr("不发送"));
    closeButton->setText(tr("关闭"));
    if (state == State::Sending) {
        status->setText(tr("正在发送……"));
    } else if (state == State::Done) {
        const CrashSender::Outcome& outcome = sender->outcome();
        if (!sender->online()) {
            status->setText(tr("在线服务已关闭：没有发送任何内容。报告会在在线服务开启后的下次启动时发送。"));
        } else if (outcome.failed > 0) {
            status->setText(tr("现在无法发送报告，它会在下次启动时发送。"));
        } else if (outcome.setAside > 0 && outcome.sent == 0) {
            status->setText(tr("这份报告无法读取，已被搁置，没有发送。"));
        } else {
            status->setText(tr("报告已发送，谢谢。"));
        }
    }
}

void CrashReporterWindow::changeEvent(QEvent* event)
{
    if (event->type() == QEvent::LanguageChange) {
        retranslate();
    }
    QDialog::changeEvent(event);
}
