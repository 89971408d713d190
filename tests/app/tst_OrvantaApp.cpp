#include "AbsWorkerWidget.h"
#include "ConfigurationManager.h"
#include "ControlPage.h"
#include "ControllerConfigDialog.h"
#include "GradientWidget.h"
#include "HomePage.h"
#include "LanguageManager.h"
#include "LogCapture.h"
#include "OrvantaApp.h"
#include "TestFiles.h"
#include "VirtualLedDevice.h"

#include <QAbstractButton>
#include <QApplication>
#include <QComboBox>
#include <QDir>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QProcess>
#include <QPushButton>
#include <QRadioButton>
#include <QSlider>
#include <QSpinBox>
#include <QStackedWidget>
#include <QSystemTrayIcon>
#include <QTemporaryDir>
#include <QTimer>
#include <QToolButton>
#include <QtTest>

#include <memory>

#include <signal.h>

using Rgb = VirtualLedDevice::Rgb;

namespace {
constexpr int kFoundMs = 15000;
const QString kSingle = QStringLiteral("com.orvanta.singleColor.singleColor1");

// "OV5512,AAAA" answers with the id "OV5512:41414141": the serial travels as hexadecimal.
QString idOf(const QString& model, const QByteArray& serial)
{
    return model + ':' + QString::fromLatin1(serial.toHex().toUpper());
}

// A virtual strip behind a stable link that the program is told to probe.
struct Strip
{
    VirtualLedDevice device;
    QString id;

    Strip(const QString& model, const QByteArray& serial, const QString& link)
    {
        device.setReply(model.toLatin1() + ',' + serial + "\r\n");
        device.open(link);
        id = idOf(model, serial);
    }
};

// Settings stored for a device before the program starts, as a previous run would leave them.
// A stored record is read whole, so it carries the model's lines unless `values` says otherwise.
void storeDevice(const QString& id, const QJsonObject& values)
{
    QJsonObject& obj = ConfigurationManager::instance()->controllerJsonObj(id);
    const bool wide = id.startsWith(QLatin1String("OV5512"));
    obj.insert("nbLeds", wide ? 72 : 24);
    obj.insert("lines", wide ? QJsonArray{18, 36, 18} : QJsonArray{24});
    for (auto it = values.begin(); it != values.end(); ++it) {
        obj.insert(it.key(), it.value());
    }
    ConfigurationManager::instance()->saveControllerJsonObj(id);
}

// The shown one where panels parked hidden on the page carry the same names.
template <typename T> T* child(QWidget* root, const char* name)
{
    const QList<T*> found = root->findChildren<T*>(QLatin1String(name));
    for (T* w : found) {
        if (w->isVisible()) {
            return w;
        }
    }
    return found.value(0);
}
} // namespace

// The application end to end in one process: real discovery on virtual strips, the real window.
class TestOrvantaApp : public QObject
{
    Q_OBJECT
private:
    QString linkDir;
    std::unique_ptr<OrvantaApp> app;

    QString link(const QString& name) const { return linkDir + '/' + name; }

    // Starts the program and waits until `count` devices are bound.
    bool start(int count)
    {
        qputenv("ORVANTA_EXTRA_PORTS", (linkDir + "/strip*").toUtf8());
        app.reset(new OrvantaApp);
        return QTest::qWaitFor([&] { return app->devices().controllerNames().size() == count; }, kFoundMs);
    }

    void stop()
    {
        app.reset();
        TestFiles::flushDeletes();
    }

    // For a person to look at: the window on both pages, in the build folder.
    void saveScreenshots(const QString& tag)
    {
        QDir().mkpath("screenshots");
        const QString name = "screenshots/%1_" + tag + QString("_%1x.png").arg(qApp->devicePixelRatio());
        MainWindow& window = app->window();
        window.showNormal();
        stack()->setCurrentWidget(window.homePage());
        QTest::qWait(100); // buttons added to a shown page appear through a queued call
        const QImage home = window.grab().toImage();
        QVERIFY(home.save(name.arg("home")));
        // The dark theme reached the window: the device panel's ground.
        QCOMPARE(home.pixelColor(QPoint(1200, 300) * window.devicePixelRatioF()), QColor(34, 34, 34));
        stack()->setCurrentWidget(window.controlPage());
        QTest::qWait(100);
        QVERIFY(window.grab().save(name.arg("control")));
    }

