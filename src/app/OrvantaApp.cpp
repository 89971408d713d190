#include "app/OrvantaApp.h"

#include "app/UpdateInstaller.h"
#include "devices/LedLayout.h"
#include "effects/panels/AbsWorkerWidget.h"
#include "hotkeys/HotkeyBinding.h"
#include "hotkeys/editor/HotKeyEditWidget.h"
#include "online/HelpDialogViewModel.h"
#include "service/config/ConfigurationManager.h"
#include "service/net/FeedbackManager.h"
#include "ui/ControlPage.h"
#include "ui/DeviceModel.h"
#include "ui/HomePage.h"
#include "ui/WorkGroupModel.h"
#include "ui/WorkerModel.h"
#include "ui/dialogs/ControllerConfigDialog.h"
#include "ui/dialogs/HelpDialog.h"
#include "ui/dialogs/SettingsDialog.h"

#include <QApplication>
#include <QDebug>
#include <QFile>
#include <QFileSystemWatcher>
#include <QHash>
#include <QIcon>
#include <QMap>
#include <QPixmap>
#include <QStackedWidget>
#include <QTextStream>
#include <QTimer>
#include <algorithm>

namespace {

constexpr char kTag[] = "[OrvantaApp]:";
const QString kSingleColorEffect = QStringLiteral("com.orvanta.singleColor.singleColor1");
const QString kScreenSyncGroup = QStringLiteral("com.orvanta.screenSync");
const QString kStyleSheetPath = QStringLiteral("styles/default.qss");
// The installer replaces the program's files once it has gone.
constexpr int kQuitForInstallerMs = 1000;
const QString kHotkeyBinding = QStringLiteral("hotkeyBinding");

// One colour per line while the strip dialog is open, so the user sees which line is which.
const OV_RGB kPreviewColors[15] = {
    {255, 0, 0},   {0, 128, 0},   {255, 165, 0},   {0, 255, 255},   {255, 69, 0},
    {0, 255, 127}, {255, 255, 0}, {0, 0, 255},     {255, 255, 224}, {0, 255, 0},
    {255, 215, 0}, {128, 0, 128}, {192, 192, 192}, {255, 192, 203}, {165, 42, 42},
};
} // namespace

OrvantaApp::OrvantaApp(QObject* parent)
    : QObject(parent)
{
    // With the window in the tray, a dialog is the last window, and closing it must not end the
    // program: it ends only by its own ways out.
    QApplication::setQuitOnLastWindowClosed(false);
    if (!qApp->property("isAutoStartup").toBool()) {
        mainWindow.show();
    } else if (!mainWindow.trayAvailable()) {
        // Hidden with no tray would leave the user no way back but a second start.
        qInfo().noquote() << kTag << "No system tray on this desktop, starting minimised instead of hidden";
        mainWindow.showMinimized();
    }

    watchStyleSheet();

    connect(&netManager, &NetRCManager::hasNewAppVersion, this, &OrvantaApp::onHasNewVersion);
    netManager.checkVersion();

    connect(&deviceManager, &DeviceManager::newController, this, &OrvantaApp::onNewController);
    connect(&deviceManager, &DeviceManager::controllerFailed, this, &OrvantaApp::onControllerFailed);
    connect(&deviceManager, &DeviceManager::portNotOpened, this, &OrvantaApp::onPortNotOpened);
    // Devices found while the registries were built were announced before these connections.
    const QStringList present = deviceManager.controllerNames();
    for (const QString& id : present) {
        onNewController(id);
    }

    connect(&netManager, &NetRCManager::newInstallationFileDownloaded, this, &OrvantaApp::runInstallProcess,
            Qt::UniqueConnection);

    wireUserInterface();

    createHelpViewModel();

    registerHotkeyActions();
    connect(&hotKeyManager, &HotKeyManager::hotkeyActived, this, &OrvantaApp::onHotkeyActived,
            Qt::UniqueConnection);

    connect(&adManager, &ADManager::sendUpadteDone, mainWindow.homePage(), &HomePage::setADBox1);
    adManager.start();

    connect(qApp, &QCoreApplication::aboutToQuit, this, &OrvantaApp::onAppAboutToQuit);
    qApp->installNativeEventFilter(this);
}

OrvantaApp::~OrvantaApp()
{
    qApp->removeNativeEventFilter(this);
    helpViewModel.reset();
    // The actions' bodies go before the managers they call; the hotkeys go with their manager,
    // before the effects manager.
    hotkeyActions.clear();
}

