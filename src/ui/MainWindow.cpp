#include "ui/MainWindow.h"

#include "i18n/LanguageManager.h"
#include "service/config/ConfigurationManager.h"
#include "ui/ControlPage.h"
#include "ui/HomePage.h"
#include "ui_MainWindow.h"

#include <QAction>
#include <QApplication>
#include <QDebug>
#include <QFile>
#include <QLocale>
#include <QMenu>
#include <QMessageBox>
#include <QMouseEvent>
#include <QPushButton>
#include <QTimer>

namespace {

constexpr char kTag[] = "[MainWindow]:";
// Time between looks for a tray while the desktop has none.
constexpr int kTrayPollMs = 3000;
// The bar's rows: a left press above this line drags the window.
constexpr int kDragBarHeight = 51;
} // namespace

MainWindow::MainWindow(QWidget* parent)
    : QWidget(parent)
    , ui(new Ui::MainWindow)
{
    // The style sheet and pictures live in a static library: its resources need registering.
    Q_INIT_RESOURCE(ui);

    LanguageManager::instance()->loadLanguage();
    ui->setupUi(this);

    loadStyleSheet();

    for (QPushButton* button : {ui->pushButton_home, ui->pushButton_settings, ui->pushButton_off,
                                ui->pushButton_on, ui->pushButton_help}) {
        button->setProperty("class", QStringLiteral("MenuBtn"));
    }

    ui->mainStackedWidget->setCurrentWidget(ui->homePage);
    ui->newVersionBtn->hide();

    setWindowFlags(Qt::FramelessWindowHint);
    // The installed theme's icon, drawn for each size; the compiled-in picture where none is.
    const QIcon icon =
        QIcon::fromTheme(QStringLiteral("com.orvanta.Orvanta"), QIcon(QStringLiteral(":/images/icon.png")));
    setWindowIcon(icon);

    trayIcon = new QSystemTrayIcon(icon, this);
    auto* trayMenu = new QMenu(this);
    settingsAction = new QAction(this);
    quitAction = new QAction(this);
    retranslateTray();
    trayMenu->addAction(settingsAction);
    trayMenu->addSeparator();
    trayMenu->addAction(quitAction);
    trayIcon->setContextMenu(trayMenu);

    // This entry restores the window; it opens no settings dialog, whatever its label says.
    connect(settingsAction, &QAction::triggered, this, &QWidget::showNormal);
    connect(quitAction, &QAction::triggered, qApp, &QCoreApplication::quit);
    connect(trayIcon, &QSystemTrayIcon::activated, this, &MainWindow::onTrayActivated);

    trayIcon->setVisible(true);

    trayPoll = new QTimer(this);
    trayPoll->setInterval(kTrayPollMs);
    connect(trayPoll, &QTimer::timeout, this, &MainWindow::onTrayPoll);
    watchForTray();

    // Option panels find their modal parent here; a pointer needs all 64 bits.
    qApp->setProperty("mainWindowPointer", QVariant::fromValue(reinterpret_cast<quintptr>(this)));
    ConfigurationManager* config = ConfigurationManager::instance();
    config->setGlobalValue(QStringLiteral("mainWindowHandler"), QString::number(winId()));
    config->saveGlobalValues();

    connect(ui->homePage, &HomePage::controllerEntryOrdered, this,
            [this]() { ui->mainStackedWidget->setCurrentWidget(ui->controlPage); });
}

MainWindow::~MainWindow()
{
    delete trayIcon;
}

HomePage* MainWindow::homePage() const
{
    return ui->homePage;
}

ControlPage* MainWindow::controlPage() const
{
    return ui->controlPage;
}

void MainWindow::showNewVersionButton()
{
    ui->newVersionBtn->setVisible(true);
}

bool MainWindow::trayAvailable() const
{
    return QSystemTrayIcon::isSystemTrayAvailable();
}