    QStackedWidget* stack() { return child<QStackedWidget>(&app->window(), "mainStackedWidget"); }

    QToolButton* deviceButton(const QString& id)
    {
        for (QToolButton* b : app->window().homePage()->findChildren<QToolButton*>()) {
            if (b->property("controllerId").toString() == id) {
                return b;
            }
        }
        return nullptr;
    }

    void openDevice(const QString& id)
    {
        QToolButton* button = deviceButton(id);
        QVERIFY(button);
        QTest::mouseClick(button, Qt::LeftButton, {}, QPoint(button->width() / 2, 20));
        QCOMPARE(stack()->currentWidget(), app->window().controlPage());
    }

    QJsonObject stored(const QString& id)
    {
        ConfigurationManager::instance()->save();
        return TestFiles::readJson(ConfigurationManager::instance()->configPath() + "/controllers/" +
                                   QUrl::toPercentEncoding(id) + ".json");
    }

private slots:
    void initTestCase()
    {
        // The program's data as installed beside it: groups, pictures, model defaults, languages.
        const QString bin = QStringLiteral(ORVANTA_BIN_DIR);
        for (const char* folder : {"effects", "images", "controler_config", "languages"}) {
            QVERIFY(TestFiles::copyTree(bin + '/' + folder, QDir::currentPath() + '/' + folder));
        }
        linkDir = QDir::currentPath() + "/links";
        QDir(linkDir).removeRecursively();
        QVERIFY(QDir().mkpath(linkDir));
    }

    void init() { ConfigurationManager::instance()->reset(); }
    void cleanup() { stop(); }

    // What a device runs when it arrives: its stored effect, or single colour for anything unknown.
    void arrivalPicksEffect_data()
    {
        QTest::addColumn<QString>("storedEffect");
        QTest::addColumn<QString>("expected");
        QTest::newRow("nothing stored") << QString() << kSingle;
        QTest::newRow("stored colour map") << "com.orvanta.colorful.ColorMap_4"
                                           << "com.orvanta.colorful.ColorMap_4";
        QTest::newRow("effect gone") << "com.orvanta.colorful.removed" << kSingle;
    }
    void arrivalPicksEffect()
    {
        QFETCH(QString, storedEffect);
        QFETCH(QString, expected);
        Strip strip("OV5512", "AAAA", link("strip1"));
        if (!storedEffect.isEmpty()) {
            storeDevice(strip.id, {{"workMode", "com.orvanta.colorful"}, {"subMode", storedEffect}});
        }
        QVERIFY(start(1));
        QCOMPARE(app->devices().controlOptions(strip.id).subMode, expected);
        QCOMPARE(stored(strip.id).value("subMode").toString(), expected);
        QTRY_VERIFY_WITH_TIMEOUT(strip.device.frameCount() > 2 && strip.device.lastCount() == 72, kFoundMs);
        if (storedEffect.isEmpty()) {
            openDevice(strip.id);
            saveScreenshots("zh");
        }

        // Announced again: the device is bound anew and keeps running.
        emit app->devices().newController(strip.id);
        const int frames = strip.device.frameCount();
        QTRY_VERIFY(strip.device.frameCount() > frames + 2);
        QCOMPARE(app->devices().controlOptions(strip.id).subMode, expected);
    }

