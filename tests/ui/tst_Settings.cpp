#include "Command.h"
#include "LogCapture.h"
#include "TestFiles.h"
#include "TestWidgets.h"
#include "X11Peer.h"
#include "hotkeys/editor/HotKeyEditWidget.h"
#include "hotkeys/editor/HotkeyInputLine.h"
#include "i18n/LanguageManager.h"
#include "service/config/AutostartEntry.h"
#include "service/config/ConfigurationManager.h"
#include "service/screen/DeskCaptureOption.h"
#include "ui/dialogs/SettingsDialog.h"
#include "ui/widgets/SliderBar.h"

#include <QtTest>
#include <QtWidgets>

#include <memory>

#define XK_MISCELLANY
#define XK_LATIN1
#include <X11/keysym.h>

using TestWidgets::child;

namespace {
constexpr char kCaptureOption[] = "com.orvanta.runtime.options.deskCaptureOption";
const QString kHeld = QStringLiteral("此组合键已被其他程序占用");

// The five actions as the program lists them, in the order of their ids.
QList<HotkeyRow> actionRows()
{
    return {{QKeySequence("Ctrl+Alt+Shift+Down"), "降低亮度"},
            {QKeySequence("Ctrl+Alt+Shift+Up"), "提升亮度"},
            {QKeySequence("Ctrl+Alt+Shift+Right"), "切换到下一个模式"},
            {QKeySequence("Ctrl+Alt+Shift+Left"), "切换到上一个模式"},
            {QKeySequence("Ctrl+Alt+Shift+F10"), "全开全关切换"}};
}

QMap<QString, QString> actionDescriptions()
{
    return {{"decrease", "降低亮度"},
            {"increase", "提升亮度"},
            {"next", "切换到下一个模式"},
            {"previous", "切换到上一个模式"},
            {"turnOffOn", "全开全关切换"}};
}

void commit(QStandardItemModel* model, int row, const QString& text)
{
    model->setData(model->index(row, 0), text); // what the delegate does with the editor's text
}
} // namespace

// The settings dialog and its hotkey table, offscreen; the private X server only lends its
// keyboard map to the names of pressed keys.
class TestSettings : public QObject
{
    Q_OBJECT
private:
    X11Peer peer;
    std::unique_ptr<DeskCaptureOption> option;

    QList<QUrl> openedUrls;

public slots:
    void onUrl(const QUrl& url) { openedUrls << url; }

private slots:
    void initTestCase()
    {
        QCoreApplication::setApplicationName("orvanta");
        QVERIFY2(peer.open(QString::fromLocal8Bit(qgetenv("DISPLAY"))), qPrintable(peer.errorString()));
        // The languages beside this program: English and Chinese, and a code nobody names.
        const QString languages = QCoreApplication::applicationDirPath() + "/languages";
        QDir(languages).removeRecursively();
        QVERIFY(TestFiles::copyTree(ORVANTA_TEST_LANGUAGES, languages));
        QVERIFY(QFile::copy(languages + "/orvanta_zh.qm", languages + "/orvanta_xx.qm"));
        // The look the main window gives the whole program.
        Q_INIT_RESOURCE(ui);
        QFile style(":/styles/default.qss");
        QVERIFY(style.open(QIODevice::ReadOnly));
        qApp->setStyleSheet(QString::fromUtf8(style.readAll()));
        option = std::make_unique<DeskCaptureOption>(0);
        qApp->setProperty(kCaptureOption, QVariant::fromValue(quintptr(option.get())));
    }

    void init()
    {
        ConfigurationManager::instance()->reset();
        LanguageManager::instance()->setLanguage("zh");
        QFile::remove(AutostartEntry::forThisProgram().filePath());
    }

    // A key press shows Ctrl, Alt, Shift in that order (never Meta), then the X name of the key
    // and Qt's; a modifier alone shows only the modifiers; nothing typed is inserted.
    void keyPresses_data()
    {
        QTest::addColumn<int>("modifiers");
        QTest::addColumn<int>("key");
        QTest::addColumn<quint32>("keysym"); // 0: a key code without symbols
        QTest::addColumn<QString>("shown");
        QTest::newRow("Ctrl+F10") << int(Qt::ControlModifier) << int(Qt::Key_F10) << quint32(XK_F10)
                                  << "Ctrl+F10F10";
        // As X reports a modifier's own press: the state from before it, which Qt turns around.
        QTest::newRow("Ctrl alone") << int(Qt::NoModifier) << int(Qt::Key_Control) << quint32(XK_Control_L)
                                    << "Ctrl+";
        QTest::newRow("Shift, Alt, Ctrl and A")
            << int(Qt::ShiftModifier | Qt::AltModifier | Qt::ControlModifier) << int(Qt::Key_A)
            << quint32(XK_a) << "Ctrl+Alt+Shift+aA";
        QTest::newRow("Meta left out")
            << int(Qt::MetaModifier | Qt::ShiftModifier) << int(Qt::Key_Up) << quint32(XK_Up) << "Shift+UpUp";
        QTest::newRow("a nameless key") << int(Qt::NoModifier) << int(Qt::Key_F20) << quint32(0) << "0x%1F20";
    }
    void keyPresses()
    {
        QFETCH(int, modifiers);
        QFETCH(int, key);
        QFETCH(quint32, keysym);
        QFETCH(QString, shown);
        const quint8 code = keysym ? peer.keyCode(keysym) : peer.freeKeyCode();
        QVERIFY(code != 0);
        HotkeyInputLine line;
        line.setText("before");
        QKeyEvent press(QEvent::KeyPress, key, Qt::KeyboardModifiers(modifiers), code, 0, 0, "a");
        QApplication::sendEvent(&line, &press);
        QCOMPARE(line.text(), keysym ? shown : shown.arg(code, 0, 16));
    }