void MainWindow::loadStyleSheet()
{
    QFile file(QStringLiteral(":/styles/default.qss"));
    if (!file.open(QIODevice::ReadOnly)) {
        qCritical().noquote() << kTag << "Failed to open the styleSheet file " + file.errorString();
        return;
    }
    const QString styleSheet = QString::fromUtf8(file.readAll());
    file.close();
    qApp->setStyleSheet(styleSheet);
    setStyleSheet(styleSheet);
}

void MainWindow::retranslateTray()
{
    settingsAction->setText(tr("设置"));
    quitAction->setText(tr("退出"));
}

void MainWindow::onTrayActivated(QSystemTrayIcon::ActivationReason reason)
{
    if (reason == QSystemTrayIcon::DoubleClick) {
        showNormal();
    }
}

void MainWindow::watchForTray()
{
    if (!trayAvailable() && !trayPoll->isActive()) {
        trayPoll->start();
    }
}

void MainWindow::onTrayPoll()
{
    if (!trayAvailable()) {
        return;
    }
    trayPoll->stop();
    // Shown again so that the icon docks in the tray that has just appeared.
    trayIcon->setVisible(false);
    trayIcon->setVisible(true);
    qInfo().noquote() << kTag << "A system tray has appeared, the tray icon is placed in it";
}

void MainWindow::mousePressEvent(QMouseEvent* event)
{
    if (event->button() == Qt::LeftButton && event->pos().y() < kDragBarHeight) {
        dragOffset = event->globalPos() - frameGeometry().topLeft();
        event->accept();
        return;
    }
    event->ignore();
}

void MainWindow::mouseReleaseEvent(QMouseEvent* event)
{
    if (event->button() == Qt::LeftButton) {
        dragOffset = QPoint(0, 0);
        event->accept();
    }
}

void MainWindow::mouseMoveEvent(QMouseEvent* event)
{
    // (0,0) is the idle value, so a press on the very first row or column never drags.
    if ((event->buttons() & Qt::LeftButton) && dragOffset.x() >= 1 && dragOffset.y() >= 1) {
        move(event->globalPos() - dragOffset);
        event->accept();
        return;
    }
    event->ignore();
}

void MainWindow::changeEvent(QEvent* event)
{
    if (event->type() == QEvent::LocaleChange) {
        const QString name = QLocale::system().name();
        LanguageManager::instance()->setLanguage(name.left(qMax(0, name.lastIndexOf(QLatin1Char('_')))));
    } else if (event->type() == QEvent::LanguageChange) {
        ui->retranslateUi(this);
        retranslateTray();
    }
    QWidget::changeEvent(event);
}

void MainWindow::onNewVersionBtnClicked()
{
    QMessageBox box;
    box.setIcon(QMessageBox::Question);
    box.setText(tr("检测到新版本，是否下载最新安装包？"));
    QPushButton* yes = box.addButton(tr("是"), QMessageBox::AcceptRole);
    box.setDefaultButton(yes);
    box.addButton(tr("否"), QMessageBox::RejectRole);
    box.exec();
    if (box.clickedButton() != yes) {
        return;
    }
    qInfo().noquote() << "The user has reqeusted an update";
    ui->newVersionBtn->hide();
    emit requestUpdateAppVersion();
}

void MainWindow::onHomeButtonClicked()
{
    ui->mainStackedWidget->setCurrentWidget(ui->homePage);
}

void MainWindow::on_pushButton_settings_clicked()
{
    emit settingsBtnTriggered();
}

void MainWindow::on_pushButton_help_clicked()
{
    emit requestShowHelpDlg();
}

void MainWindow::on_toolButton_min_clicked()
{
    showMinimized();
    trayIcon->setVisible(true);
}

void MainWindow::on_toolButton_close_clicked()
{
    if (!trayAvailable()) {
        // Hidden with no tray, the window could only come back through a second start.
        qInfo().noquote() << kTag
                          << "No system tray is available, the window is minimised "
                             "instead of hidden";
        showMinimized();
        watchForTray();
        return;
    }
    hide();
    trayIcon->setVisible(true);
}

void MainWindow::onAllOffBtnClicked()
{
    emit allStrapOnOff(false);
}

void MainWindow::onAllOnBtnClicked()
{
    emit allStrapOnOff(true);
}