bool OrvantaApp::nativeEventFilter(const QByteArray& eventType, void* message, long* result)
{
    // The second start's request arrives on the local socket (onShowRequested); native messages
    // always go on.
    Q_UNUSED(eventType)
    Q_UNUSED(message)
    Q_UNUSED(result)
    return false;
}

void OrvantaApp::onShowRequested()
{
    if (mainWindow.isHidden()) {
        mainWindow.showNormal();
    }
}

void OrvantaApp::onNewController(QString ctlName)
{
    if (ctlName.isEmpty()) {
        qCritical().noquote() << kTag << "Invalid parameter,"
                              << "OrvantaApp::onNewController";
        return;
    }
    const ControlOptions options = deviceManager.controlOptions(ctlName);
    if (options.id.isEmpty()) {
        qCritical().noquote() << kTag
                              << "DeviceManager returned an invalid ControlOptions, ctlName:" << ctlName;
        return;
    }
    AbsRGBControllerPtr controller = deviceManager.controller(ctlName);
    if (!controller) {
        qCritical().noquote() << kTag << "DeviceManager returned an empty controller, ctlName:" << ctlName;
        return;
    }
    const QString problem = LedLayout::problem(options.nbLeds, options.lines);
    // No count and no lines is a strip nobody described yet, nothing to warn about.
    if (!problem.isEmpty() && (options.nbLeds != 0 || !options.lines.isEmpty())) {
        qWarning().noquote() << kTag << "The strips of" << ctlName << "are not configured:" << problem;
    }
    if (!problem.isEmpty() && !configureStrips(ctlName, controller)) {
        deviceManager.removeController(ctlName);
        qInfo().noquote() << "没有正确地配置LED灯珠，控制器已被释放" << ctlName;
    } else if (!options.workMode.isEmpty() && !options.subMode.isEmpty() &&
               effectsManager.hasWorker(options.subMode)) {
        changeWorker(ctlName, options.subMode);
    } else {
        changeWorker(ctlName, kSingleColorEffect);
    }
    mainWindow.homePage()->clearPortNotice(options.portName);
    refreshHomePage();
}

void OrvantaApp::onPortNotOpened(PortProblem problem)
{
    PortNoticeBar::Reason reason = PortNoticeBar::Reason::InUse;
    switch (problem.kind) {
    case PortProblem::Kind::LogInAgain:
        reason = PortNoticeBar::Reason::LogInAgain;
        break;
    case PortProblem::Kind::NoAccess:
        reason = PortNoticeBar::Reason::NoAccess;
        break;
    case PortProblem::Kind::InUse:
        break;
    case PortProblem::Kind::None:
        return;
    }
    mainWindow.homePage()->showPortNotice(problem.port, reason, problem.group, problem.command());
}

void OrvantaApp::changeWorker(const QString& ctlId, const QString& effectId)
{
    AbsRGBControllerPtr controller = deviceManager.controller(ctlId);
    if (!controller) {
        qCritical().noquote() << kTag << "Not found device controller, id:" << ctlId;
        return;
    }
    controller->setWorkMode(EffectsManager::groupIdOf(effectId));
    controller->setSubMode(effectId);
    if (!effectsManager.bind(controller, effectId)) {
        qWarning().noquote() << kTag << "Cannot bind controller:" << ctlId << "to effect:" << effectId;
    }
    activatePanels(ctlId, effectId);
}

void OrvantaApp::onControllerFailed(QString ctlName)
{
    effectsManager.unbind(ctlName);
    if (controlPageShows(ctlName)) {
        showHomePage();
    }
    refreshHomePage();
}

void OrvantaApp::onAllStrapOnOff(bool on)
{
    const QStringList ids = deviceManager.controllerNames();
    for (const QString& id : ids) {
        if (AbsRGBControllerPtr controller = deviceManager.controller(id)) {
            controller->setEnable(on);
        }
    }
    allOn = on;
    qInfo().noquote() << kTag << "Close all/Open all switched:" << on;
}

void OrvantaApp::onHasNewVersion()
{
    connect(&mainWindow, &MainWindow::requestUpdateAppVersion, this, &OrvantaApp::onRequestUpdateAppVersion,
            Qt::UniqueConnection);
    mainWindow.showNewVersionButton();
    const QString latest =
        ConfigurationManager::instance()->globalValue(QStringLiteral("latestVerion/version")).toString();
    if (helpViewModel) {
        helpViewModel->setLatestVersion(latest);
    }
}

void OrvantaApp::onRequestUpdateAppVersion()
{
    netManager.downloadLatestApp();
}

