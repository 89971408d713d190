#pragma once

#include "app/HotkeyAction.h"
#include "devices/DeviceManager.h"
#include "devices/SleepWatcher.h"
#include "effects/EffectsManager.h"
#include "hotkeys/HotKeyManager.h"
#include "online/ADManager.h"
#include "service/net/NetRCManager.h"
#include "ui/MainWindow.h"

#include <QAbstractNativeEventFilter>
#include <QKeySequence>
#include <QMap>
#include <QObject>
#include <QString>
#include <functional>
#include <memory>

class ControlPage;
class HelpDialogViewModel;
class HomePage;
class QFileSystemWatcher;

// The one object that owns the window and the registries, gives every device its effect and
// turns the user's actions into calls on controllers and workers. Main thread only.
class OrvantaApp : public QObject, public QAbstractNativeEventFilter
{
    Q_OBJECT
public:
    explicit OrvantaApp(QObject* parent = nullptr);
    ~OrvantaApp() override;

    bool nativeEventFilter(const QByteArray& eventType, void* message, long* result) override;

    // Hotkey action bodies: move every device to the next or previous group, step brightness.
    void switchGroup(const std::function<QString(const QString&)>& step);
    void stepBrightness(float delta);

    MainWindow& window() { return mainWindow; }
    DeviceManager& devices() { return deviceManager; }
    EffectsManager& effects() { return effectsManager; }
    HotKeyManager& hotKeys() { return hotKeyManager; }
    NetRCManager& net() { return netManager; }

public slots:
    // A second start asked to be shown: a hidden window comes back; a minimised one is left alone.
    void onShowRequested();

private slots:
    void onNewController(QString ctlName);
    void onControllerFailed(QString ctlName);
    void onPortNotOpened(PortProblem problem);
    void onHasNewVersion();
    void onRequestUpdateAppVersion();
    void runInstallProcess(QString installerPath);
    void onRequestShowHelpDlg();
    void onAllStrapOnOff(bool on);
    void setControlPageData(QString ctlId);
    void onCtlPageWorkGroupChanged(QString groupId);
    void onCtlPageWorkerChanged(QString workerId);
    void onHotkeyActived(QString id);
    void onAppAboutToQuit();

private:
    void changeWorker(const QString& ctlId, const QString& effectId);
    void wireUserInterface();
    void showWorkers(const QString& groupId, const QString& effectId);
    void activatePanels(const QString& ctlId, const QString& effectId);
    void refreshHomePage();
    bool configureStrips(const QString& ctlId, AbsRGBControllerPtr controller);
    void watchStyleSheet();
    void createHelpViewModel();
    void sendFeedback(const QString& userMsg, const QString& userContactInfo);
    void reloadStyleSheet(const QString& path);
    void showHomePage();
    bool controlPageShows(const QString& ctlId) const;
    AbsRGBControllerPtr pageController();
    void registerHotkeyActions();
    void addHotkeyAction(const QString& id, const QString& description, const QString& defaultKeys,
                         const std::function<void()>& action);
    bool changeHotkeyBinding(const QString& id, const QKeySequence& keys);
    // Saved at once, so that a rebinding survives a crash.
    void saveHotkeyBinding(const QString& id, const QKeySequence& keys);
    void openSettings();

    MainWindow mainWindow;
    DeviceManager deviceManager;
    EffectsManager effectsManager;
    NetRCManager netManager;
    HotKeyManager hotKeyManager;
    ADManager adManager;
    QMap<QString, HotkeyAction> hotkeyActions;
    SleepWatcher sleepWatcher{&deviceManager};
    bool allOn = true;
    // Released before the members: a dialog's handlers reach them through it.
    std::shared_ptr<HelpDialogViewModel> helpViewModel;
    QFileSystemWatcher* styleWatcher = nullptr;
};
