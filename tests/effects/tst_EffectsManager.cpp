#include "DeviceRig.h"
#include "LogCapture.h"
#include "PrivateXServer.h"
#include "RecordingController.h"
#include "TestFiles.h"
#include "devices/OVSerialPort.h"
#include "effects/EffectsManager.h"
#include "effects/colorful/FlowingEffect.h"
#include "effects/colorful/MoodShadow.h"
#include "effects/colorful/SingleColor.h"
#include "effects/colorful/panels/SFrmColorMap.h"
#include "effects/panels/AbsWorkerWidget.h"
#include "effects/panels/EffectPanelMaker.h"
#include "service/config/ConfigurationManager.h"

#include <QApplication>
#include <QComboBox>
#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QPointer>
#include <QProcess>
#include <QPushButton>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QSlider>
#include <QSpinBox>
#include <QtTest>

#include <signal.h>

using Rgbs = QVector<VirtualLedDevice::Rgb>;
Q_DECLARE_METATYPE(Rgbs)

namespace {

const QString kSingle = "com.orvanta.singleColor.singleColor1";
const QString kColorful = "com.orvanta.colorful", kScreen = "com.orvanta.screenSync",
              kMusic = "com.orvanta.dynamicMusic";

const QByteArray fourGroups = R"({"groups": [
    {"id": "com.orvanta.singleColor", "name": "单色模式", "desc": "one colour", "icon": "nowhere.png",
     "defaultEffect": "com.orvanta.singleColor.singleColor1", "order": 0},
    {"id": "com.orvanta.colorful", "name": "炫彩模式", "defaultEffect": "com.orvanta.colorful.flowingEffect",
     "order": 1},
    {"id": "com.orvanta.screenSync", "name": "屏幕同步", "defaultEffect": "com.orvanta.screenSync.fullScreen",
     "order": 2},
    {"id": "com.orvanta.dynamicMusic", "name": "音乐律动", "defaultEffect": "com.orvanta.dynamicMusic.mode_2",
     "order": 3}
]})";

QString effectsDir()
{
    return QCoreApplication::applicationDirPath() + "/effects";
}

// Replaces the effects folder beside the test program by the four groups and the given files.
void populate(const QMap<QString, QByteArray>& files = {}, bool withPlugin = false)
{
    QDir(effectsDir()).removeRecursively();
    QVERIFY(TestFiles::write(effectsDir() + "/groups.json", fourGroups));
    for (auto it = files.constBegin(); it != files.constEnd(); ++it) {
        QVERIFY(TestFiles::write(effectsDir() + "/" + it.key(), it.value()));
    }
    if (withPlugin) {
        QVERIFY(QFile::copy(TEST_PLUGIN_PATH, effectsDir() + "/test_effect_plugin.so"));
    }
}

QSharedPointer<RecordingController> makeController(const QString& id)
{
    return QSharedPointer<RecordingController>(new RecordingController(id, 4, {4}), &QObject::deleteLater);
}

const QString kMood = "com.orvanta.colorful.moodShadow";
const QByteArray twoStraps = R"({"colorStrapList": [
    {"name": "A", "uuid": "{11111111-1111-1111-1111-111111111111}", "keyColors": []},
    {"name": "B", "uuid": "{22222222-2222-2222-2222-222222222222}", "keyColors": []}]})";

// A serial controller on the port of a virtual strip, as discovery makes it.
QSharedPointer<OVController> serialController(const QString& port)
{
    ControlOptions options = DeviceRig::defaultOptions(6);
    options.portName = port;
    auto* serial = new OVSerialPort();
    serial->open(port);
    QSharedPointer<OVController> controller(new OVController(options, serial), &QObject::deleteLater);
    controller->updateFrameHeader();
    return controller;
}

// A stored value as the next start reads it from disk: `path` through objects and arrays.
QJsonValue onDisk(const QString& file, const QString& path)
{
    ConfigurationManager::instance()->flush();
    QJsonValue value = TestFiles::readJson(ConfigurationManager::instance()->configPath() + "/" + file);
    for (const QString& step : path.split('/')) {
        value = value.isArray() ? value.toArray().at(step.toInt()) : value.toObject().value(step);
    }
    return value;
}

