#include "ui/PortNoticeBar.h"

#include <QClipboard>
#include <QEvent>
#include <QGuiApplication>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QToolButton>

PortNoticeBar::PortNoticeBar(const QString& port, Reason reason, const QString& group, const QString& command,
                             QWidget* parent)
    : QFrame(parent)
    , portName(port)
    , reason(reason)
    , group(group)
    , command(command)
{
    setObjectName(QStringLiteral("portNotice"));
    setStyleSheet(QStringLiteral("#portNotice{background-color: rgb(86,66,24); border-radius: 4px;}"
                                 "QLabel{color: rgb(255,226,160); font: 14px; background: transparent;}"
                                 "QPushButton{color: white; font: 13px; padding: 3px 10px;"
                                 " border: 1px solid rgb(255,226,160); border-radius: 3px;}"
                                 "QToolButton{color: rgb(255,226,160); font: 16px; border: none;}"));
    auto* layout = new QHBoxLayout(this);
    layout->setContentsMargins(12, 8, 8, 8);
    layout->setSpacing(10);
    label = new QLabel(this);
    label->setObjectName(QStringLiteral("portNoticeText"));
    label->setWordWrap(true);
    label->setTextInteractionFlags(Qt::TextSelectableByMouse);
    layout->addWidget(label, 1);
    if (!command.isEmpty()) {
        copy = new QPushButton(this);
        copy->setObjectName(QStringLiteral("portNoticeCopy"));
        copy->setCursor(Qt::PointingHandCursor);
        connect(copy, &QPushButton::clicked, this,
                [this]() { QGuiApplication::clipboard()->setText(this->command); });
        layout->addWidget(copy, 0, Qt::AlignVCenter);
    }
    closer = new QToolButton(this);
    closer->setObjectName(QStringLiteral("portNoticeClose"));
    closer->setText(QStringLiteral("✕"));
    connect(closer, &QToolButton::clicked, this, &PortNoticeBar::closeClicked);
    layout->addWidget(closer, 0, Qt::AlignVCenter);
    retranslate();
}

QString PortNoticeBar::text() const
{
    return label->text();
}

void PortNoticeBar::retranslate()
{
    switch (reason) {
    case Reason::LogInAgain:
        label->setText(
            tr("无法打开 %1：您已在“%2”组中，但本次登录尚未生效。请注销后重新登录。").arg(portName, group));
        break;
    case Reason::NoAccess:
        label->setText(
            tr("无法打开 %1：没有读写权限。规则已安装，请重新插入设备；或者运行“%2”，然后注销并重新登录。")
                .arg(portName, command));
        break;
    case Reason::InUse:
        label->setText(
            tr("无法打开 %1：另一个程序正在使用该端口。请关闭该程序，然后重新插入设备。").arg(portName));
        break;
    }
    if (copy) {
        copy->setText(tr("复制命令"));
    }
    closer->setToolTip(tr("关闭"));
}

void PortNoticeBar::changeEvent(QEvent* event)
{
    if (event->type() == QEvent::LanguageChange) {
        retranslate();
    }
    QFrame::changeEvent(event);
}