    // The table: no editor for a description; a commit goes to the first id (in key order) whose
    // description reads as the row's; a refused one puts the keys back; an unknown description
    // gives an empty id. Rows without a live hotkey are marked until rebound; without X11 a note
    // stands over a read-only table, and over Xwayland another over an editable one.
    void hotkeyTable()
    {
        HotKeyEditWidget widget;
        widget.setHotkeys({{QKeySequence("F1"), "降低亮度"}, {QKeySequence("F3"), "无此动作"}});
        widget.setDescriptions({{"z", "降低亮度"}, {"b", "提升亮度"}});
        widget.setDescriptions({{"b", "降低亮度"}}); // merged: "b" now reads as "z" does
        QStringList asked;
        widget.setBindingHandler([&](QKeySequence keys, QString id) {
            asked << keys.toString() + ' ' + id;
            return !id.isEmpty();
        });
        widget.setHotkeyState({"b"}, HotKeyEditWidget::Session::Global);
        auto* view = widget.findChild<QTableView*>("tableView");
        auto* model = qobject_cast<QStandardItemModel*>(view->model());
        QCOMPARE(model->index(0, 0).data(Qt::ToolTipRole).toString(), kHeld);
        widget.show();
        view->edit(model->index(0, 1));
        QVERIFY(!view->findChild<HotkeyInputLine*>());
        view->edit(model->index(0, 0));
        QVERIFY(view->findChild<HotkeyInputLine*>());

        commit(model, 0, "Ctrl+F5");
        commit(model, 1, "Ctrl+F6");
        QCOMPARE(asked, QStringList({"Ctrl+F5 b", "Ctrl+F6 "}));
        QCOMPARE(model->index(0, 0).data().toString(), QString("Ctrl+F5"));
        QCOMPARE(model->index(1, 0).data().toString(), QString("F3"));
        QCOMPARE(model->index(0, 0).data(Qt::ToolTipRole).toString(), QString());

        auto* note = widget.findChild<QLabel*>("noteLabel");
        QVERIFY(note->isHidden());
        widget.setHotkeyState({}, HotKeyEditWidget::Session::None);
        QCOMPARE(note->text(), QString("此会话中全局快捷键不可用（需要 X11 会话）。"));
        QVERIFY(note->isVisible() && view->editTriggers() == QAbstractItemView::NoEditTriggers);
        widget.setHotkeyState({}, HotKeyEditWidget::Session::WhileX11Focused);
        QCOMPARE(note->text(), QString("全局快捷键仅在 X11 窗口获得焦点时生效。"));
        QVERIFY(note->isVisible() && view->editTriggers() != QAbstractItemView::NoEditTriggers);
    }

    // The entry the program writes for itself: desktop tools accept it, and its command reads
    // back to exactly the program and "--auto_startup", whatever the program's path holds.
    void autostartPaths_data()
    {
        QTest::addColumn<QString>("folder");
        QTest::newRow("a blank") << "my programs";
        QTest::newRow("a dollar") << "a$HOME";
        QTest::newRow("a percent") << "100%d";
        QTest::newRow("a double quote") << "say \"hi\"";
        QTest::newRow("a backslash") << "back\\slash";
        QTest::newRow("Chinese letters") << "灯带程序";
    }
    void autostartPaths()
    {
        QFETCH(QString, folder);
        const QString program = "/opt/" + folder + "/orvanta";
        AutostartEntry entry("orvanta-path-test", program, "--auto_startup");
        QString why;
        QCOMPARE(entry.enable(&why), AutostartEntry::Result::Done);
        QProcess validate;
        validate.start("desktop-file-validate", {entry.filePath()});
        QVERIFY(validate.waitForFinished(30000));
        QVERIFY2(validate.exitCode() == 0, validate.readAllStandardOutput().constData());
        const AutostartEntry::Contents contents = AutostartEntry::parse(TestFiles::read(entry.filePath()));
        bool ok = false;
        QCOMPARE(AutostartEntry::execArguments(contents.values.value("Exec"), &ok),
                 QStringList({program, "--auto_startup"}));
        QCOMPARE(contents.values.value("Path"), "/opt/" + folder);
        // A desktop skips the entry once the program is gone, so a removed package starts nothing.
        QCOMPARE(contents.values.value("TryExec"), program);
        QCOMPARE(entry.state(), AutostartEntry::State::On);
        QCOMPARE(entry.disable(&why), AutostartEntry::Result::Done);
        QVERIFY(!QFile::exists(entry.filePath()));
    }