// The child's part of the kill tests: single colour on the strip behind `port`, set to red
// through its panel; then it runs until it is killed.
int setRedAndWait(const QString& port)
{
    EffectsManager manager;
    auto controller = serialController(port);
    manager.bind(controller, kSingle);
    manager.activeOperate(controller->controlOptions().id, kSingle);
    AbsWorkerWidget* panel = manager.workerOptions(kSingle).optionWidget;
    for (const char* box : {"Rbox", "Gbox", "Bbox"}) {
        panel->findChild<QSpinBox*>(box)->setValue(box[0] == 'R' ? 255 : 0);
    }
    return QCoreApplication::exec();
}

} // namespace

class TestEffectsManager : public QObject
{
    Q_OBJECT
private slots:
    void init() { ConfigurationManager::instance()->reset(); }
    void cleanup() { TestFiles::flushDeletes(); }

    void missingEffectsFolder()
    {
        QDir(effectsDir()).removeRecursively();
        QTest::ignoreMessage(QtCriticalMsg, "找不到<effects>文件夹，无法加载工作组信息。");
        QTest::ignoreMessage(QtCriticalMsg, "找不到<effects>文件夹，无法加载外部工作模式。");
        QTest::ignoreMessage(QtCriticalMsg,
                             QRegularExpression("^Not found group for the effect worker: com\\.orvanta\\."));
        EffectsManager manager;
        // The built-in effects keep groups made for them, reachable by neither next nor previous.
        QVERIFY(manager.hasWorker("com.orvanta.colorful.moodShadow"));
        const EffectGroup made = manager.group(kColorful);
        QCOMPARE(made.name, kColorful);
        QCOMPARE(made.order, 0);
        QTest::ignoreMessage(QtCriticalMsg, "[EffectManager]: Not found group order: com.orvanta.colorful");
        QCOMPARE(manager.nextGroup(kColorful), manager.groupIds().first());
    }

    // One more file beside the four groups: a failure costs that file or element only, and a
    // group's first definition stands.
    void groupFiles_data()
    {
        QTest::addColumn<QString>("file");
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<int>("level");
        QTest::addColumn<QString>("message");
        QTest::addColumn<QString>("afterMusic"); // nextGroup of the last of the four
        const QString single = "com.orvanta.singleColor";
        // Failing files sort first, so the good one is read after them.
        QTest::newRow("not JSON") << "a.json" << QByteArray("{\"groups\": [") << int(QtCriticalMsg)
                                  << "^无法解析组配置信息Json文件 " << single;
        // Other data in the folder, such as the strap defaults: passed over quietly.
        QTest::newRow("no groups key")
            << "a.json" << QByteArray("{\"colorStrapList\": []}") << int(QtDebugMsg)
            << "^\\[EffectsManager\\]: Not a group file, skipped: .*/a\\.json$" << single;
        QTest::newRow("element without id")
            << "a.json" << QByteArray(R"({"groups": [{"name": "n", "order": 9}]})") << int(QtWarningMsg)
            << "^不正确的组信息格式$" << single;
        QTest::newRow("duplicate id")
            << "z.json" << QByteArray(R"({"groups": [{"id": "com.orvanta.colorful", "order": 7}]})")
            << int(QtWarningMsg) << "^已跳过已存在的组信息 com\\.orvanta\\.colorful$" << single;
        // A taken order: the group lands where the hash of its id puts it, which is never 0 to 3.
        QTest::newRow("order conflict")
            << "z.json" << QByteArray(R"({"groups": [{"id": "com.orvanta.extra", "order": 1}]})")
            << int(QtWarningMsg)
            << "^\\[EffectManager\\]: Group order conflict: com\\.orvanta\\.extra\\. The order already "
               "exists: 炫彩模式$"
            << "com.orvanta.extra";
    }

    void groupFiles()
    {
        QFETCH(QString, file);
        QFETCH(QByteArray, content);
        QFETCH(int, level);
        QFETCH(QString, message);
        QFETCH(QString, afterMusic);
        populate({{file, content}});
        QTest::ignoreMessage(QtMsgType(level), QRegularExpression(message));
        EffectsManager manager;
        QCOMPARE(manager.group(kColorful).name, QString("炫彩模式"));
        QCOMPARE(manager.nextGroup(kMusic), afterMusic);
        if (manager.groupIds().contains("com.orvanta.extra")) {
            QCOMPARE(manager.group("com.orvanta.extra").order,
                     int32_t(qHash(QString("com.orvanta.extra"), 0)));
        }
    }

