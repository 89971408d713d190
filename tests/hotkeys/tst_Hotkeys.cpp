#include "AppRig.h"
#include "LogCapture.h"
#include "PrivateXwayland.h"
#include "Sandbox.h"
#include "Strip.h"
#include "TestFiles.h"
#include "TestWidgets.h"
#include "X11Peer.h"
#include "app/OrvantaApp.h"
#include "hotkeys/HotkeyBinding.h"
#include "hotkeys/QHotkey.h"
#include "hotkeys/editor/HotKeyEditWidget.h"
#include "hotkeys/editor/HotkeyInputLine.h"
#include "service/config/AutostartEntry.h"
#include "service/config/ConfigurationManager.h"
#include "ui/ControlPage.h"
#include "ui/HomePage.h"
#include "ui/dialogs/SettingsDialog.h"
#include "ui/widgets/SliderBar.h"

#include <QtTest>
#include <QtWidgets>

#include <memory>
#include <signal.h>

#define XK_MISCELLANY
#define XK_LATIN1
#include <X11/keysym.h>

using Rgb = VirtualLedDevice::Rgb;
using TestWidgets::child;
using TestWidgets::onModal;

namespace {
constexpr int kFoundMs = AppRig::kFoundMs;
const QString kColourful = QStringLiteral("com.orvanta.colorful");
const QString kNext = QStringLiteral("com_orvanta_hotkey_nextEffect");
const QString kUp = QStringLiteral("com_orvanta_hotkey_increaseBrightness");
const QString kAdded = QStringLiteral("The hotkey action has been added: ") + kUp;

Rgb white(int v)
{
    return Rgb{uint8_t(v), uint8_t(v), uint8_t(v)};
}

bool dark(const Strip& strip)
{
    const QVector<Rgb> leds = strip.device.lastColors();
    return !leds.isEmpty() && std::all_of(leds.begin(), leds.end(), [](Rgb c) { return c == Rgb{}; });
}

// The row of the hotkey table whose description is shown as `description`.
int rowOf(QAbstractItemModel* model, const QString& description)
{
    for (int row = 0; row < model->rowCount(); ++row) {
        if (model->index(row, 1).data().toString() == description) {
            return row;
        }
    }
    return -1;
}
} // namespace

// The global hotkeys from another program's window, on a private X server: the program object
// here and the program itself, both on the sandbox's folders; X11Peer is the other program.
class TestHotkeys : public QObject, private AppRig
{
    Q_OBJECT
private:
    Sandbox box;
    X11Peer peer;

    // Ctrl+Alt+Shift and the key, as a user presses them in the peer's window.
    void press(quint32 keysym) { peer.tap({XK_Control_L, XK_Alt_L, XK_Shift_L, keysym}); }
    quint16 chordMask() { return XCB_MOD_MASK_CONTROL | XCB_MOD_MASK_SHIFT | peer.modifierMask(XK_Alt_L); }
    int pressesOf(quint32 keysym) { return peer.presses(peer.keyCode(keysym)); }
    ControlOptions options(const Strip& strip) { return app->devices().controlOptions(strip.id); }

    QJsonObject storedGlobal()
    {
        ConfigurationManager::instance()->flush();
        return TestFiles::readJson(box.configDir() + "/global.json");
    }

    // The program itself on the sandbox's folders and this X server, in the tray.
    void startBinary(QProcess& program, const Strip& strip, const QMap<QString, QString>& extra = {})
    {
        const int runs = box.mainLog().count(kAdded);
        QMap<QString, QString> env{{"QT_QPA_PLATFORM", "xcb"},
                                   {"ORVANTA_EXTRA_PORTS", strip.device.linkPath()}};
        for (auto it = extra.begin(); it != extra.end(); ++it) {
            env.insert(it.key(), it.value());
        }
        box.prepare(program, {"--auto_startup"}, env);
        program.start();
        QTRY_VERIFY_WITH_TIMEOUT(box.mainLog().count(kAdded) > runs && strip.device.frameCount() > 0,
                                 4 * kFoundMs);
        QVERIFY(peer.takeFocus());
    }