    // The strip dialog at arrival: every line lit in its colour while the user types.
    void stripDialog_data()
    {
        QTest::addColumn<bool>("accept");
        QTest::newRow("accepted") << true;
        QTest::newRow("cancelled") << false;
    }
    void stripDialog()
    {
        QFETCH(bool, accept);
        Strip strip("OV5512", "BBBB", link("strip1"));
        storeDevice(strip.id, {{"nbLeds", 60}, {"lines", QJsonArray{30, 20}}, {"brightness", 1.0}});
        LogCapture log;
        bool sawDialog = false;

        // The dialog runs its own loop inside the arrival, so the user's part runs from a timer.
        auto* poll = new QTimer(this);
        connect(poll, &QTimer::timeout, this, [&, poll] {
            auto* dialog = qobject_cast<ControllerConfigDialog*>(QApplication::activeModalWidget());
            if (!dialog) {
                return;
            }
            poll->deleteLater();
            sawDialog = true;
            auto finish = qScopeGuard([&] { accept ? dialog->accept() : dialog->reject(); });
            auto* add = child<QPushButton>(dialog, "addBtn");
            for (int i = 0; i < 3; ++i) {
                add->click();
            }
            const QList<QSpinBox*> boxes = dialog->findChildren<QSpinBox*>();
            QCOMPARE(boxes.size(), 3);
            for (int i = 0; i < 3; ++i) {
                boxes[i]->setValue(10 * (i + 1));
            }
            QTRY_COMPARE(strip.device.lastCount(), uint16_t(60));
            QVector<Rgb> colors = strip.device.lastColors();
            QCOMPARE(colors[0], (Rgb{255, 0, 0}));
            QCOMPARE(colors[10], (Rgb{0, 128, 0}));
            QCOMPARE(colors[59], (Rgb{255, 165, 0}));
            // Lowered: the frame keeps its 60 LEDs, the dropped ones dark.
            boxes[2]->setValue(5);
            QTRY_COMPARE(strip.device.lastColors().value(35), (Rgb{0, 0, 0}));
            QCOMPARE(strip.device.lastCount(), uint16_t(60));
            QCOMPARE(strip.device.lastColors()[34], (Rgb{255, 165, 0}));
            QDir().mkpath("screenshots");
            dialog->grab().save("screenshots/strip_dialog.png");
        });
        poll->start(20);

        qputenv("ORVANTA_EXTRA_PORTS", (linkDir + "/strip*").toUtf8());
        app.reset(new OrvantaApp);
        QTRY_VERIFY_WITH_TIMEOUT(sawDialog, kFoundMs);
        QVERIFY(!QTest::currentTestFailed());
        if (accept) {
            QTRY_COMPARE(app->devices().controllerNames(), QStringList{strip.id});
            QCOMPARE(stored(strip.id).value("nbLeds").toInt(), 35);
            QCOMPARE(stored(strip.id).value("lines").toArray(), (QJsonArray{10, 20, 5}));
        } else {
            QTRY_VERIFY(log.contains("没有正确地配置LED灯珠，控制器已被释放"));
            QVERIFY(app->devices().controllerNames().isEmpty());
            QCOMPARE(stored(strip.id).value("lines").toArray(), (QJsonArray{30, 20}));
        }
    }