    void groupsFromFile()
    {
        populate();
        QTest::ignoreMessage(QtDebugMsg, "成功载入了 4 个组信息");
        EffectsManager manager;
        QCOMPARE(manager.groupIds(), QStringList({kColorful, kMusic, kScreen, "com.orvanta.singleColor"}));
        const EffectGroup single = manager.group("com.orvanta.singleColor");
        QCOMPARE(single.desc, QString("one colour"));
        QVERIFY(single.icon.isNull()); // a bad path, and no message for it
        QCOMPARE(single.effects, QSet<QString>({kSingle}));
        // No "desc": the translated name stands in.
        QCOMPARE(manager.group(kColorful).desc, QString("炫彩模式"));
        QCOMPARE(manager.group(kColorful).effects.size(), 8);
        QCOMPARE(manager.defaultEffect(kMusic), QString("com.orvanta.dynamicMusic.mode_2"));
        // Display order, wrapping both ways.
        QCOMPARE(manager.nextGroup(kScreen), kMusic);
        QCOMPARE(manager.nextGroup(kMusic), QString("com.orvanta.singleColor"));
        QCOMPARE(manager.previousGroup("com.orvanta.singleColor"), kMusic);
        QCOMPARE(manager.previousGroup(kMusic), kScreen);
        QTest::ignoreMessage(QtCriticalMsg, "[EffectManager]: Not found group info: com.orvanta.none");
        QCOMPARE(manager.previousGroup("com.orvanta.none"), kColorful);
    }

    void lastBindingRules()
    {
        populate();
        EffectsManager manager;
        QCOMPARE(manager.lastBinding("", ""), kSingle);
        QCOMPARE(manager.lastBinding("x", ""), kSingle);
        QCOMPARE(manager.lastBinding("", kColorful), kColorful + ".flowingEffect");
        QCOMPARE(manager.lastBinding("x", kColorful), kColorful + ".flowingEffect");
        // A stored value wins and is not checked against the catalogue.
        ConfigurationManager::instance()->setGlobalValue(QStringList{"lastBinding", "x", kColorful},
                                                         "com.orvanta.colorful.gone");
        QCOMPARE(manager.lastBinding("x", kColorful), QString("com.orvanta.colorful.gone"));
        // bind remembers per controller and group.
        auto ctl = makeController("y");
        QVERIFY(manager.bind(ctl, "com.orvanta.colorful.ColorMap_5"));
        QCOMPARE(
            ConfigurationManager::instance()->globalValue("lastBinding/y/com.orvanta.colorful").toString(),
            QString("com.orvanta.colorful.ColorMap_5"));
        QCOMPARE(manager.lastBinding("y", kColorful), QString("com.orvanta.colorful.ColorMap_5"));
        QCOMPARE(manager.lastBinding("y", kScreen), QString("com.orvanta.screenSync.fullScreen"));
        manager.unbind("y");
    }

    // A plug-in factory's effect joins the catalogue and reaches the controller; the built-in
    // factory, registered last, replaces a plug-in record of the same id; a broken file is skipped.
    void pluginFactories()
    {
        populate({{"aaa_broken.so", "not a library"}}, true);
        QTest::ignoreMessage(QtCriticalMsg,
                             QRegularExpression("^从QPluginLoader载入实例 .*/aaa_broken\\.so 失败："));
        QTest::ignoreMessage(QtCriticalMsg,
                             "Not found group for the effect worker: com.orvanta.plugin.fixedColor");
        EffectsManager manager;
        QCOMPARE(manager.workerOptions("com.orvanta.plugin.fixedColor").name, QString("plug-in colour"));
        QCOMPARE(manager.group("com.orvanta.plugin").effects,
                 QSet<QString>({"com.orvanta.plugin.fixedColor"}));
        QCOMPARE(manager.workerOptions(kColorful + ".flowingEffect").name, QString("流光异彩"));
        auto ctl = makeController("p");
        QVERIFY(qobject_cast<FlowingEffect*>(manager.bind(ctl, kColorful + ".flowingEffect").data()));
        QVERIFY(manager.bind(ctl, "com.orvanta.plugin.fixedColor"));
        QCOMPARE(ctl->frames.last().value(0).value(0), (OV_RGB{5, 10, 15})); // brightness 0.5
        manager.unbind("p");
    }