    void stopBinary(QProcess& program)
    {
        QCOMPARE(::kill(pid_t(program.processId()), SIGTERM), 0);
        QVERIFY(program.waitForFinished(30000));
        QVERIFY2(program.exitStatus() == QProcess::NormalExit && program.exitCode() == 0,
                 program.readAllStandardError().right(3000).constData());
    }

    // Runs `check` in the settings dialog opened by the main window's button, then closes it.
    void inSettings(std::function<void(SettingsDialog*)> check)
    {
        bool ran = false;
        onModal<SettingsDialog>(this, [&](SettingsDialog* dialog) {
            check(dialog);
            ran = true;
            dialog->reject();
        });
        child<QPushButton>(&app->window(), "pushButton_settings")->click();
        QVERIFY(ran);
    }

private slots:
    void initTestCase()
    {
        // The binary's names: its configuration folder and its autostart file.
        QCoreApplication::setApplicationName("orvanta");
        qputenv("HOME", box.root.path().toUtf8());
        qputenv("XDG_CONFIG_HOME", box.configHome().toUtf8());
        qputenv("XDG_DATA_HOME", box.root.filePath("data").toUtf8());
        prepareApp();
        QVERIFY2(peer.open(QString::fromLocal8Bit(qgetenv("DISPLAY"))), qPrintable(peer.errorString()));
    }

    void init()
    {
        ConfigurationManager::instance()->reset();
        QVERIFY(peer.takeFocus());
        peer.clearPresses();
    }

    void cleanup()
    {
        stop();
        peer.setLock(XK_Num_Lock, false);
        peer.setLock(XK_Caps_Lock, false);
        peer.restoreKeymap();
    }

    // The five actions with another program in front, with the locks as the row says: the
    // brightness steps by 0.1 to the clamp and back; off, then on; the group steps from
    // different groups, then from one. The peer never sees a bound combination, and does see
    // one that is not bound. With no device left, a group step says so.
    void fiveActions_data()
    {
        QTest::addColumn<quint32>("lock");
        QTest::newRow("locks off") << quint32(0);
        QTest::newRow("NumLock on") << quint32(XK_Num_Lock);
        QTest::newRow("CapsLock on") << quint32(XK_Caps_Lock);
    }
    void fiveActions()
    {
        QFETCH(quint32, lock);
        Strip a("OV5512", "AAAA", link("strip1"));
        Strip b("OV2408", "BBBB", link("strip2"));
        storeDevice(a.id, {{"brightness", 0.95}});
        storeDevice(b.id, {{"brightness", 0.05},
                           {"workMode", kColourful},
                           {"subMode", QString(kColourful + ".moodShadow")}});
        QVERIFY(start(2));
        for (QToolButton* button : app->window().homePage()->findChildren<QToolButton*>()) {
            if (button->property("controllerId") == a.id) {
                button->click(); // the control page follows a's brightness
            }
        }
        QSlider* slider = child<QSlider>(app->window().controlPage(), "brightnessSlider");
        QVERIFY(peer.takeFocus());
        if (lock != 0) {
            peer.setLock(lock, true);
        }
        QTRY_COMPARE(a.first(), white(242)); // 255 * 0.95
        // a: 0.85, 0.95, 1.0 (1.05 clamped), 1.0; b: 0 (-0.05 clamped), then up by 0.1.
        const struct
        {
            quint32 key;
            int shown;
            int slider;
            float other;
        } steps[] = {{XK_Down, 216, 85, 0.0f},
                     {XK_Up, 242, 95, 0.1f},
                     {XK_Up, 255, 100, 0.2f},
                     {XK_Up, 255, 100, 0.3f}};
        for (const auto& step : steps) {
            press(step.key);
            QTRY_VERIFY(qAbs(options(b).brightness - step.other) < 1e-4f);
            a.watch(1);
            QCOMPARE(a.first(), white(step.shown));
            QCOMPARE(slider->value(), step.slider);
            QTRY_VERIFY(step.other > 0.0f || dark(b));
        }
        press(XK_F10);
        QTRY_VERIFY(dark(a) && dark(b));
        press(XK_F10);
        QTRY_COMPARE(a.first(), white(255));

        EffectsManager& effects = app->effects();
        const QString afterScreen = effects.nextGroup("com.orvanta.screenSync");
        for (const auto& [key, group] : {std::make_pair(quint32(XK_Right), afterScreen),
                                         std::make_pair(quint32(XK_Left), effects.previousGroup(afterScreen)),
                                         std::make_pair(quint32(XK_Left), kColourful)}) {
            press(key);
            QTRY_VERIFY(options(a).workMode == group && options(b).workMode == group);
            QCOMPARE(options(a).subMode, effects.defaultEffect(group));
            QCOMPARE(options(b).subMode, effects.defaultEffect(group));
            ConfigurationManager::instance()->flush();
            QCOMPARE(TestFiles::readJson(box.configDir() + "/controllers/" + QUrl::toPercentEncoding(b.id) +
                                         ".json")
                         .value("workMode")
                         .toString(),
                     group);
        }
        for (quint32 key : {XK_Up, XK_Down, XK_F10, XK_Right, XK_Left}) {
            QCOMPARE(pressesOf(key), 0);
        }
        press(XK_F11);
        QTRY_COMPARE(pressesOf(XK_F11), 1);
        if (lock != 0) {
            return;
        }
        a.device.close();
        b.device.close();
        QTRY_VERIFY_WITH_TIMEOUT(app->devices().controllerNames().isEmpty(), kFoundMs);
        LogCapture log;
        press(XK_Right);
        QTRY_VERIFY(log.contains("[OrvantaApp]: The controller list is empty", QtCriticalMsg));
    }

