#include "AbsWorkerWidget.h"
#include "ConfigurationManager.h"
#include "ControlPage.h"
#include "ControllerConfigDialog.h"
#include "FrameItem.h"
#include "GradientWidget.h"
#include "HomePage.h"
#include "LanguageManager.h"
#include "LogCapture.h"
#include "OrvantaApp.h"
#include "TestFiles.h"
#include "VirtualLedDevice.h"

#include <QtTest>
#include <QtWidgets>

#include <functional>
#include <memory>
#include <signal.h>

using Rgb = VirtualLedDevice::Rgb;

namespace {
constexpr int kFoundMs = 15000;
const QString kSingle = QStringLiteral("com.orvanta.singleColor.singleColor1");
const QString kColourful = QStringLiteral("com.orvanta.colorful");

// A virtual strip behind a stable link that the program is told to probe. "OV5512,AAAA" answers
// with the id "OV5512:41414141": the serial travels as hexadecimal.
struct Strip
{
    VirtualLedDevice device;
    QString id;

    Strip(const QString& model, const QByteArray& serial, const QString& link)
        : id(model + ':' + QString::fromLatin1(serial.toHex().toUpper()))
    {
        device.setReply(model.toLatin1() + ',' + serial + "\r\n");
        device.open(link);
    }
    Rgb first() const { return device.lastColors().value(0); }
    // Lets the strip show a few more frames.
    void watch(int frames = 4)
    {
        const int seen = device.frameCount();
        QTRY_VERIFY(device.frameCount() > seen + frames);
    }
};

// Settings stored for a device before the program starts, as a previous run would leave them:
// the model's lines and full brightness unless `values` says otherwise.
void storeDevice(const QString& id, const QJsonObject& values = {})
{
    QJsonObject& obj = ConfigurationManager::instance()->controllerJsonObj(id);
    const bool wide = id.startsWith(QLatin1String("OV5512"));
    obj.insert("nbLeds", wide ? 72 : 24);
    obj.insert("lines", wide ? QJsonArray{18, 36, 18} : QJsonArray{24});
    obj.insert("brightness", 1.0);
    for (auto it = values.begin(); it != values.end(); ++it) {
        obj.insert(it.key(), it.value());
    }
    ConfigurationManager::instance()->saveControllerJsonObj(id);
}

// The shown one where panels parked hidden on the page carry the same names.
template <typename T> T* child(QWidget* root, const char* name)
{
    const QList<T*> found = root->findChildren<T*>(QLatin1String(name));
    auto shown = std::find_if(found.begin(), found.end(), [](T* w) { return w->isVisible(); });
    return shown != found.end() ? *shown : found.value(0);
}

// Runs `answer` inside the loop of the next modal dialog of class T.
template <typename T> void onModal(QObject* owner, std::function<void(T*)> answer)
{
    auto* poll = new QTimer(owner);
    QObject::connect(poll, &QTimer::timeout, owner, [poll, answer] {
        if (auto* dialog = qobject_cast<T*>(QApplication::activeModalWidget())) {
            poll->stop();
            poll->deleteLater();
            answer(dialog);
        }
    });
    poll->start(10);
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

    ControlPage* page() { return app->window().controlPage(); }
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
        QCOMPARE(stack()->currentWidget(), page());
    }

    // The group's button, then the effect's, as the user picks them on the control page.
    void choose(const QString& effectId)
    {
        const QString effect = app->effects().workerOptions(effectId).desc;
        for (const QString& tip : {app->effects().group(effectId.section('.', 0, -2)).desc,
                                   QCoreApplication::translate("EffectNames", qPrintable(effect))}) {
            for (QRadioButton* b : page()->findChildren<QRadioButton*>()) {
                if (b->toolTip() == tip) {
                    b->click(); // a group's click makes the effect buttons anew
                    break;
                }
            }
        }
        QCOMPARE(page()->currentWorkerId(), effectId);
    }

    QJsonObject stored(const QString& id)
    {
        ConfigurationManager::instance()->save();
        return TestFiles::readJson(ConfigurationManager::instance()->configPath() + "/controllers/" +
                                   QUrl::toPercentEncoding(id) + ".json");
    }