    void bindConnectsBothWays()
    {
        populate();
        EffectsManager manager;
        auto ctl = makeController("c1");
        QTest::ignoreMessage(QtInfoMsg, "c1 已经绑定到 com.orvanta.singleColor.singleColor1");
        QVERIFY(manager.bind(ctl, kSingle));
        // load ran at once: the white frame is already at the controller, at brightness 0.5.
        QCOMPARE(ctl->frames.last().value(0), QVector<OV_RGB>(4, OV_RGB{127, 127, 127}));
        // The controller's changes reach the worker: a mood shadow follows the install direction.
        auto* shadow = qobject_cast<MoodShadow*>(manager.bind(ctl, "com.orvanta.colorful.moodShadow").data());
        QVERIFY(shadow);
        ctl->setInstallDirection(1);
        shadow->tick(0.1);
        QVERIFY(shadow->currentPhase() > 0.5); // went backwards from 0 and wrapped
        QTest::ignoreMessage(QtInfoMsg, "c1 与 com.orvanta.colorful.moodShadow 解绑");
        manager.unbind("c1");
        const int frames = ctl->frames.size();
        shadow->tick(0.1);
        QCOMPARE(ctl->frames.size(), frames);
    }

    void bindUnknownEffectReleasesOldWorker()
    {
        populate();
        EffectsManager manager;
        auto ctl = makeController("c2");
        QPointer<IEffectWorker> old = manager.bind(ctl, kSingle).data();
        qobject_cast<SingleColor*>(old.data())->setColor(QColor(1, 2, 3));
        QTest::ignoreMessage(
            QtCriticalMsg,
            "[EffectsManager]: Not found worker factory for this effect, id: com.orvanta.none.x");
        QVERIFY(!manager.bind(ctl, "com.orvanta.none.x"));
        QCOMPARE(ConfigurationManager::instance()->effectVariant(kSingle, "c2", "color").toUInt(),
                 QColor(1, 2, 3).rgb());
        TestFiles::flushDeletes();
        QVERIFY(old.isNull());
        QTest::ignoreMessage(QtWarningMsg, "尝试解绑了一个未绑定的控制器 c2");
        manager.unbind("c2");
        QTest::ignoreMessage(QtCriticalMsg, "[EffectsManager]: Cannot binding, ctlId: c2   effectId: x.y");
        manager.activeOperate("c2", "x.y");
    }

    // The new worker loads what the old one saved on its way out.
    void rebindSameEffectSavesFirst()
    {
        populate();
        EffectsManager manager;
        auto ctl = makeController("c3");
        IEffectWorkerPtr first = manager.bind(ctl, kSingle);
        qobject_cast<SingleColor*>(first.data())->setColor(QColor(200, 100, 50));
        IEffectWorkerPtr second = manager.bind(ctl, kSingle);
        QVERIFY(second != first);
        QCOMPARE(qobject_cast<SingleColor*>(second.data())->currentColor(), QColor(200, 100, 50));
        manager.unbind("c3");
    }

    // The panel's slider: two straight pieces that meet at 100.
    void colorMapSlider_data()
    {
        QTest::addColumn<int>("value");
        QTest::addColumn<double>("speed");
        QTest::newRow("0") << 0 << 0.5;
        QTest::newRow("99") << 99 << 0.995;
        QTest::newRow("100") << 100 << 1.0;
        QTest::newRow("200") << 200 << 4.0;
    }

    void colorMapSlider()
    {
        QFETCH(int, value);
        QFETCH(double, speed);
        QVERIFY(qAbs(SFrmColorMap::speedOf(value) - speed) < 1e-9);
        QCOMPARE(SFrmColorMap::valueOf(SFrmColorMap::speedOf(value)), value);
    }

    // The six colour maps share one panel, pointed at the worker of the device on screen.
    void panelsFollowBindings()
    {
        populate();
        EffectsManager manager;
        const QString map = "com.orvanta.colorful.ColorMap_4";
        AbsWorkerWidget* panel = manager.workerOptions(map).optionWidget;
        QCOMPARE(manager.workerOptions("com.orvanta.colorful.ColorMap_8").optionWidget, panel);
        QSignalSpy changed(panel, &AbsWorkerWidget::effectWorkerChanged);
        IEffectWorkerPtr workerA = manager.bind(makeController("a"), map);
        IEffectWorkerPtr workerB = manager.bind(makeController("b"), map);
        manager.activeOperate("a", map);
        QCOMPARE(panel->effectWorker(), workerA);
        manager.activeOperate("b", map);
        manager.activeOperate("b", map); // the same worker: no refill
        QCOMPARE(panel->effectWorker(), workerB);
        QCOMPARE(changed.count(), 2);
        // Unbinding lets go of the panel: a null worker, and no signal for it.
        manager.unbind("b");
        QVERIFY(panel->effectWorker().isNull());
        QCOMPARE(changed.count(), 2);
        manager.unbind("a");
    }