    // At start, a combination another program holds, or a stored binding that is malformed:
    // logged, that action on its default keys or without a hotkey, the others working; the
    // binding written back; the editor marks the action without a live hotkey.
    void startupBindings_data()
    {
        QTest::addColumn<QJsonValue>("binding");
        QTest::addColumn<bool>("peerHolds");
        QTest::addColumn<QString>("logged");
        QTest::addColumn<bool>("nextLive");
        QTest::addColumn<QString>("storedNext");
        const QString right = "Ctrl+Alt+Shift+Right";
        QTest::newRow("another program holds Right")
            << QJsonValue() << true << "Failed to register Ctrl+Alt+Shift+Right. Error: BadAccess" << false
            << right;
        QTest::newRow("empty string") << QJsonValue(QJsonObject{{kNext, ""}}) << false
                                      << "the keys of " + kNext + " are empty" << true << right;
        QTest::newRow("Ctrl+Foo") << QJsonValue(QJsonObject{{kNext, "Ctrl+Foo"}}) << false
                                  << "\"Ctrl+Foo\" names no key" << false << "";
        QTest::newRow("a number") << QJsonValue(QJsonObject{{kNext, 5}}) << false
                                  << "the keys of " + kNext + " are no text" << true << right;
        QTest::newRow("no object") << QJsonValue(QJsonArray{kNext}) << false
                                   << "\"hotkeyBinding\" is no object" << true << right;
    }
    void startupBindings()
    {
        QFETCH(QJsonValue, binding);
        QFETCH(bool, peerHolds);
        QFETCH(QString, logged);
        QFETCH(bool, nextLive);
        QFETCH(QString, storedNext);
        Strip strip("OV2408", "CCCC", link("strip1"));
        storeDevice(strip.id, {{"brightness", 0.5}});
        if (!binding.isNull()) {
            ConfigurationManager::instance()->setGlobalValue("hotkeyBinding", binding);
            ConfigurationManager::instance()->saveGlobalValues();
        }
        const quint16 mask = chordMask();
        if (peerHolds) {
            QCOMPARE(peer.grab(mask, XK_Right), QString());
        }
        const auto release = qScopeGuard([&] { peer.ungrab(mask, XK_Right); });
        LogCapture log;
        QVERIFY(start(1));
        QVERIFY2(log.contains(logged), qPrintable(log.lines().join('\n')));
        QCOMPARE(log.contains("[HotkeyManager]: The hotkey combine has been registered " + kNext), !nextLive);
        QCOMPARE(
            log.contains("Failed to registered hotkey " + kNext + " , the action will be never activated"),
            !nextLive);
        QCOMPARE(app->hotKeys().isLive(kNext), nextLive);

        press(XK_Up);
        QTRY_VERIFY(qAbs(options(strip).brightness - 0.6f) < 1e-4f);
        const QJsonObject stored = storedGlobal().value("hotkeyBinding").toObject();
        QCOMPARE(stored.value(kNext).toString(), storedNext);
        QCOMPARE(stored.value(kUp).toString(), QString("Ctrl+Alt+Shift+Up"));

        inSettings([&](SettingsDialog* dialog) {
            QAbstractItemModel* model = dialog->hotkeyEditor()->findChild<QTableView*>("tableView")->model();
            const int next = rowOf(model, "切换到下一个模式");
            QCOMPARE(model->rowCount(), 5);
            for (int row = 0; row < model->rowCount(); ++row) {
                const QModelIndex keys = model->index(row, 0);
                const bool marked = row == next && !nextLive;
                QCOMPARE(keys.data(Qt::ForegroundRole).value<QColor>() == QColor(231, 150, 26), marked);
                QCOMPARE(keys.data(Qt::ToolTipRole).toString(),
                         marked ? QString("此组合键已被其他程序占用") : QString());
            }
        });
    }