    // For a person to look at, in the build folder.
    void screenshot(const QString& name)
    {
        for (int i = 0; i < 3; ++i) { // buttons of a shown page appear and lay out through queued calls
            QCoreApplication::processEvents();
        }
        QVERIFY(QDir().mkpath("screenshots"));
        QVERIFY(app->window().grab().save(
            QString("screenshots/%1_%2x.png").arg(name).arg(app->window().devicePixelRatioF())));
    }

private slots:
    void initTestCase()
    {
        // The program's data as installed beside it: groups, pictures, model defaults, languages.
        for (const char* folder : {"effects", "images", "controler_config", "languages"}) {
            QVERIFY(TestFiles::copyTree(QStringLiteral(ORVANTA_BIN_DIR "/") + folder, folder));
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
            storeDevice(strip.id, {{"workMode", kColourful}, {"subMode", storedEffect}});
        }
        QVERIFY(start(1));
        QCOMPARE(app->devices().controlOptions(strip.id).subMode, expected);
        QCOMPARE(stored(strip.id).value("subMode").toString(), expected);
        QTRY_VERIFY_WITH_TIMEOUT(strip.device.frameCount() > 2 && strip.device.lastCount() == 72, kFoundMs);
        // Announced again: the device is bound anew and keeps running.
        emit app->devices().newController(strip.id);
        strip.watch(2);
        QCOMPARE(app->devices().controlOptions(strip.id).subMode, expected);
    }

    // Lines that do not add up to the LED count: the strip dialog at arrival, every line lit in its
    // colour while the user types; a cancel releases the device.
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
        storeDevice(strip.id, {{"nbLeds", 60}, {"lines", QJsonArray{30, 20}}});
        LogCapture log;
        bool sawDialog = false;
        onModal<ControllerConfigDialog>(this, [&](ControllerConfigDialog* dialog) {
            sawDialog = true;
            auto finish = qScopeGuard([&] { accept ? dialog->accept() : dialog->reject(); });
            for (int i = 1; i <= 3; ++i) {
                child<QPushButton>(dialog, "addBtn")->click();
                dialog->findChildren<QSpinBox*>().value(i - 1)->setValue(10 * i);
            }
            QTRY_COMPARE(strip.device.lastColors().value(59), (Rgb{255, 165, 0}));
            QCOMPARE(strip.device.lastColors()[0], (Rgb{255, 0, 0}));
            QCOMPARE(strip.device.lastColors()[10], (Rgb{0, 128, 0}));
            // Lowered: the frame keeps its 60 LEDs, the dropped ones dark.
            dialog->findChildren<QSpinBox*>()[2]->setValue(5);
            QTRY_COMPARE(strip.device.lastColors().value(35), (Rgb{0, 0, 0}));
            QCOMPARE(strip.device.lastCount(), uint16_t(60));
            QCOMPARE(strip.device.lastColors()[34], (Rgb{255, 165, 0}));
        });
        start(0);
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