    // A panel handed a worker of another class, or none, changes nothing through any control;
    // the panels that check their cast say so.
    void panelsOnAForeignWorker_data()
    {
        QTest::addColumn<QString>("effect");
        QTest::addColumn<bool>("extra");
        QTest::addColumn<QString>("line");
        QTest::newRow("single colour") << kSingle << false << QString();
        QTest::newRow("rainbow") << kColorful + ".flowingEffect" << false
                                 << "[FrmFlowingEffect]: The worker is empty.";
        QTest::newRow("colour map") << "com.orvanta.colorful.ColorMap_3" << false
                                    << "[SFrmColorMap]: The worker is empty.";
        QTest::newRow("mood shadow") << "com.orvanta.colorful.moodShadow" << false
                                     << "[SFrmMoodShadow]: The worker is empty.";
        QTest::newRow("screen") << "com.orvanta.screenSync.topHalfScreen" << false << QString();
        QTest::newRow("layout editor")
            << "com.orvanta.screenSync.fullScreen" << true << "[SSLOptWidget]: The worker is nullptr";
        QTest::newRow("music") << "com.orvanta.dynamicMusic.mode_1" << false << QString();
        QTest::newRow("music mood") << "com.orvanta.dynamicMusic.mode_2" << false << QString();
    }

    void panelsOnAForeignWorker()
    {
        QFETCH(QString, effect);
        QFETCH(bool, extra);
        QFETCH(QString, line);
        populate();
        EffectsManager manager;
        const EffectWorkerOptions options = manager.workerOptions(effect);
        AbsWorkerWidget* panel = extra ? options.extraOptionWidget : options.optionWidget;
        QVERIFY(panel);
        auto ctl = makeController("f1");
        IEffectWorkerPtr foreign =
            manager.bind(ctl, effect == kSingle ? "com.orvanta.colorful.moodShadow" : kSingle);
        const int frames = ctl->frames.size();
        LogCapture log;
        for (const IEffectWorkerPtr& worker : {foreign, IEffectWorkerPtr()}) {
            panel->setEffectWorker(worker);
            for (QSlider* slider : panel->findChildren<QSlider*>()) {
                slider->setValue(slider->minimum());
                slider->setValue(slider->maximum());
            }
            for (QSpinBox* box : panel->findChildren<QSpinBox*>()) {
                box->setValue(box->minimum());
            }
            for (QComboBox* box : panel->findChildren<QComboBox*>()) {
                box->setCurrentIndex(box->count() - 1);
            }
            for (QPushButton* button : panel->findChildren<QPushButton*>()) {
                if (button->objectName() != "selectColorBtn") { // a modal dialog of its own
                    button->click();
                }
            }
        }
        QCOMPARE(ctl->frames.size(), frames);
        QVERIFY2(line.isEmpty() || log.contains(line, QtCriticalMsg), qPrintable(log.lines().join('\n')));
        manager.unbind("f1");
    }

    // Each colour effect bound to a serial controller on a virtual strip: frames at the effect's
    // pace, with its colours times the brightness of 0.5.
    void colourEffectsOnAStrip_data()
    {
        QTest::addColumn<QString>("effectId");
        QTest::addColumn<double>("nominalRate");
        QTest::addColumn<Rgbs>("expected");
        QTest::newRow("single colour") << kSingle << 25.0 << Rgbs(6, {100, 50, 25});
        // Speed 0: the rainbow stands at hue 0, the first LED one sixth round.
        QTest::newRow("flowing") << kColorful + ".flowingEffect" << 30.0
                                 << Rgbs{{127, 127, 0}, {0, 127, 0},   {0, 127, 127},
                                         {0, 0, 127},   {127, 0, 127}, {127, 0, 0}};
        QTest::newRow("colour map") << "com.orvanta.colorful.ColorMap_3" << 30.0 << Rgbs(6, {50, 100, 30});
    }