    // The engine itself: a combination held while the server repeats gives one press, and one
    // release once the main key goes up, not when a modifier does. Two hotkeys on one combination
    // both signal and hold it until the last is gone. A key symbol moved to another key code takes
    // the grab along; the old code then reaches the peer.
    void engine()
    {
        const quint8 f10 = peer.keyCode(XK_F10);
        const quint8 f11 = peer.keyCode(XK_F11);
        peer.keyDown(f11);
        QTest::qWait(1500);
        peer.keyUp(f11);
        const int repeats = peer.presses(f11);
        qInfo("F11 held 1.5 s reached the peer %d times", repeats);
        QVERIFY2(repeats > 1, "the server does not repeat held keys");

        auto first = std::make_unique<QHotkey>(QKeySequence("Ctrl+Alt+Shift+F10"), true);
        auto second = std::make_unique<QHotkey>(QKeySequence("Ctrl+Alt+Shift+F10"), true);
        QVERIFY(first->isRegistered() && second->isRegistered());
        QSignalSpy activated(first.get(), &QHotkey::activated);
        QSignalSpy alsoActivated(second.get(), &QHotkey::activated);
        QSignalSpy released(first.get(), &QHotkey::released);
        QElapsedTimer sinceUp;
        qint64 releaseMs = -1;
        connect(first.get(), &QHotkey::released, this, [&] { releaseMs = sinceUp.elapsed(); });
        const QVector<quint8> modifiers{peer.keyCode(XK_Control_L), peer.keyCode(XK_Alt_L),
                                        peer.keyCode(XK_Shift_L)};
        for (quint8 code : modifiers) {
            peer.keyDown(code);
        }
        peer.keyDown(f10);
        QTest::qWait(1500);
        QCOMPARE(activated.count(), 1);
        QCOMPARE(alsoActivated.count(), 1);
        peer.keyUp(modifiers.last());
        QTest::qWait(200);
        QCOMPARE(released.count(), 0);
        sinceUp.start();
        peer.keyUp(f10);
        QTRY_COMPARE(released.count(), 1);
        qInfo("released %lld ms after F10 went up", releaseMs);
        peer.keyUp(modifiers[1]);
        peer.keyUp(modifiers[0]);
        QTest::qWait(100);
        QVERIFY(activated.count() == 1 && released.count() == 1 && peer.presses(f10) == 0);

        first.reset();
        QCOMPARE(peer.grab(chordMask(), XK_F10), QString("BadAccess"));
        second.reset();
        QCOMPARE(peer.grab(chordMask(), XK_F10), QString());
        peer.ungrab(chordMask(), XK_F10);

        QHotkey moved(QKeySequence("Ctrl+Alt+Shift+F10"), true);
        QSignalSpy movedPresses(&moved, &QHotkey::activated);
        LogCapture log;
        const quint8 spare = peer.freeKeyCode();
        QVERIFY(spare != 0 && peer.moveKeysym(XK_F10, spare) == f10);
        QTRY_VERIFY(
            log.contains(QString("Ctrl+Alt+Shift+F10 moved from key code %1 to %2").arg(f10).arg(spare)));
        for (quint8 code : {spare, f10}) {
            for (quint8 modifier : modifiers) {
                peer.keyDown(modifier);
            }
            peer.keyDown(code);
            peer.keyUp(code);
            for (quint8 modifier : modifiers) {
                peer.keyUp(modifier);
            }
        }
        QTRY_COMPARE(peer.presses(f10), 1);
        QTRY_COMPARE(movedPresses.count(), 1);
    }