    // The pages drive the device: rename, brightness, on/off, direction, group and effect; all of
    // it survives a restart.
    void pagesDriveTheDevice()
    {
        Strip strip("OV2408", "CCCC", link("strip1"));
        storeDevice(strip.id);
        ConfigurationManager::instance()->setEffectVariant(kSingle, strip.id, "color",
                                                           QColor(200, 100, 40).rgb());
        QVERIFY(start(1));
        QTRY_COMPARE(strip.first(), (Rgb{200, 100, 40}));
        // Rename in the lowest strip of the device button; the page does not open.
        QToolButton* button = deviceButton(strip.id);
        QTest::mouseClick(button, Qt::LeftButton, {}, QPoint(button->width() / 2, button->height() - 5));
        auto* edit = button->findChild<QLineEdit*>();
        edit->selectAll();
        QTest::keyClicks(edit, "Desk");
        QTest::keyClick(edit, Qt::Key_Return);
        QCOMPARE(stack()->currentWidget(), app->window().homePage());

        openDevice(strip.id);
        child<QSlider>(page(), "brightnessSlider")->setValue(50);
        QTRY_COMPARE(strip.first(), (Rgb{100, 50, 20}));
        child<QRadioButton>(page(), "installDirectionRTLButton")->click();
        child<QRadioButton>(page(), "LEDDisableButton")->click();
        QTRY_COMPARE(strip.first(), (Rgb{0, 0, 0}));
        child<QRadioButton>(page(), "LEDEnableButton")->click();
        choose("com.orvanta.colorful.ColorMap_5");

        stop();
        QVERIFY(start(1));
        const ControlOptions options = app->devices().controlOptions(strip.id);
        QCOMPARE(options.kindName, QString("Desk"));
        QCOMPARE(options.brightness, 0.5f);
        QCOMPARE(options.installDirection, 1u);
        QCOMPARE(options.subMode, QString("com.orvanta.colorful.ColorMap_5"));
    }

    // The colour panels drive the strip shown, and only that one; the program itself starts again
    // on what they set.
    void colourPanelsDriveTheStrip()
    {
        Strip a("OV2408", "AAAA", link("strip1"));
        Strip b("OV2408", "BBBB", link("strip2"));
        storeDevice(a.id);
        storeDevice(b.id);
        QVERIFY(start(2));
        auto box = [&](const char* name) { return child<QSpinBox>(page(), name); };
        openDevice(a.id);
        box("Rbox")->setValue(10);
        box("Gbox")->setValue(20);
        box("Bbox")->setValue(30);
        QTRY_COMPARE(a.first(), (Rgb{10, 20, 30}));
        // The wheel's ring at the top: hue 90, the saturation and value the boxes gave.
        auto* wheel = child<QWidget>(page(), "colorWheel");
        QTest::mouseClick(wheel, Qt::LeftButton, {}, QPoint(wheel->width() / 2, 5));
        const QColor turned =
            QColor::fromHsv(90, QColor(10, 20, 30).saturation(), QColor(10, 20, 30).value());
        QTRY_COMPARE(a.first(),
                     (Rgb{uint8_t(turned.red()), uint8_t(turned.green()), uint8_t(turned.blue())}));
        QCOMPARE(box("Gbox")->value(), turned.green());
        // The dialog, over the main window: a chosen colour reaches the strip; a cancel changes nothing.
        int answered = 0;
        for (const QColor& answer : {QColor(0, 128, 255), QColor()}) {
            onModal<QColorDialog>(this, [&](QColorDialog* dialog) {
                answered += dialog->parentWidget() == &app->window();
                dialog->setCurrentColor(answer);
                answer.isValid() ? dialog->accept() : dialog->reject();
            });
            QTest::mouseClick(child<QPushButton>(page(), "selectColorBtn"), Qt::LeftButton);
            a.watch();
            QCOMPARE(a.first(), (Rgb{0, 128, 255}));
        }
        QCOMPARE(answered, 2);
        // The shared panel now points at b: a's strip keeps its colour.
        openDevice(b.id);
        box("Rbox")->setValue(200);
        QTRY_COMPARE(b.first().r, uint8_t(200));
        a.watch();
        QCOMPARE(a.first(), (Rgb{0, 128, 255}));

        // The mood shadow's straps: one added and removed again, never below one.
        choose("com.orvanta.colorful.moodShadow");
        auto* straps = child<QComboBox>(page(), "colorStrapBox");
        auto* remove = child<QPushButton>(page(), "rmBtn");
        const int rows = straps->count();
        child<QPushButton>(page(), "addBtn")->click();
        QCOMPARE(straps->currentIndex(), rows);
        for (int i = 0; i < rows; ++i) {
            QVERIFY(remove->isEnabled());
            remove->click();
        }
        QCOMPARE(straps->count(), 1);
        QVERIFY(!remove->isEnabled());
        // A key put on the bar reaches the strip: speed 0, range 1, one green key in white.
        child<QSlider>(page(), "speedSlider")->setValue(0);
        child<QSlider>(page(), "rangeSlider")->setValue(1000);
        auto* bar = child<GradientWidget>(page(), "gradientEditor");
        bar->setKeyColors({});
        bar->setEndsColor(Qt::white);
        bar->addKeyColor(Qt::green, 0.5);
        auto greenShown = [&] {
            const QVector<Rgb> leds = b.device.lastColors();
            return std::any_of(leds.begin(), leds.end(),
                               [](Rgb c) { return c.g > 200 && c.r < 60 && c.b < 60; });
        };
        QTRY_VERIFY(greenShown());

        // Both come back from the store.
        stop();
        QVERIFY(start(2));
        QTRY_VERIFY(a.first() == (Rgb{0, 128, 255}) && greenShown());
    }