    // The box in the dialog over what lies in the autostart folder: ours is checked and unchecking
    // removes it; ours switched off or for another path shows unchecked and is written over when
    // checked; a file of somebody else's, or one that is no desktop entry, is never touched: the
    // box stays unchecked and a note names the file.
    void autostartBox_data()
    {
        QTest::addColumn<QByteArray>("before"); // "ours": the program's own entry
        QTest::addColumn<bool>("checked");
        QTest::addColumn<bool>("refused");
        const QByteArray ours = "ours";
        const QByteArray elsewhere = AutostartEntry::render("/usr/games/orvanta", "--auto_startup");
        QTest::newRow("none") << QByteArray() << false << false;
        QTest::newRow("ours") << ours << true << false;
        QTest::newRow("ours, Hidden=true") << ours + "Hidden=true\n" << false << false;
        QTest::newRow("ours, switched off by GNOME") << ours + "X-GNOME-Autostart-enabled=false\n"
                                                     << false << false;
        QTest::newRow("ours for another path") << elsewhere << false << false;
        QTest::newRow("somebody else's")
            << QByteArray("[Desktop Entry]\nType=Application\nName=Other\nExec=other\n") << false << true;
        QTest::newRow("no desktop entry") << QByteArray("Exec=orvanta\n\0\1", 15) << false << true;
    }
    void autostartBox()
    {
        QFETCH(QByteArray, before);
        QFETCH(bool, checked);
        QFETCH(bool, refused);
        const AutostartEntry entry = AutostartEntry::forThisProgram();
        const QByteArray own =
            AutostartEntry::render(QCoreApplication::applicationFilePath(), "--auto_startup");
        if (before.startsWith("ours")) {
            before = own + before.mid(4);
        }
        QVERIFY(before.isEmpty() || TestFiles::write(entry.filePath(), before));
        LogCapture log;
        {
            SettingsDialog dialog;
            auto* box = child<QCheckBox>(&dialog, "chkStartup");
            QCOMPARE(box->isChecked(), checked);
            box->click();
            QCOMPARE(box->isChecked(), !checked && !refused);
            QCOMPARE(!child<QLabel>(&dialog, "autostartNote")->isHidden(), refused);
        }
        if (refused) {
            QCOMPARE(TestFiles::read(entry.filePath()), before);
            QVERIFY(log.contains("An autostart file of this name is not the program's own", QtWarningMsg));
            return;
        }
        QCOMPARE(TestFiles::read(entry.filePath()), checked ? QByteArray() : own);
        SettingsDialog again; // a new dialog reads it as the last one left it
        QCOMPARE(child<QCheckBox>(&again, "chkStartup")->isChecked(), !checked);
        child<QCheckBox>(&again, "chkStartup")->click();
        QCOMPARE(QFile::exists(entry.filePath()), checked);
    }

    // Languages: the files beside the program list Chinese first, then English; a code nobody
    // names is left out; a language with no file shows Chinese. English relabels the open dialog
    // at once, tabs included; Chinese is there to come back to after a restart in English.
    void languages()
    {
        LanguageManager::instance()->setLanguage("xx"); // a file, but no name for it
        SettingsDialog dialog;
        auto* languages = child<QComboBox>(&dialog, "cbxLanguage");
        QCOMPARE(languages->count(), 2);
        QCOMPARE(languages->itemText(0), QString("中文"));
        QCOMPARE(languages->itemText(1), QString("English"));
        QCOMPARE(languages->currentIndex(), 0);
        QCOMPARE(child<QCheckBox>(&dialog, "chkStartup")->text(), QString("开机时自动启动"));
        languages->setCurrentIndex(1);
        QTRY_COMPARE(child<QCheckBox>(&dialog, "chkStartup")->text(), QString("Start when I log in"));
        QCOMPARE(child<SliderBar>(&dialog, "sliderBar")->items(), QString("General;Hotkeys"));
        QCOMPARE(child<QComboBox>(&dialog, "screenCaptureModeComboBox")->itemText(1), QString("Mode 2"));
        QCOMPARE(ConfigurationManager::instance()->AppConfigJsonObj().value("language").toString(),
                 QString("en"));

        SettingsDialog afterRestart;
        auto* again = child<QComboBox>(&afterRestart, "cbxLanguage");
        QCOMPARE(again->currentText(), QString("English"));
        again->setCurrentIndex(again->findText("中文"));
        QTRY_COMPARE(child<QCheckBox>(&afterRestart, "chkStartup")->text(), QString("开机时自动启动"));
    }