void OrvantaApp::runInstallProcess(QString installerPath)
{
    if (!QFile::exists(installerPath)) {
        qWarning().noquote() << kTag << "The installer does not exist" << installerPath;
        return;
    }
    QString problem;
    if (!UpdateInstaller::startDetached(installerPath, &problem)) {
        qWarning().noquote() << kTag << problem;
        return;
    }
    qInfo().noquote() << kTag << "The installer is started for" << installerPath
                      << "- the program quits and comes back when it is done";
    QTimer::singleShot(kQuitForInstallerMs, qApp, &QCoreApplication::quit);
}

void OrvantaApp::onRequestShowHelpDlg()
{
    HelpDialog dialog(helpViewModel, &mainWindow);
    dialog.exec();
}

void OrvantaApp::createHelpViewModel()
{
    helpViewModel = std::make_shared<HelpDialogViewModel>();
    helpViewModel->setFeedbackHandler(
        [this](QString userMsg, QString userContactInfo) { sendFeedback(userMsg, userContactInfo); });
    helpViewModel->setUpdateHandler([this] { netManager.downloadLatestApp(); });
}

void OrvantaApp::sendFeedback(const QString& userMsg, const QString& userContactInfo)
{
    // Made per sending and gone when this returns: sendFeedback takes its copies first.
    FeedbackManager feedback;
    feedback.setUserMsg(userMsg);
    feedback.setUserContactInfo(userContactInfo);
    netManager.sendFeedback(
        QPointer<FeedbackManager>(&feedback),
        [] { qInfo().noquote() << "The feedback has sent to the server"; },
        [](QNetworkReply::NetworkError error) {
            qWarning().noquote() << "An error occurred while sending the feedback data to the server"
                                 << error;
        });
}

void OrvantaApp::onAppAboutToQuit()
{
    qInfo().noquote() << kTag << "The application is exiting...";
}

void OrvantaApp::wireUserInterface()
{
    HomePage* home = mainWindow.homePage();
    ControlPage* page = mainWindow.controlPage();
    connect(&mainWindow, &MainWindow::allStrapOnOff, this, &OrvantaApp::onAllStrapOnOff);
    connect(&mainWindow, &MainWindow::requestShowHelpDlg, this, &OrvantaApp::onRequestShowHelpDlg);
    connect(&mainWindow, &MainWindow::settingsBtnTriggered, this, &OrvantaApp::openSettings);
    connect(home, &HomePage::controllerNameChanged, this, [this](QString id, QString name) {
        if (AbsRGBControllerPtr controller = deviceManager.controller(id)) {
            controller->setKindName(name);
        }
    });
    connect(home, &HomePage::controllerOptOrdered, this, [](QString) {});
    connect(home, &HomePage::controllerEntryOrdered, this, &OrvantaApp::setControlPageData);
    const auto setDirection = [this](int dir) {
        if (AbsRGBControllerPtr controller = pageController()) {
            controller->setInstallDirection(uint32_t(dir));
        }
    };
    // Connected twice on purpose: the second call finds nothing to change.
    connect(page, &ControlPage::dirChanged, this, setDirection);
    connect(page, &ControlPage::dirChanged, this, setDirection);
    connect(page, &ControlPage::brightnessChanged, this, [this](float brightness) {
        if (AbsRGBControllerPtr controller = pageController()) {
            controller->setBrightness(brightness);
        }
    });
    connect(page, &ControlPage::enableChanged, this, [this](bool enable) {
        if (AbsRGBControllerPtr controller = pageController()) {
            controller->setEnable(enable);
        }
    });
    connect(page, &ControlPage::workGoupChanged, this, &OrvantaApp::onCtlPageWorkGroupChanged);
    connect(page, &ControlPage::workerChanged, this, &OrvantaApp::onCtlPageWorkerChanged);
}

AbsRGBControllerPtr OrvantaApp::pageController()
{
    return deviceManager.controller(mainWindow.controlPage()->currentControllerId());
}