    // The speed sliders, read off the first LED of consecutive frames. The rainbow's hue moves by
    // the slider's value times 0.0005 a frame, whatever the time between frames. The colour map
    // plays a picture whose rows are a ramp, so the LED names the row: rows per second against the
    // frames' own arrival times, fitted over a run of frames so that a late one hardly tilts it.
    void speedSliders_data()
    {
        QTest::addColumn<QString>("effect");
        QTest::addColumn<int>("slider");
        QTest::addColumn<double>("expected");
        QTest::newRow("rainbow 0 stands still") << "flowingEffect" << 0 << 0.0;
        QTest::newRow("rainbow 100") << "flowingEffect" << 100 << 0.05;
        QTest::newRow("colour map 0") << "ColorMap_7" << 0 << 15.0;
        QTest::newRow("colour map 100") << "ColorMap_7" << 100 << 30.0;
        QTest::newRow("colour map 200") << "ColorMap_7" << 200 << 120.0;
    }
    void speedSliders()
    {
        QFETCH(QString, effect);
        QFETCH(int, slider);
        QFETCH(double, expected);
        QImage ramp(8, 256, QImage::Format_RGB32);
        for (int y = 0; y < ramp.height(); ++y) {
            std::fill_n(reinterpret_cast<QRgb*>(ramp.scanLine(y)), ramp.width(), qRgb(y, 0, 0));
        }
        QVERIFY(ramp.save("effects/colorful/ColorMap_7.png"));
        Strip strip("OV2408", "AAAA", link("strip1"));
        storeDevice(strip.id, {{"workMode", kColourful}, {"subMode", QString(kColourful + '.' + effect)}});
        QVERIFY(start(1));
        openDevice(strip.id);
        child<QSlider>(page(), "speedSlider")->setValue(slider);
        strip.watch(1); // frames already on their way at the old speed
        QVector<QPair<double, Rgb>> seen;
        QObject context;
        connect(&strip.device, &VirtualLedDevice::frameReceived, &context, [&] {
            seen.append({strip.device.lastFrameTimeNs() / 1e9, strip.first()});
        });
        QTRY_VERIFY_WITH_TIMEOUT(seen.size() > 40 && seen.last().first - seen.first().first > 1.5, 20000);

        QVector<double> steps; // the median: a frame the port dropped or the reset at a full turn is rare
        double rows = 0, sx = 0, sy = 0, sxx = 0, sxy = 0;
        for (int i = 1; i < seen.size(); ++i) {
            const double hue = QColor(seen[i].second.r, seen[i].second.g, seen[i].second.b).hueF();
            const double before =
                QColor(seen[i - 1].second.r, seen[i - 1].second.g, seen[i - 1].second.b).hueF();
            steps << hue - before + (hue < before - 0.5 ? 1.0 : 0.0);
            rows += (seen[i].second.r - seen[i - 1].second.r + 256) % 256;
            const double t = seen[i].first - seen[0].first;
            sx += t;
            sy += rows;
            sxx += t * t;
            sxy += t * rows;
        }
        std::sort(steps.begin(), steps.end());
        const int n = seen.size() - 1;
        const bool rainbow = effect == "flowingEffect";
        const double measured = rainbow ? steps[n / 2] : (n * sxy - sx * sy) / (n * sxx - sx * sx);
        QVERIFY2(qAbs(measured - expected) <= (rainbow ? 0.003 : expected * 0.2),
                 qPrintable(QString::number(measured)));
        // The six colour maps share the one panel.
        for (int i = 4; i <= 8; ++i) {
            QCOMPARE(
                app->effects().workerOptions(QString("com.orvanta.colorful.ColorMap_%1").arg(i)).optionWidget,
                app->effects().workerOptions("com.orvanta.colorful.ColorMap_3").optionWidget);
        }
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
        storeDevice(
            b.id,
            {{"brightness", 0.05}, {"workMode", kColourful}, {"subMode", "com.orvanta.colorful.moodShadow"}});
        storeDevice(c.id, {{"brightness", 0.5}});
        QVERIFY(start(3));
        EffectsManager& effects = app->effects();
        auto options = [&](const Strip& s) { return app->devices().controlOptions(s.id); };
        // The devices differ, so the step starts from the screen group; all alike then, one step
        // back puts every device on that group's default.
        const QString afterScreen = effects.nextGroup("com.orvanta.screenSync");
        app->switchGroup([&](const QString& g) { return effects.nextGroup(g); });
        QVERIFY(options(a).workMode == afterScreen && options(b).workMode == afterScreen &&
                options(c).workMode == afterScreen);
        const QString back = effects.defaultEffect(effects.previousGroup(afterScreen));
        app->switchGroup([&](const QString& g) { return effects.previousGroup(g); });
        QVERIFY(options(a).subMode == back && options(b).subMode == back && options(c).subMode == back);

        openDevice(a.id);
        app->stepBrightness(0.1f);
        QCOMPARE(options(a).brightness, 1.0f);
        QCOMPARE(child<QSlider>(page(), "brightnessSlider")->value(), 100);
        app->stepBrightness(-0.1f);
        app->stepBrightness(-0.1f);
        QCOMPARE(options(b).brightness, 0.0f);
        QVERIFY(qAbs(options(c).brightness - 0.4f) < 1e-6f);

        // An empty device list changes nothing and says so.
        stop();
        for (Strip* s : {&a, &b, &c}) {
            s->device.close();
        }
        LogCapture log;
        QVERIFY(start(0));
        app->switchGroup([&](const QString& g) { return effects.nextGroup(g); });
        QVERIFY(log.contains("[OrvantaApp]: The controller list is empty", QtCriticalMsg));
    }