    // The pages drive the device: rename, brightness, on/off, direction, group and effect.
    void pagesDriveTheDevice()
    {
        Strip strip("OV2408", "CCCC", link("strip1"));
        storeDevice(strip.id, {{"brightness", 1.0}});
        ConfigurationManager::instance()->setEffectVariant(kSingle, strip.id, "color",
                                                           QColor(200, 100, 40).rgb());
        QVERIFY(start(1));
        QTRY_COMPARE(strip.device.lastColors().value(0), (Rgb{200, 100, 40}));

        // Rename in the lowest strip of the device button; the page does not open.
        QToolButton* button = deviceButton(strip.id);
        QVERIFY(button);
        const QPoint strip18(button->width() / 2, button->height() - 5);
        QTest::mousePress(button, Qt::LeftButton, {}, strip18);
        QTest::mouseRelease(button, Qt::LeftButton, {}, strip18);
        auto* edit = button->findChild<QLineEdit*>();
        QVERIFY(edit && edit->isVisible());
        edit->selectAll();
        QTest::keyClicks(edit, "Desk");
        QTest::keyClick(edit, Qt::Key_Return);
        QCOMPARE(app->devices().controlOptions(strip.id).kindName, QString("Desk"));
        QCOMPARE(stack()->currentWidget(), app->window().homePage());

        openDevice(strip.id);
        ControlPage* page = app->window().controlPage();
        child<QSlider>(page, "brightnessSlider")->setValue(50);
        QTRY_COMPARE(strip.device.lastColors().value(0), (Rgb{100, 50, 20}));
        child<QRadioButton>(page, "installDirectionRTLButton")->click();
        QCOMPARE(app->devices().controlOptions(strip.id).installDirection, 1u);
        child<QRadioButton>(page, "LEDDisableButton")->click();
        QTRY_COMPARE(strip.device.lastColors().value(0), (Rgb{0, 0, 0}));
        child<QRadioButton>(page, "LEDEnableButton")->click();

        // A group of one effect has no sub-mode row; the colourful group shows its effects.
        QWidget* workersRegion = child<QWidget>(page, "workersRegion");
        QVERIFY(workersRegion->isHidden());
        QRadioButton* colorful = nullptr;
        for (QRadioButton* b : child<QWidget>(page, "workGroupContainer")->findChildren<QRadioButton*>()) {
            if (b->toolTip() == app->effects().group("com.orvanta.colorful").desc) {
                colorful = b;
            }
        }
        QVERIFY(colorful);
        colorful->click();
        QCOMPARE(app->devices().controlOptions(strip.id).subMode,
                 QString("com.orvanta.colorful.flowingEffect"));
        QVERIFY(!workersRegion->isHidden());
        const QList<QRadioButton*> effects =
            child<QWidget>(page, "workerContainer")->findChildren<QRadioButton*>();
        QVERIFY(effects.size() > 1);
        QAbstractButton* other = effects.first()->isChecked() ? effects.last() : effects.first();
        other->click();
        const QString chosen = app->devices().controlOptions(strip.id).subMode;
        QVERIFY(chosen != "com.orvanta.colorful.flowingEffect");

        // All of it survives a restart.
        stop();
        QVERIFY(start(1));
        const ControlOptions options = app->devices().controlOptions(strip.id);
        QCOMPARE(options.kindName, QString("Desk"));
        QCOMPARE(options.brightness, 0.5f);
        QCOMPARE(options.installDirection, 1u);
        QCOMPARE(options.subMode, chosen);
    }