bool OrvantaApp::configureStrips(const QString& ctlId, AbsRGBControllerPtr controller)
{
    qInfo().noquote() << kTag << "Asking for the strips of" << ctlId;
    ControllerConfigDialog dialog(&mainWindow);
    dialog.setLimit(int(LedLayout::maxLeds));
    const uint32_t savedLeds = controller->controlOptions().nbLeds;
    const QVector<uint32_t> savedLines = controller->controlOptions().lines;
    uint32_t maxLeds = 0;

    connect(&dialog, &ControllerConfigDialog::linesChanged, controller.data(),
            [&maxLeds, controller](int nbLeds, QVector<uint32_t> lines) {
                // The highest count seen keeps LEDs lit earlier inside the frame, so they go dark.
                maxLeds = std::max(maxLeds, uint32_t(std::max(nbLeds, 0)));
                controller->setLayout(maxLeds, lines);
                QVector<QVector<OV_RGB>> colors;
                for (int i = 0; i < lines.size(); ++i) {
                    colors.append(QVector<OV_RGB>(int(lines[i]), kPreviewColors[i % 15]));
                }
                controller->update(colors);
            });
    bool answered = false;
    connect(&dialog, &QDialog::finished, this, [&answered] { answered = true; });

    if (dialog.exec() == QDialog::Accepted) {
        // What the dialog shows, a row removed after the last change included.
        const QVector<uint32_t> lines = dialog.currentLines();
        uint32_t sum = 0;
        for (uint32_t n : lines) {
            sum += n;
        }
        controller->setLayout(sum, lines);
        qDebug().noquote() << "用户为灯带配置了" << sum << "个灯珠" << ctlId;
        return true;
    }
    // Cancelled, or the program is quitting under the dialog: the stored layout is the one from
    // before, so the next start asks again.
    controller->setLayout(savedLeds, savedLines);
    qDebug().noquote() << "用户取消了灯带配置" << ctlId;
    if (!answered) {
        // A quit (a signal, the session's end, the tray) ends every event loop, this one first.
        qInfo().noquote() << kTag << "The strip dialog was open when the program quit";
    }
    return false;
}

void OrvantaApp::activatePanels(const QString& ctlId, const QString& effectId)
{
    effectsManager.activeOperate(ctlId, effectId);
    const EffectWorkerOptions options = effectsManager.workerOptions(effectId);
    mainWindow.controlPage()->setOperateWidget(options.optionWidget, options.extraOptionWidget);
}

void OrvantaApp::setControlPageData(QString ctlId)
{
    ControlPage* page = mainWindow.controlPage();
    AbsRGBControllerPtr controller = deviceManager.controller(ctlId);
    if (!controller) {
        qCritical().noquote() << kTag << "Not found device controller, id:" << ctlId;
        return;
    }
    const ControlOptions& options = controller->controlOptions();
    page->setControllerId(ctlId);
    page->setDir(int(options.installDirection));
    page->setEnable(options.enable);
    page->setBrightness(options.brightness);
    page->setControllerName(options.kindName);
    page->setProductImage(options.image);

    QMap<QString, WorkGroupModel> groups;
    const QStringList groupIds = effectsManager.groupIds();
    for (const QString& groupId : groupIds) {
        const EffectGroup group = effectsManager.group(groupId);
        if (group.effects.isEmpty()) {
            continue;
        }
        groups.insert(groupId, WorkGroupModel{group.name, group.desc, group.order});
    }
    page->setWorkGroups(groups, options.workMode);
    showWorkers(options.workMode, options.subMode);
    activatePanels(ctlId, options.subMode);
}

void OrvantaApp::showWorkers(const QString& groupId, const QString& effectId)
{
    QMap<QString, WorkerModel> workers;
    const QSet<QString> effectIds = effectsManager.group(groupId).effects;
    for (const QString& id : effectIds) {
        const EffectWorkerOptions options = effectsManager.workerOptions(id);
        workers.insert(id, WorkerModel{options.name, options.desc, QIcon(QPixmap::fromImage(options.icon)),
                                       options.order});
    }
    ControlPage* page = mainWindow.controlPage();
    page->setWorkers(workers, effectId);
    effectsManager.activeOperate(page->currentControllerId(), effectId);
}

void OrvantaApp::onCtlPageWorkGroupChanged(QString groupId)
{
    const QString ctlId = mainWindow.controlPage()->currentControllerId();
    const QString effect = effectsManager.lastBinding(ctlId, groupId);
    changeWorker(ctlId, effect);
    showWorkers(groupId, effect);
}

void OrvantaApp::onCtlPageWorkerChanged(QString workerId)
{
    changeWorker(mainWindow.controlPage()->currentControllerId(), workerId);
}

void OrvantaApp::refreshHomePage()
{
    QHash<QString, DeviceModel> models;
    const QStringList ids = deviceManager.controllerNames();
    for (const QString& id : ids) {
        const ControlOptions& options = deviceManager.controlOptions(id);
        DeviceModel model;
        model.name = options.kindName;
        model.id = options.id;
        model.icon = QIcon(QPixmap::fromImage(options.icon));
        models.insert(id, model);
    }
    mainWindow.homePage()->setControllerList(models);
}