    // Started for the tray the window stays hidden; a second start shows a hidden window and leaves
    // a minimised one; the tray's quit ends the loop, the strip goes dark and the state is saved.
    void windowLife()
    {
        Strip strip("OV5512", "EEEE", link("strip1"));
        qApp->setProperty("isAutoStartup", true);
        QVERIFY(start(1));
        qApp->setProperty("isAutoStartup", false);
        MainWindow& window = app->window();
        QVERIFY(!window.isVisible() || window.isMinimized());
        window.hide();
        app->onShowRequested();
        QVERIFY(window.isVisible() && !window.isMinimized());
        window.showMinimized();
        app->onShowRequested();
        QVERIFY(window.isMinimized());

        LogCapture log;
        QTimer::singleShot(0, window.findChild<QMenu*>()->actions().last(), &QAction::trigger);
        QCOMPARE(QCoreApplication::exec(), 0);
        QVERIFY(log.contains("[OrvantaApp]: The application is exiting..."));
        stop();
        QTRY_COMPARE(strip.first(), (Rgb{0, 0, 0}));
        QCOMPARE(stored(strip.id).value("subMode").toString(), kSingle);
    }

    // English relabels the open window at once and every catalogue name has its English. Each
    // panel comes into view on the control page, in English without a Chinese text; the layout
    // editor takes the right part for full screen only. Pictures of the window with each.
    void languageAndPanels()
    {
        Strip strip("OV5512", "FFFF", link("strip1"));
        QVERIFY(start(1));
        MainWindow& window = app->window();
        window.showNormal();
        LanguageManager::instance()->setLanguage("en");
        QTRY_COMPARE(child<QPushButton>(&window, "pushButton_home")->text(), QString("Home"));
        // Setting a button's text drops its shortcut: relabelling must set it again.
        QCOMPARE(child<QPushButton>(&window, "pushButton_home")->shortcut(), QKeySequence("Alt+H"));
        QCOMPARE(window.findChild<QMenu*>()->actions().last()->text(), QString("Quit"));
        QCOMPARE(child<QLabel>(page(), "brightnessHeader")->text(), QString("  Brightness"));
        QCOMPARE(child<QLabel>(window.homePage(), "label_3")->text(), QString("Lighting devices"));
        QCOMPARE(window.windowTitle(), QString("Orvanta"));
        // Group and effect names come from data.
        for (const QString& groupId : app->effects().groupIds()) {
            const EffectGroup group = app->effects().group(groupId);
            QStringList names{QCoreApplication::translate("GroupInformation", qPrintable(group.name))};
            for (const QString& effectId : group.effects) {
                const QString name = app->effects().workerOptions(effectId).name;
                names << QCoreApplication::translate("EffectNames", qPrintable(name));
            }
            QVERIFY2(!names.join(' ').contains(QRegularExpression("[\\x{4e00}-\\x{9fff}]")),
                     qPrintable(names.join(' ')));
        }

        auto* right = child<QStackedWidget>(page(), "lOperateWidConatiner");
        QWidget* view = child<QScrollArea>(page(), "scrollArea")->viewport();
        for (const QString language : {"en", "zh"}) {
            LanguageManager::instance()->setLanguage(language);
            stack()->setCurrentWidget(window.homePage());
            QTRY_VERIFY(deviceButton(strip.id)->isVisible());
            // The dark theme reached the window: the device panel's ground.
            QCOMPARE(window.grab().toImage().pixelColor(QPoint(1200, 300) * window.devicePixelRatioF()),
                     QColor(34, 34, 34));
            screenshot("home_" + language);
            openDevice(strip.id);
            for (const char* effectId :
                 {"com.orvanta.singleColor.singleColor1", "com.orvanta.colorful.flowingEffect",
                  "com.orvanta.colorful.ColorMap_3", "com.orvanta.colorful.moodShadow",
                  "com.orvanta.screenSync.topHalfScreen", "com.orvanta.screenSync.fullScreen",
                  "com.orvanta.dynamicMusic.mode_1", "com.orvanta.dynamicMusic.mode_2"}) {
                choose(effectId);
                const EffectWorkerOptions record = app->effects().workerOptions(effectId);
                QWidget* panel = record.optionWidget;
                QTRY_VERIFY(panel->isVisible() &&
                            view->rect().contains(panel->mapTo(view, panel->rect().bottomLeft())));
                QCOMPARE(right->currentWidget(), record.extraOptionWidget
                                                     ? record.extraOptionWidget
                                                     : child<QWidget>(page(), "productImgWid"));
                QStringList texts;
                for (QWidget* w :
                     panel->findChildren<QWidget*>() +
                         (record.extraOptionWidget ? record.extraOptionWidget->findChildren<QWidget*>()
                                                   : QList<QWidget*>())) {
                    texts << w->property("text").toString();
                }
                QVERIFY2(language == "zh" ||
                             !texts.join(' ').contains(QRegularExpression("[\\x{4e00}-\\x{9fff}]")),
                         qPrintable(texts.join(' ')));
                if (record.extraOptionWidget) { // the editor on a live frame
                    FrameItem* frame = nullptr;
                    for (QGraphicsItem* item :
                         record.extraOptionWidget->findChild<QGraphicsView*>()->items()) {
                        frame = frame ? frame : dynamic_cast<FrameItem*>(item);
                    }
                    QVERIFY(frame);
                    QTRY_VERIFY(!frame->frame.isNull());
                }
                screenshot(QString("panel_%1_%2").arg(QString(effectId).section('.', -1), language));
            }
        }
    }
};

QTEST_MAIN(TestOrvantaApp)
#include "tst_OrvantaApp.moc"
