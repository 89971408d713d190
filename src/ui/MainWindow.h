#pragma once

#include <QPoint>
#include <QScopedPointer>
#include <QSystemTrayIcon>
#include <QWidget>

class QAction;
class QTimer;
class HomePage;
class ControlPage;

namespace Ui {
class MainWindow;
}

// The frameless top-level window: a hand-made title bar, the home and control pages, and the
// tray icon that keeps the program reachable while the window is hidden.
class MainWindow : public QWidget
{
    Q_OBJECT
public:
    explicit MainWindow(QWidget* parent = nullptr);
    ~MainWindow() override;

    HomePage* homePage() const;
    ControlPage* controlPage() const;
    // Shows the new-version button; only the user's "yes" hides it again.
    void showNewVersionButton();
    // False on a desktop without a system tray: hiding the window there would leave no way back.
    bool trayAvailable() const;

signals:
    void requestShowHelpDlg();
    void requestUpdateAppVersion();
    void allStrapOnOff(bool on);
    void settingsBtnTriggered();

protected:
    void mousePressEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void changeEvent(QEvent* event) override;

private slots:
    void onNewVersionBtnClicked();
    void onHomeButtonClicked();
    void on_pushButton_settings_clicked();
    void on_pushButton_help_clicked();
    void on_toolButton_min_clicked();
    void on_toolButton_close_clicked();
    void onAllOffBtnClicked();
    void onAllOnBtnClicked();

private:
    void loadStyleSheet();
    void retranslateTray();
    void onTrayActivated(QSystemTrayIcon::ActivationReason reason);
    void watchForTray();
    void onTrayPoll();

    QScopedPointer<Ui::MainWindow> ui;
    // Global cursor position minus the window's top-left at the press; (0,0) while idle.
    QPoint dragOffset;
    QSystemTrayIcon* trayIcon;
    QAction* settingsAction;
    QAction* quitAction;
    // Runs only while no tray is there, so that one that appears later gets the icon.
    QTimer* trayPoll;
};