    // Rebinding in the settings: a combination pasted into the brightness-up row and committed
    // steps the brightness at once, and the old one reaches the peer, in the program itself too.
    // Refused (the cell back, the old combination live, the reason logged): keys really pressed
    // into the editor, "Ctrl+", another action's keys, a combination another program holds.
    void rebinding_data()
    {
        QTest::addColumn<QString>("pasted"); // empty: pressed through XTest
        QTest::addColumn<QString>("logged");
        const QString invalid = "[OrvantaApp]: Invalid hotkey:";
        QTest::newRow("pasted Ctrl+Alt+Shift+F9")
            << "Ctrl+Alt+Shift+F9"
            << QString("[OrvantaApp]: The hotkey binding has been changed: Ctrl+Alt+Shift+F9");
        QTest::newRow("pressed Ctrl+Alt+Shift+F8") << QString() << invalid;
        QTest::newRow("Ctrl+") << "Ctrl+" << invalid;
        QTest::newRow("another action's keys") << "Ctrl+Alt+Shift+Down" << invalid;
        QTest::newRow("held by another program")
            << "Ctrl+Alt+Shift+F7" << QString("Failed to register Ctrl+Alt+Shift+F7. Error: BadAccess");
        // The row's description names no action (as a stale translation would): no id to rebind.
        QTest::newRow("unknown description")
            << "Ctrl+Alt+Shift+F9" << QString("[OrvantaApp]: Not found the hotkey action");
    }
    void rebinding()
    {
        QFETCH(QString, pasted);
        QFETCH(QString, logged);
        const bool accepted = logged.contains("changed");
        Strip strip("OV2408", "DDDD", link("strip1"));
        storeDevice(strip.id, {{"brightness", 0.5}});
        const quint16 mask = chordMask();
        QCOMPARE(peer.grab(mask, XK_F7), QString());
        const auto release = qScopeGuard([&] { peer.ungrab(mask, XK_F7); });
        QVERIFY(start(1));
        LogCapture log;
        inSettings([&](SettingsDialog* dialog) {
            QVERIFY(QTest::qWaitForWindowExposed(dialog));
            dialog->activateWindow();
            QVERIFY(QTest::qWaitForWindowActive(dialog));
            dialog->findChild<SliderBar*>("sliderBar")->setCurrentIndex(1);
            auto* view = dialog->hotkeyEditor()->findChild<QTableView*>("tableView");
            const QModelIndex up = view->model()->index(rowOf(view->model(), "提升亮度"), 0);
            if (QByteArray(QTest::currentDataTag()) == "unknown description") {
                view->model()->setData(up.siblingAtColumn(1), "无此动作");
            }
            view->setCurrentIndex(up);
            view->edit(up);
            auto* line = view->findChild<HotkeyInputLine*>();
            QVERIFY(line);
            line->setFocus();
            QTRY_COMPARE(QApplication::focusWidget(), line);
            if (pasted.isEmpty()) {
                peer.tap({XK_Control_L, XK_Alt_L, XK_Shift_L, XK_F8});
                QTRY_COMPARE(line->text(), QString("Ctrl+Alt+Shift+F8F8"));
            } else {
                QGuiApplication::clipboard()->setText(pasted);
                line->selectAll();
                line->paste();
                QCOMPARE(line->text(), pasted);
            }
            // Committed as the editor loses the focus to another cell.
            const QRect other = view->visualRect(view->model()->index(0, 1));
            QTest::mouseClick(view->viewport(), Qt::LeftButton, {}, other.center());
            QTRY_VERIFY2(log.contains(logged), qPrintable(log.lines().join('\n')));
            QCOMPARE(up.data().toString(), accepted ? pasted : QString("Ctrl+Alt+Shift+Up"));
        });
        QCOMPARE(app->hotKeys().hotKey(kUp).toString(), accepted ? pasted : QString("Ctrl+Alt+Shift+Up"));
        QVERIFY(peer.takeFocus());
        press(XK_F9);
        press(XK_Up);
        QTRY_COMPARE(pressesOf(accepted ? XK_Up : XK_F9), 1);
        QTRY_VERIFY(qAbs(options(strip).brightness - 0.6f) < 1e-4f);
        QCOMPARE(pressesOf(accepted ? XK_F9 : XK_Up), 0);
        if (!accepted) {
            return;
        }
        stop();
        QProcess program;
        startBinary(program, strip);
        QTRY_COMPARE(strip.first(), white(153)); // 255 * 0.6
        press(XK_F9);
        QTRY_COMPARE(strip.first(), white(178)); // 255 * 0.7
        press(XK_Up);
        QTRY_COMPARE(pressesOf(XK_Up), 2);
        stopBinary(program);
    }