    // The option panels on the control page drive the strip they show, and only that one.
    void panelsDriveTheStrip()
    {
        Strip a("OV2408", "AAAA", link("strip1"));
        Strip b("OV2408", "BBBB", link("strip2"));
        storeDevice(a.id, {{"brightness", 1.0}});
        storeDevice(b.id, {{"brightness", 1.0}});
        QVERIFY(start(2));
        ControlPage* page = app->window().controlPage();
        auto box = [&](const char* name) { return child<QSpinBox>(page, name); };

        openDevice(a.id);
        box("Rbox")->setValue(10);
        box("Gbox")->setValue(20);
        box("Bbox")->setValue(30);
        QTRY_COMPARE(a.device.lastColors().value(0), (Rgb{10, 20, 30}));
        // The wheel's ring at the top: hue 90, the saturation and value the boxes gave.
        auto* wheel = child<QWidget>(page, "colorWheel");
        QTest::mouseClick(wheel, Qt::LeftButton, {}, QPoint(wheel->width() / 2, 5));
        const QColor turned =
            QColor::fromHsv(90, QColor(10, 20, 30).saturation(), QColor(10, 20, 30).value());
        const Rgb turnedRgb{uint8_t(turned.red()), uint8_t(turned.green()), uint8_t(turned.blue())};
        QTRY_COMPARE(a.device.lastColors().value(0), turnedRgb);
        QCOMPARE(box("Gbox")->value(), turned.green());

        // The shared panel now points at b: a's strip keeps its colour.
        openDevice(b.id);
        box("Rbox")->setValue(200);
        QTRY_COMPARE(b.device.lastColors().value(0).r, uint8_t(200));
        QTest::qWait(200);
        QCOMPARE(a.device.lastColors().value(0).r, uint8_t(turned.red()));

        // For a person to look at: the panels of the other groups.
        for (const QString groupId : {"com.orvanta.screenSync", "com.orvanta.dynamicMusic"}) {
            for (QRadioButton* g :
                 child<QWidget>(page, "workGroupContainer")->findChildren<QRadioButton*>()) {
                if (g->toolTip() == app->effects().group(groupId).desc) {
                    g->click();
                }
            }
            QTest::qWait(100);
            QVERIFY(app->window().grab().save(QString("screenshots/panel_%1_%2x.png")
                                                  .arg(groupId.section('.', -1))
                                                  .arg(qApp->devicePixelRatio())));
        }

        // The rainbow stands still at speed 0; the six colour maps share one panel.
        QCOMPARE(app->effects().workerOptions("com.orvanta.colorful.ColorMap_3").optionWidget,
                 app->effects().workerOptions("com.orvanta.colorful.ColorMap_8").optionWidget);
        for (QRadioButton* g : child<QWidget>(page, "workGroupContainer")->findChildren<QRadioButton*>()) {
            if (g->toolTip() == app->effects().group("com.orvanta.colorful").desc) {
                g->click();
            }
        }
        child<QSlider>(page, "speedSlider")->setValue(0);
        const int frames = b.device.frameCount();
        QTRY_VERIFY(b.device.frameCount() > frames + 1);
        const auto still = b.device.lastColors();
        QTRY_VERIFY(b.device.frameCount() > frames + 4);
        QCOMPARE(b.device.lastColors(), still);

        // The mood shadow's straps: one added and removed again, never below one.
        for (QRadioButton* e : child<QWidget>(page, "workerContainer")->findChildren<QRadioButton*>()) {
            if (e->text() == "影随心动") {
                e->click();
            }
        }
        auto* straps = child<QComboBox>(page, "colorStrapBox");
        const int rows = straps->count();
        QVERIFY(rows >= 1);
        child<QPushButton>(page, "addBtn")->click();
        QCOMPARE(straps->count(), rows + 1);
        QCOMPARE(straps->currentIndex(), rows);
        QVERIFY(child<QPushButton>(page, "rmBtn")->isEnabled());
        for (int i = 0; i < rows; ++i) {
            child<QPushButton>(page, "rmBtn")->click();
        }
        QCOMPARE(straps->count(), 1);
        QVERIFY(!child<QPushButton>(page, "rmBtn")->isEnabled());
        // A key put on the bar reaches the strip: speed 0, range 1, one green key in white.
        child<QSlider>(page, "speedSlider")->setValue(0);
        child<QSlider>(page, "rangeSlider")->setValue(1000);
        auto* bar = child<GradientWidget>(page, "gradientEditor");
        bar->setKeyColors({});
        bar->setEndsColor(Qt::white);
        bar->addKeyColor(Qt::green, 0.5);
        auto greenShown = [&] {
            const QVector<Rgb> leds = b.device.lastColors();
            return std::any_of(leds.begin(), leds.end(),
                               [](const Rgb& c) { return c.g > 200 && c.r < 60 && c.b < 60; });
        };
        QTRY_VERIFY(greenShown());

        // Once the program object is gone, the program itself starts on what was set.
        const QString here = ConfigurationManager::instance()->configPath();
        stop();
        ConfigurationManager::instance()->save(); // what is still queued for writing
        // The program keeps its settings under its own name.
        const QString there = QString::fromLocal8Bit(qgetenv("XDG_CONFIG_HOME")) + "/orvanta";
        QDir(there).removeRecursively();
        QVERIFY(TestFiles::copyTree(here, there));
        QTemporaryDir runtime; // its own instance lock, whatever else runs beside this test
        QProcess program;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("XDG_RUNTIME_DIR", runtime.path());
        env.insert("QT_QPA_PLATFORM", "offscreen");
        program.setProcessEnvironment(env);
        program.setProcessChannelMode(QProcess::ForwardedChannels);
        program.start(QStringLiteral(ORVANTA_BINARY_PATH), QStringList());
        QVERIFY(program.waitForStarted());
        QTRY_VERIFY_WITH_TIMEOUT(a.device.lastColors().value(0) == turnedRgb, kFoundMs);
        QTRY_VERIFY_WITH_TIMEOUT(greenShown(), kFoundMs);
        QCOMPARE(::kill(pid_t(program.processId()), SIGTERM), 0);
        QVERIFY(program.waitForFinished(30000));
        QCOMPARE(program.exitCode(), 0);
    }