void OrvantaApp::switchGroup(const std::function<QString(const QString&)>& step)
{
    const QStringList ids = deviceManager.controllerNames();
    if (ids.isEmpty()) {
        qCritical().noquote() << kTag << "The controller list is empty";
        return;
    }
    QString current = deviceManager.controlOptions(ids.first()).workMode;
    for (const QString& id : ids) {
        if (deviceManager.controlOptions(id).workMode != current) {
            current = kScreenSyncGroup;
            break;
        }
    }
    const QString target = step(current);
    for (const QString& id : ids) {
        if (deviceManager.controlOptions(id).workMode == target) {
            continue;
        }
        changeWorker(id, effectsManager.defaultEffect(target));
        if (controlPageShows(id)) {
            setControlPageData(id);
        }
    }
}

void OrvantaApp::stepBrightness(float delta)
{
    const QStringList ids = deviceManager.controllerNames();
    ControlPage* page = mainWindow.controlPage();
    for (const QString& id : ids) {
        AbsRGBControllerPtr controller = deviceManager.controller(id);
        if (!controller) {
            continue;
        }
        const float value = qBound(0.0f, delta + controller->controlOptions().brightness, 1.0f);
        controller->setBrightness(value);
        if (page->currentControllerId() == id) {
            page->setBrightness(value);
        }
    }
}

void OrvantaApp::watchStyleSheet()
{
    // Only a loose copy beside the program is watched; the start-up style is compiled in.
    styleWatcher = new QFileSystemWatcher(this);
    if (QFile::exists(kStyleSheetPath)) {
        styleWatcher->addPath(kStyleSheetPath);
    }
    connect(styleWatcher, &QFileSystemWatcher::fileChanged, this, &OrvantaApp::reloadStyleSheet,
            Qt::DirectConnection);
}

void OrvantaApp::reloadStyleSheet(const QString& path)
{
    QFile file(path);
    if (file.open(QIODevice::ReadOnly | QIODevice::Text)) {
        const QString text = QString::fromUtf8(file.readAll());
        qApp->setStyleSheet(text);
        qDebug().noquote() << "The new styles file has been loaded" << text;
        file.close();
    }
    // Editors that save by renaming replace the watched file; follow the new one.
    if (!styleWatcher->files().contains(path) && QFile::exists(path)) {
        styleWatcher->addPath(path);
    }
}

bool OrvantaApp::controlPageShows(const QString& ctlId) const
{
    auto* stack = mainWindow.findChild<QStackedWidget*>(QStringLiteral("mainStackedWidget"));
    const ControlPage* page = const_cast<MainWindow&>(mainWindow).controlPage();
    return stack && stack->currentWidget() == page && page->currentControllerId() == ctlId;
}

void OrvantaApp::showHomePage()
{
    if (auto* stack = mainWindow.findChild<QStackedWidget*>(QStringLiteral("mainStackedWidget"))) {
        stack->setCurrentWidget(mainWindow.homePage());
    }
}

void OrvantaApp::registerHotkeyActions()
{
    qInfo().noquote() << kTag << "Registering the hotkey actions";
    addHotkeyAction(QStringLiteral("com_orvanta_hotkey_turnOffOn"),
                    QString::fromUtf8(QT_TRANSLATE_NOOP("HotkeyDescription", "全开全关切换")),
                    QStringLiteral("ctrl+alt+shift+F10"), [this] {
                        allOn = !allOn;
                        qInfo().noquote() << "Close all/Open all switched by hotkey actived:" << allOn;
                        onAllStrapOnOff(allOn);
                    });
    addHotkeyAction(QStringLiteral("com_orvanta_hotkey_nextEffect"),
                    QString::fromUtf8(QT_TRANSLATE_NOOP("HotkeyDescription", "切换到下一个模式")),
                    QStringLiteral("ctrl+alt+shift+right"), [this] {
                        switchGroup([this](const QString& g) { return effectsManager.nextGroup(g); });
                    });
    addHotkeyAction(QStringLiteral("com_orvanta_hotkey_preEffect"),
                    QString::fromUtf8(QT_TRANSLATE_NOOP("HotkeyDescription", "切换到上一个模式")),
                    QStringLiteral("ctrl+alt+shift+left"), [this] {
                        switchGroup([this](const QString& g) { return effectsManager.previousGroup(g); });
                    });
    // The two brightness rows share one body, bound to its step.
    const auto brightness = [this](float delta) { return [this, delta] { stepBrightness(delta); }; };
    addHotkeyAction(QStringLiteral("com_orvanta_hotkey_decreaseBrightness"),
                    QString::fromUtf8(QT_TRANSLATE_NOOP("HotkeyDescription", "降低亮度")),
                    QStringLiteral("ctrl+alt+shift+down"), brightness(-0.1f));
    addHotkeyAction(QStringLiteral("com_orvanta_hotkey_increaseBrightness"),
                    QString::fromUtf8(QT_TRANSLATE_NOOP("HotkeyDescription", "提升亮度")),
                    QStringLiteral("ctrl+alt+shift+up"), brightness(0.1f));
}