    // The capture mode by number: a choice sets the zero-based mode once and stores it, at a
    // second opening too and after a relabelling; without the option the row is hidden.
    void captureMode()
    {
        QSignalSpy changed(option.get(), &DeskCaptureOption::curModeChanged);
        for (int mode : {1, 0}) {
            LanguageManager::instance()->setLanguage("zh");
            SettingsDialog dialog;
            auto* modes = child<QComboBox>(&dialog, "screenCaptureModeComboBox");
            QCOMPARE(modes->itemText(0), QString("模式 1"));
            QCOMPARE(modes->currentIndex(), 1 - mode);
            LanguageManager::instance()->setLanguage("en"); // the box is filled anew
            QTRY_COMPARE(modes->itemText(0), QString("Mode 1"));
            modes->setCurrentIndex(mode);
            QCOMPARE(changed.count(), 2 - mode);
            QCOMPARE(option->curMode(), mode);
            ConfigurationManager::instance()->flush();
            QCOMPARE(TestFiles::readJson(ConfigurationManager::instance()->configPath() + "/global.json")
                         .value("deskCaptureMode"),
                     QJsonValue(mode));
        }
        qApp->setProperty(kCaptureOption, QVariant());
        LogCapture log;
        SettingsDialog without;
        qApp->setProperty(kCaptureOption, QVariant::fromValue(quintptr(option.get())));
        QVERIFY(child<QWidget>(&without, "screenCaptureModeView")->isHidden());
        QVERIFY(log.contains("[SettingsDialog]: Cannot found deskCaptureOption instance.", QtWarningMsg));
    }

    // The folder button shows the configuration folder and opens it.
    void configurationFolder()
    {
        QDesktopServices::setUrlHandler("file", this, "onUrl");
        SettingsDialog dialog;
        auto* button = child<QPushButton>(&dialog, "btnOpenConfigDir");
        const QString folder = QStandardPaths::writableLocation(QStandardPaths::AppConfigLocation);
        QCOMPARE(button->toolTip(), folder);
        button->click();
        QDesktopServices::unsetUrlHandler("file");
        QCOMPARE(openedUrls, QList<QUrl>{QUrl::fromLocalFile(folder)});
    }

    // Both tabs in English and Chinese, for a person to look at, in the build folder: here at this
    // scale, and at twice it through a run of this program with QT_SCALE_FACTOR=2.
    void screenshots()
    {
        QVERIFY(QDir().mkpath("screenshots"));
        // With the note a foreign autostart file brings, the longest text of the first tab.
        QVERIFY(
            TestFiles::write(AutostartEntry::forThisProgram().filePath(), "[Desktop Entry]\nName=Other\n"));
        for (const char* language : {"en", "zh"}) {
            LanguageManager::instance()->setLanguage(language);
            SettingsDialog dialog;
            HotKeyEditWidget* editor = dialog.hotkeyEditor();
            editor->setHotkeys(actionRows());
            editor->setDescriptions(actionDescriptions());
            editor->setHotkeyState({"next"}, HotKeyEditWidget::Session::Global);
            child<QCheckBox>(&dialog, "chkStartup")->click();
            dialog.show();
            QVERIFY(QTest::qWaitForWindowExposed(&dialog));
            for (int tab : {0, 1}) {
                child<SliderBar>(&dialog, "sliderBar")->setCurrentIndex(tab);
                QTRY_COMPARE(child<SliderBar>(&dialog, "sliderBar")->barRect(),
                             child<SliderBar>(&dialog, "sliderBar")->itemRect(tab));
                const QString name = QString("screenshots/settings_%1_%2_%3x.png")
                                         .arg(tab ? "hotkeys" : "general", language)
                                         .arg(dialog.devicePixelRatioF());
                QVERIFY(dialog.grab().save(name));
            }
        }
        if (qgetenv("QT_SCALE_FACTOR").isEmpty()) {
            const Command::Result twice = Command::rerun({"screenshots"}, {{"QT_SCALE_FACTOR", "2"}});
            QVERIFY2(twice.exitCode == 0 && twice.out.contains("PASS   : TestSettings::screenshots()"),
                     qPrintable(twice.out.right(3000)));
        }
    }
};

QTEST_MAIN(TestSettings)
#include "tst_Settings.moc"