    // A failed device is unbound, and a control page that showed it goes back home.
    void failureReturnsHome()
    {
        Strip strip("OV5512", "DDDD", link("strip1"));
        QVERIFY(start(1));
        openDevice(strip.id);
        strip.device.close();
        QTRY_VERIFY_WITH_TIMEOUT(app->devices().controllerNames().isEmpty(), kFoundMs);
        QCOMPARE(stack()->currentWidget(), app->window().homePage());
        QVERIFY(!deviceButton(strip.id));
    }

    // The hotkey bodies over several devices.
    void hotkeyBodies()
    {
        Strip a("OV5512", "AAAA", link("strip1"));
        Strip b("OV5512", "BBBB", link("strip2"));
        Strip c("OV2408", "CCCC", link("strip3"));
        storeDevice(a.id, {{"brightness", 0.95}});
        storeDevice(b.id, {{"brightness", 0.05},
                           {"workMode", "com.orvanta.colorful"},
                           {"subMode", "com.orvanta.colorful.moodShadow"}});
        QVERIFY(start(3));
        EffectsManager& effects = app->effects();
        auto next = [&](const QString& g) { return effects.nextGroup(g); };
        auto previous = [&](const QString& g) { return effects.previousGroup(g); };

        // The devices differ, so the step starts from the screen group.
        const QString afterScreen = effects.nextGroup("com.orvanta.screenSync");
        app->switchGroup(next);
        for (const QString& id : {a.id, b.id, c.id}) {
            QCOMPARE(app->devices().controlOptions(id).workMode, afterScreen);
        }
        // All alike now: one step back from there, every device on that group's default.
        const QString back = effects.previousGroup(afterScreen);
        app->switchGroup(previous);
        for (const QString& id : {a.id, b.id, c.id}) {
            QCOMPARE(app->devices().controlOptions(id).subMode, effects.defaultEffect(back));
        }

        openDevice(a.id);
        app->stepBrightness(0.1f);
        QCOMPARE(app->devices().controlOptions(a.id).brightness, 1.0f);
        QCOMPARE(child<QSlider>(app->window().controlPage(), "brightnessSlider")->value(), 100);
        app->stepBrightness(-0.1f);
        app->stepBrightness(-0.1f);
        QCOMPARE(app->devices().controlOptions(b.id).brightness, 0.0f);
        QVERIFY(qAbs(app->devices().controlOptions(c.id).brightness - 0.5f) < 1e-6f);

        // An empty device list changes nothing and says so.
        stop();
        a.device.close();
        b.device.close();
        c.device.close();
        LogCapture log;
        QVERIFY(start(0));
        app->switchGroup(next);
        QVERIFY(log.contains("[OrvantaApp]: The controller list is empty", QtCriticalMsg));
    }

    // Showing, hiding and quitting the window; the program's state is saved on the way out.
    void windowLife()
    {
        Strip strip("OV5512", "EEEE", link("strip1"));
        qApp->setProperty("isAutoStartup", true);
        QVERIFY(start(1));
        qApp->setProperty("isAutoStartup", false);
        MainWindow& window = app->window();
        QVERIFY(!window.isVisible() || window.isMinimized());

        // Without a tray, closing only minimises: a hidden window would have no way back.
        window.showNormal();
        child<QToolButton>(&window, "toolButton_close")->click();
        QVERIFY(window.trayAvailable() ? window.isHidden() : window.isMinimized());
        window.hide();
        app->onShowRequested();
        QVERIFY(window.isVisible() && !window.isMinimized());
        window.showMinimized();
        app->onShowRequested();
        QVERIFY(window.isMinimized());

        // The tray's quit entry ends the loop; the black frame follows when the program goes.
        QMenu* menu = window.findChild<QMenu*>();
        QVERIFY(menu);
        QAction* quit = menu->actions().last();
        LogCapture log;
        QTimer::singleShot(0, quit, &QAction::trigger);
        QCOMPARE(QCoreApplication::exec(), 0);
        QVERIFY(log.contains("[OrvantaApp]: The application is exiting..."));
        stop();
        QTRY_COMPARE(strip.device.lastColors().value(0), (Rgb{0, 0, 0}));
        QCOMPARE(stored(strip.id).value("subMode").toString(), kSingle);
    }