void OrvantaApp::addHotkeyAction(const QString& id, const QString& description, const QString& defaultKeys,
                                 const std::function<void()>& action)
{
    const HotkeyBinding::Parsed stored = HotkeyBinding::storedKeys(
        ConfigurationManager::instance()->globalValue(kHotkeyBinding), id, defaultKeys);
    if (!stored.problem.isEmpty()) {
        qWarning().noquote() << kTag << "Ignored in \"hotkeyBinding\":" << stored.problem;
    }
    if (!hotKeyManager.setHotKey(id, stored.keys)) {
        qWarning().noquote() << "Failed to registered hotkey" << id << ", the action will be never activated";
    }
    hotkeyActions.insert(id, HotkeyAction{description, stored.keys, action});
    saveHotkeyBinding(id, stored.keys);
    qInfo().noquote() << "The hotkey action has been added:" << id;
}

bool OrvantaApp::changeHotkeyBinding(const QString& id, const QKeySequence& keys)
{
    auto record = hotkeyActions.find(id);
    if (record == hotkeyActions.end()) {
        qWarning().noquote() << kTag << "Not found the hotkey action" << id;
        return false;
    }
    if (!hotKeyManager.isAvailable(keys)) {
        qWarning().noquote() << kTag << "Invalid hotkey:" << keys.toString();
        return false;
    }
    if (!hotKeyManager.setHotKey(id, keys)) {
        qWarning().noquote() << kTag << "Failed to set hotkey:" << keys.toString() << id;
        return false;
    }
    record->keys = keys;
    saveHotkeyBinding(id, keys);
    qInfo().noquote() << kTag << "The hotkey binding has been changed:" << keys.toString() << id;
    return true;
}

void OrvantaApp::saveHotkeyBinding(const QString& id, const QKeySequence& keys)
{
    ConfigurationManager* store = ConfigurationManager::instance();
    store->setGlobalValue(QStringList{kHotkeyBinding, id}, keys.toString(QKeySequence::PortableText));
    store->saveGlobalValues();
}

void OrvantaApp::onHotkeyActived(QString id)
{
    const auto record = hotkeyActions.constFind(id);
    if (record == hotkeyActions.constEnd()) {
        qWarning().noquote() << kTag << "Unknown action id:" << id;
        return;
    }
    if (!record->action) {
        qWarning().noquote() << kTag << "The hotkey action is empty:" << id;
        return;
    }
    record->action();
    qInfo().noquote() << kTag << "The hotkey action has executed:" << id;
}

void OrvantaApp::openSettings()
{
    SettingsDialog dialog(&mainWindow);
    HotKeyEditWidget* editor = dialog.hotkeyEditor();
    QList<HotkeyRow> rows;
    QMap<QString, QString> descriptions;
    QSet<QString> notLive;
    for (auto it = hotkeyActions.cbegin(); it != hotkeyActions.cend(); ++it) {
        rows.append(HotkeyRow{it->keys, it->description});
        descriptions.insert(it.key(), it->description);
        if (!hotKeyManager.isLive(it.key())) {
            notLive.insert(it.key());
        }
    }
    editor->setHotkeys(rows);
    editor->setDescriptions(descriptions);
    const QHotkey::Availability availability = hotKeyManager.availability();
    editor->setHotkeyState(notLive, availability == QHotkey::Availability::None
                                        ? HotKeyEditWidget::Session::None
                                    : availability == QHotkey::Availability::WhileX11Focused
                                        ? HotKeyEditWidget::Session::WhileX11Focused
                                        : HotKeyEditWidget::Session::Global);
    editor->setBindingHandler(
        [this](QKeySequence keys, QString id) { return changeHotkeyBinding(id, keys); });
    dialog.exec();
}