    void colourEffectsOnAStrip()
    {
        QFETCH(QString, effectId);
        QFETCH(double, nominalRate);
        QFETCH(Rgbs, expected);
        populate();
        QImage picture(16, 12, QImage::Format_RGB32);
        picture.fill(QColor(100, 200, 60));
        QVERIFY(QDir().mkpath(effectsDir() + "/colorful") &&
                picture.save(effectsDir() + "/colorful/ColorMap_3.png"));
        ConfigurationManager::instance()->setEffectVariant(kSingle, "OV5512:41424344", "color",
                                                           QColor(200, 100, 50).rgb());
        DeviceRig rig;
        ControlOptions options = DeviceRig::defaultOptions(6);
        options.brightness = 0.5f;
        QVERIFY(rig.start(options));
        EffectsManager manager;
        if (auto* flowing = qobject_cast<FlowingEffect*>(manager.bind(rig.controller, effectId).data())) {
            flowing->setSpeed(0);
        }
        QTRY_VERIFY_WITH_TIMEOUT(rig.device.frameCount() >= 3, 10000);
        const int first = rig.device.frameCount();
        QElapsedTimer clock;
        clock.start();
        QTRY_VERIFY_WITH_TIMEOUT(rig.device.frameCount() >= first + 40, 20000);
        qInfo("%s: %.1f frames/s measured, %.0f nominal", QTest::currentDataTag(),
              (rig.device.frameCount() - first) * 1000.0 / clock.elapsed(), nominalRate);
        const Rgbs colors = rig.device.lastColors();
        QCOMPARE(colors.size(), expected.size());
        for (int i = 0; i < colors.size(); ++i) {
            const VirtualLedDevice::Rgb a = colors.at(i), b = expected.at(i);
            QVERIFY2(qAbs(a.r - b.r) <= 1 && qAbs(a.g - b.g) <= 1 && qAbs(a.b - b.b) <= 1,
                     qPrintable(QString("LED %1: %2,%3,%4").arg(i).arg(a.r).arg(a.g).arg(a.b)));
        }
        manager.unbind(options.id);
    }

    // Each option reaches the disk through the store as it is changed on its panel, with no unload.
    void optionsWrittenAsTheyChange_data()
    {
        QTest::addColumn<QString>("effect");
        QTest::addColumn<QString>("control"); // slider or box set to `value`, or button clicked
        QTest::addColumn<int>("value");
        QTest::addColumn<QString>("file");
        QTest::addColumn<QString>("path");
        QTest::addColumn<QJsonValue>("expected");
        const QString mood = "effects/" + kMood + ".json";
        QTest::newRow("colour map speed")
            << "com.orvanta.colorful.ColorMap_5"
            << "speedSlider" << 200 << "effects/com.orvanta.colorful.ColorMap_5.json"
            << "w/speed" << QJsonValue(4.0);
        QTest::newRow("last effect") << "com.orvanta.colorful.ColorMap_5"
                                     << "" << 0 << "global.json"
                                     << "lastBinding/w/com.orvanta.colorful"
                                     << QJsonValue("com.orvanta.colorful.ColorMap_5");
        QTest::newRow("mood speed") << kMood << "speedSlider" << 50 << mood
                                    << "w/strapConfigs/{11111111-1111-1111-1111-111111111111}/speed"
                                    << QJsonValue(0.5);
        QTest::newRow("mood strap added")
            << kMood << "addBtn" << 0 << mood << "w/currentStrap" << QJsonValue(2);
        QTest::newRow("mood strap list")
            << kMood << "addBtn" << 0 << "effects/com.orvanta.colorful.colorStraps.json"
            << "__all__/colorStrapList/2/name" << QJsonValue("(2)");
        QTest::newRow("music strength")
            << "com.orvanta.dynamicMusic.mode_1"
            << "strengthSlider" << 200 << "effects/com.orvanta.dynamicMusic.mode_1.json"
            << "w/strength" << QJsonValue(4.0);
    }

    void optionsWrittenAsTheyChange()
    {
        QFETCH(QString, effect);
        QFETCH(QString, control);
        QFETCH(int, value);
        QFETCH(QString, file);
        QFETCH(QString, path);
        QFETCH(QJsonValue, expected);
        populate({{"colorStraps.json", twoStraps}});
        EffectsManager manager;
        auto ctl = makeController("w");
        QVERIFY(manager.bind(ctl, effect));
        manager.activeOperate("w", effect);
        QWidget* panel = manager.workerOptions(effect).optionWidget;
        if (auto* slider = panel->findChild<QSlider*>(control)) {
            slider->setValue(value);
        } else if (auto* box = panel->findChild<QSpinBox*>(control)) {
            box->setValue(value);
        } else if (auto* button = panel->findChild<QPushButton*>(control)) {
            button->click();
        }
        QCOMPARE(onDisk(file, path), expected);
        manager.unbind("w");
    }