    // Restoring the defaults: No changes nothing; Yes asks for the wipe and quits. The program
    // then starts on defaults (name, brightness, hotkeys), the request used up, the autostart
    // entry still there.
    void wipe()
    {
        Strip strip("OV2408", "EEEE", link("strip1"));
        storeDevice(strip.id, {{"brightness", 0.3}, {"kindName", "Desk"}});
        ConfigurationManager::instance()->setGlobalValue(QStringList{"hotkeyBinding", kUp},
                                                         "Ctrl+Alt+Shift+F9");
        QVERIFY(start(1));
        const AutostartEntry autostart = AutostartEntry::forThisProgram();
        for (const auto answer : {QMessageBox::No, QMessageBox::Yes}) {
            onModal<SettingsDialog>(this, [&](SettingsDialog* dialog) {
                if (!child<QCheckBox>(dialog, "chkStartup")->isChecked()) {
                    child<QCheckBox>(dialog, "chkStartup")->click();
                }
                onModal<QMessageBox>(this, [answer](QMessageBox* box) { box->button(answer)->click(); });
                child<QPushButton>(dialog, "btnDefaultSettings")->click();
                if (answer == QMessageBox::No) {
                    dialog->reject();
                }
            });
            QPushButton* settings = child<QPushButton>(&app->window(), "pushButton_settings");
            if (answer == QMessageBox::No) {
                settings->click();
                QVERIFY(!storedGlobal().contains("cleanStartup"));
            } else { // the quit ends the program's loop
                QTimer::singleShot(0, settings, &QPushButton::click);
                QCOMPARE(QCoreApplication::exec(), 0);
            }
        }
        QCOMPARE(storedGlobal().value("cleanStartup"), QJsonValue(true));
        QCOMPARE(autostart.state(), AutostartEntry::State::On);
        stop();

        QProcess program;
        startBinary(program, strip);
        QVERIFY(box.mainLog().contains("The program will clean up all configuration files"));
        QTRY_COMPARE(strip.first(), white(153)); // the model's 0.6
        press(XK_Up);
        QTRY_COMPARE(strip.first(), white(178));
        press(XK_F9);
        QTRY_COMPARE(pressesOf(XK_F9), 1);
        stopBinary(program);
        const QJsonObject global = TestFiles::readJson(box.configDir() + "/global.json");
        QCOMPARE(global.value("cleanStartup"), QJsonValue(false));
        const QJsonObject device = TestFiles::readJson(box.configDir() + "/controllers/" +
                                                       QUrl::toPercentEncoding(strip.id) + ".json");
        QVERIFY(device.value("kindName").toString() != "Desk");
        QCOMPARE(autostart.state(), AutostartEntry::State::On);
        QVERIFY(QFile::remove(autostart.filePath()));
    }