    // English relabels the open window at once; the title stays the program's name.
    void languageChange()
    {
        Strip strip("OV5512", "FFFF", link("strip1"));
        QVERIFY(start(1));
        openDevice(strip.id);
        MainWindow& window = app->window();
        LanguageManager::instance()->setLanguage("en");
        QTRY_COMPARE(child<QPushButton>(&window, "pushButton_home")->text(), QString("Home"));
        // Setting a button's text drops its shortcut: relabelling must set it again.
        QCOMPARE(child<QPushButton>(&window, "pushButton_home")->shortcut(), QKeySequence("Alt+H"));
        QCOMPARE(window.findChild<QMenu*>()->actions().first()->text(), QString("Settings"));
        QCOMPARE(window.findChild<QMenu*>()->actions().last()->text(), QString("Quit"));
        QCOMPARE(child<QLabel>(window.controlPage(), "brightnessHeader")->text(), QString("  Brightness"));
        QCOMPARE(child<QLabel>(window.homePage(), "label_3")->text(), QString("Lighting devices"));
        QCOMPARE(window.windowTitle(), QString("Orvanta"));
        // Group and effect names come from data: each of the catalogue has its English. No panel
        // keeps a Chinese label, button or entry (strap names and devices are data).
        const QRegularExpression chinese("[\\x{4e00}-\\x{9fff}]");
        for (const QString& groupId : app->effects().groupIds()) {
            const EffectGroup group = app->effects().group(groupId);
            QVERIFY2(QCoreApplication::translate("GroupInformation", qPrintable(group.name)) != group.name,
                     qPrintable(group.name));
            for (const QString& effectId : group.effects) {
                const EffectWorkerOptions record = app->effects().workerOptions(effectId);
                QVERIFY2(QCoreApplication::translate("EffectNames", qPrintable(record.name)) != record.name,
                         qPrintable(record.name));
                QStringList texts;
                for (QWidget* panel : {static_cast<QWidget*>(record.optionWidget),
                                       static_cast<QWidget*>(record.extraOptionWidget)}) {
                    for (QLabel* label : panel ? panel->findChildren<QLabel*>() : QList<QLabel*>()) {
                        texts << label->text();
                    }
                    for (auto* b :
                         panel ? panel->findChildren<QAbstractButton*>() : QList<QAbstractButton*>()) {
                        texts << b->text();
                    }
                }
                QVERIFY2(!texts.join(' ').contains(chinese), qPrintable(effectId + ": " + texts.join(' ')));
            }
        }
        saveScreenshots("en");
        // The group buttons were relabelled too; the colourful one shows its effect buttons, which
        // get a picture per language as well.
        QRadioButton* colourful = nullptr;
        for (QRadioButton* b :
             child<QWidget>(window.controlPage(), "workGroupContainer")->findChildren<QRadioButton*>()) {
            colourful = b->text() == "Colourful" ? b : colourful;
        }
        QVERIFY(colourful);
        colourful->click();
        QVERIFY(child<QLabel>(window.controlPage(), "modelImageHeader")->text().contains(strip.id));
        const QString name = QString("screenshots/effects_%2_%1x.png").arg(qApp->devicePixelRatio());
        QTest::qWait(100);
        QVERIFY(window.grab().save(name.arg("en")));
        // No file for the source language: the translator goes and the Chinese texts come back.
        LanguageManager::instance()->setLanguage("zh");
        QTRY_COMPARE(child<QPushButton>(&window, "pushButton_home")->text(), QString("首页"));
        QVERIFY(window.grab().save(name.arg("zh")));
    }
};

QTEST_MAIN(TestOrvantaApp)
#include "tst_OrvantaApp.moc"