    // Another process sets red on the strip and dies 1 s later, by SIGKILL or with its X server;
    // the next start shows red. Without a timely write it would show the white of no setting.
    void optionsSurviveAKill_data()
    {
        QTest::addColumn<bool>("killX");
        QTest::newRow("program killed") << false;
        QTest::newRow("X server killed") << true;
    }

    void optionsSurviveAKill()
    {
        QFETCH(bool, killX);
        populate();
        VirtualLedDevice device;
        QVERIFY(device.open());
        PrivateXServer x;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        if (killX) {
            QVERIFY2(x.start(), qPrintable(x.errorString()));
            env.insert("DISPLAY", x.display());
            env.insert("QT_QPA_PLATFORM", "xcb");
            env.insert("QT_XCB_GL_INTEGRATION", "none");
            env.insert("ASAN_OPTIONS", "detect_leaks=0"); // it ends by exit() with everything alive
        }
        QProcess child;
        child.setProcessEnvironment(env);
        child.setProcessChannelMode(QProcess::ForwardedChannels);
        child.start(QCoreApplication::applicationFilePath(), {"--set-red", device.slavePath()});
        QTRY_VERIFY_WITH_TIMEOUT(device.lastColors().value(0) == (VirtualLedDevice::Rgb{255, 0, 0}), 60000);
        QElapsedTimer sinceRed;
        sinceRed.start();
        QTest::qWait(1000);
        // Killed once the colour is on disk, which a loaded machine may take longer than 1 s to do.
        const QString file = "effects/" + kSingle + ".json", path = "OV5512:41424344/color";
        QTRY_COMPARE_WITH_TIMEOUT(onDisk(file, path), QJsonValue(double(QColor(Qt::red).rgb())), 10000);
        qInfo("killed %lld ms after red reached the strip", sinceRed.elapsed());
        if (killX) {
            x.kill();
        } else {
            ::kill(pid_t(child.processId()), SIGKILL);
        }
        QVERIFY(child.waitForFinished(30000));
        qInfo("the child ended with status %d", child.exitCode());

        EffectsManager manager;
        auto controller = serialController(device.slavePath());
        const int before = device.frameCount();
        QVERIFY(manager.bind(controller, kSingle));
        QTRY_VERIFY_WITH_TIMEOUT(device.frameCount() > before + 2, 10000);
        QCOMPARE(device.lastColors().value(0), (VirtualLedDevice::Rgb{255, 0, 0}));
        manager.unbind(controller->controlOptions().id);
    }

    // Two strips on mood shadow share the strap list: a strap added on A shows on B and stays on
    // disk through both unloads, B's last.
    void sharedStrapsSurviveAnotherDevice()
    {
        populate({{"colorStraps.json", twoStraps}});
        EffectsManager manager;
        QVERIFY(manager.bind(makeController("A"), kMood) && manager.bind(makeController("B"), kMood));
        AbsWorkerWidget* panel = manager.workerOptions(kMood).optionWidget;
        manager.activeOperate("A", kMood);
        panel->findChild<QPushButton*>("addBtn")->click();
        manager.activeOperate("B", kMood);
        QCOMPARE(panel->findChild<QComboBox*>("colorStrapBox")->count(), 3);
        manager.unbind("A");
        manager.unbind("B");
        const QJsonValue list =
            onDisk("effects/com.orvanta.colorful.colorStraps.json", "__all__/colorStrapList");
        QCOMPARE(list.toArray().size(), 3);
        QCOMPARE(list.toArray().at(2).toObject().value("name").toString(), QString("(2)"));
    }
};

int main(int argc, char** argv)
{
    QApplication app(argc, argv);
    EffectPanelMaker::install();
    if (argc == 3 && QByteArray(argv[1]) == "--set-red") {
        return setRedAndWait(QString::fromLocal8Bit(argv[2]));
    }
    TestEffectsManager suite;
    return QTest::qExec(&suite, argc, argv);
}

#include "tst_EffectsManager.moc"