    // The program where no global hotkeys are: offscreen without a display, every registration
    // fails with the reason and the strip lights all the same; on Xwayland the grabs are taken,
    // and one warning says they work only while an X11 window has the focus.
    void sessions_data()
    {
        QTest::addColumn<bool>("xwayland");
        QTest::newRow("offscreen, no DISPLAY") << false;
        QTest::newRow("xcb on Xwayland") << true;
    }
    void sessions()
    {
        QFETCH(bool, xwayland);
        PrivateXwayland compositor;
        QVERIFY2(!xwayland || compositor.start(), qPrintable(compositor.errorString()));
        Strip strip("OV2408", "FFFF", link("strip1"));
        Sandbox own;
        QProcess program;
        own.prepare(program, {"--auto_startup"},
                    {{"QT_QPA_PLATFORM", xwayland ? "xcb" : "offscreen"},
                     {"DISPLAY", xwayland ? compositor.display() : QString()},
                     {"ORVANTA_EXTRA_PORTS", strip.device.linkPath()}});
        program.start();
        QTRY_VERIFY_WITH_TIMEOUT(own.mainLog().contains(kAdded), 4 * kFoundMs);
        QTRY_VERIFY_WITH_TIMEOUT(strip.device.frameCount() > 0 && !dark(strip), kFoundMs);
        const QString log = own.mainLog();
        const QString failure = "Error: global hotkeys need an X11 session (platform: offscreen)";
        QCOMPARE(log.count(failure), xwayland ? 0 : 5);
        QCOMPARE(log.count("Failed to registered hotkey"), xwayland ? 0 : 5);
        QCOMPARE(log.count("global hotkeys work only while one of its X11 windows has the focus"),
                 xwayland ? 1 : 0);
        stopBinary(program);
    }

    // The key texts of a binding: one combination of modifiers and a key, or why not.
    void keyTexts_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("problem");
        QTest::newRow("Ctrl+Alt+Shift+F9") << QString("Ctrl+Alt+Shift+F9") << "";
        QTest::newRow("lower case") << QString("ctrl+alt+shift+right") << "";
        QTest::newRow("Ctrl+") << QString("Ctrl+") << "\"Ctrl+\" names no key";
        QTest::newRow("pressed text") << QString("Ctrl+F10F10") << "\"Ctrl+F10F10\" names no key";
        QTest::newRow("two steps") << QString("F10, F11") << "\"F10, F11\" is more than one combination";
        QTest::newRow("empty") << QString("") << "no keys";
    }
    void keyTexts()
    {
        QFETCH(QString, text);
        QFETCH(QString, problem);
        const HotkeyBinding::Parsed parsed = HotkeyBinding::parseKeys(text, QKeySequence::PortableText);
        QCOMPARE(parsed.problem, problem);
        QCOMPARE(parsed.keys.isEmpty(), text.isEmpty());
    }
};

QTEST_MAIN(TestHotkeys)
#include "tst_Hotkeys.moc"
