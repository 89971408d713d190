#include "AbsWorkerWidget.h"
#include "ColorMap.h"
#include "ConfigurationManager.h"
#include "EffectsManager.h"
#include "FlowingEffect.h"
#include "LogCapture.h"
#include "MoodShadow.h"
#include "RecordingController.h"
#include "SingleColor.h"
#include "TestFiles.h"

#include <QComboBox>
#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QPointer>
#include <QPushButton>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QSlider>
#include <QSpinBox>
#include <QtTest>

namespace {

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

// Replaces the effects folder beside the test program by the given files.
void populate(const QMap<QString, QByteArray>& files, bool withPlugin = false)
{
    QDir(effectsDir()).removeRecursively();
    QVERIFY(QDir().mkpath(effectsDir()));
    for (auto it = files.constBegin(); it != files.constEnd(); ++it)
        QVERIFY(TestFiles::write(effectsDir() + "/" + it.key(), it.value()));
    if (withPlugin) {
        QVERIFY(QFile::copy(QStringLiteral(TEST_PLUGIN_PATH), effectsDir() + "/test_effect_plugin.so"));
    }
}

QSharedPointer<RecordingController> makeController(const QString& id)
{
    return QSharedPointer<RecordingController>(new RecordingController(id, 4, {4}), &QObject::deleteLater);
}

void flushDeletes()
{
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
}

} // namespace

class TestEffectsManager : public QObject
{
    Q_OBJECT
private slots:
    void init() { ConfigurationManager::instance()->reset(); }

    void cleanup() { flushDeletes(); }

    void missingEffectsFolder()
    {
        QDir(effectsDir()).removeRecursively();
        QTest::ignoreMessage(QtCriticalMsg, "找不到<effects>文件夹，无法加载工作组信息。");
        QTest::ignoreMessage(QtCriticalMsg, "找不到<effects>文件夹，无法加载外部工作模式。");
        QTest::ignoreMessage(QtCriticalMsg,
                             QRegularExpression("^Not found group for the effect worker: com\\.orvanta\\."));
        EffectsManager manager;
        // Only the groups made for the built-in effects, reachable by neither next nor previous.
        QVERIFY(manager.groupIds().contains("com.orvanta.singleColor"));
        QVERIFY(manager.groupIds().contains("com.orvanta.colorful"));
        const EffectGroup made = manager.group("com.orvanta.colorful");
        QCOMPARE(made.name, QString("com.orvanta.colorful"));
        QCOMPARE(made.order, 0);
        QTest::ignoreMessage(QtCriticalMsg, "[EffectManager]: Not found group order: com.orvanta.colorful");
        QCOMPARE(manager.nextGroup("com.orvanta.colorful"), manager.groupIds().first());
        QVERIFY(manager.hasWorker("com.orvanta.colorful.moodShadow"));
    }

    void groupFileFailures_data()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<QString>("message");
        QTest::addColumn<int>("level");

        QTest::newRow("not JSON") << QByteArray("{\"groups\": [") << QString("^无法解析组配置信息Json文件 ")
                                  << int(QtCriticalMsg);
        QTest::newRow("no groups key") << QByteArray("{\"other\": []}")
                                       << QString("^不正确的json格式 .*/bad\\.json$") << int(QtCriticalMsg);
        QTest::newRow("element without id") << QByteArray("{\"groups\": [{\"name\": \"n\", \"order\": 9}]}")
                                            << QString("^不正确的组信息格式$") << int(QtWarningMsg);
    }

    void groupFileFailures()
    {
        QFETCH(QByteArray, content);
        QFETCH(QString, message);
        QFETCH(int, level);
        // The bad file sorts first; the good one after it still loads.
        populate({{"bad.json", content}, {"good.json", fourGroups}});
        QTest::ignoreMessage(QtMsgType(level), QRegularExpression(message));
        EffectsManager manager;
        QCOMPARE(manager.groupIds().size(), 4);
        QCOMPARE(manager.nextGroup("com.orvanta.dynamicMusic"), QString("com.orvanta.singleColor"));
    }

    void groupFieldsAndDefaults()
    {
        populate({{"groups.json", fourGroups}});
        QTest::ignoreMessage(QtDebugMsg, "成功载入了 4 个组信息");
        QTest::ignoreMessage(QtInfoMsg, "成功读取到组信息 com.orvanta.colorful");
        EffectsManager manager;
        const EffectGroup single = manager.group("com.orvanta.singleColor");
        QCOMPARE(single.desc, QString("one colour"));
        QVERIFY(single.icon.isNull()); // a bad path, and no message for it
        // No "desc": the translated name stands in.
        QCOMPARE(manager.group("com.orvanta.colorful").desc, QString("炫彩模式"));
        QCOMPARE(manager.defaultEffect("com.orvanta.dynamicMusic"),
                 QString("com.orvanta.dynamicMusic.mode_2"));
        QCOMPARE(manager.groupIds(), QStringList({"com.orvanta.colorful", "com.orvanta.dynamicMusic",
                                                  "com.orvanta.screenSync", "com.orvanta.singleColor"}));
        QVERIFY(manager.group("com.orvanta.nothing").id.isEmpty());
    }

    void nextAndPreviousWrap()
    {
        populate({{"groups.json", fourGroups}});
        EffectsManager manager;
        QCOMPARE(manager.nextGroup("com.orvanta.screenSync"), QString("com.orvanta.dynamicMusic"));
        QCOMPARE(manager.nextGroup("com.orvanta.dynamicMusic"), QString("com.orvanta.singleColor"));
        QCOMPARE(manager.previousGroup("com.orvanta.singleColor"), QString("com.orvanta.dynamicMusic"));
        QCOMPARE(manager.previousGroup("com.orvanta.dynamicMusic"), QString("com.orvanta.screenSync"));
        // An unknown group counts as the one before the first.
        QTest::ignoreMessage(QtCriticalMsg, "[EffectManager]: Not found group info: com.orvanta.none");
        QCOMPARE(manager.nextGroup("com.orvanta.none"), QString("com.orvanta.colorful"));
        QTest::ignoreMessage(QtCriticalMsg, "[EffectManager]: Not found group info: ");
        QCOMPARE(manager.previousGroup(""), QString("com.orvanta.colorful"));
    }

    void lastBindingRules()
    {
        populate({{"groups.json", fourGroups}});
        EffectsManager manager;
        QCOMPARE(manager.lastBinding("", ""), QString("com.orvanta.singleColor.singleColor1"));
        QCOMPARE(manager.lastBinding("x", ""), QString("com.orvanta.singleColor.singleColor1"));
        QCOMPARE(manager.lastBinding("", "com.orvanta.colorful"),
                 QString("com.orvanta.colorful.flowingEffect"));
        QCOMPARE(manager.lastBinding("x", "com.orvanta.colorful"),
                 QString("com.orvanta.colorful.flowingEffect"));
        // A stored value wins and is not checked against the catalogue.
        ConfigurationManager::instance()->setGlobalValue(
            QStringList{"lastBinding", "x", "com.orvanta.colorful"}, QString("com.orvanta.colorful.gone"));
        QCOMPARE(manager.lastBinding("x", "com.orvanta.colorful"), QString("com.orvanta.colorful.gone"));
        QCOMPARE(manager.lastBinding("y", "com.orvanta.colorful"),
                 QString("com.orvanta.colorful.flowingEffect"));
        // bind remembers per controller and group.
        auto ctl = makeController("x");
        QVERIFY(manager.bind(ctl, "com.orvanta.colorful.ColorMap_5"));
        QCOMPARE(manager.lastBinding("x", "com.orvanta.colorful"),
                 QString("com.orvanta.colorful.ColorMap_5"));
        QCOMPARE(
            ConfigurationManager::instance()->globalValue("lastBinding/x/com.orvanta.colorful").toString(),
            QString("com.orvanta.colorful.ColorMap_5"));
        QCOMPARE(manager.lastBinding("x", "com.orvanta.screenSync"),
                 QString("com.orvanta.screenSync.fullScreen"));
        manager.unbind("x");
    }

    void catalogueGroupsFilled()
    {
        populate({{"groups.json", fourGroups}});
        EffectsManager manager;
        QCOMPARE(manager.group("com.orvanta.singleColor").effects,
                 QSet<QString>({"com.orvanta.singleColor.singleColor1"}));
        const QSet<QString> colorful = manager.group("com.orvanta.colorful").effects;
        QCOMPARE(colorful.size(), 8);
        QVERIFY(colorful.contains("com.orvanta.colorful.moodShadow"));
        QVERIFY(!manager.hasWorker("com.orvanta.none"));
    }

    void pluginLoadedAndBuiltInWins()
    {
        const QByteArray pluginGroup =
            R"({"groups": [{"id": "com.orvanta.plugin", "name": "插件", "order": 9}]})";
        populate({{"groups.json", fourGroups}, {"plugin.json", pluginGroup}}, true);
        EffectsManager manager;
        QVERIFY(manager.hasWorker("com.orvanta.plugin.fixedColor"));
        QCOMPARE(manager.workerOptions("com.orvanta.plugin.fixedColor").name, QString("plug-in colour"));
        QCOMPARE(manager.group("com.orvanta.plugin").effects,
                 QSet<QString>({"com.orvanta.plugin.fixedColor"}));
        // The built-in record and factory replaced the plug-in's rival of the same id.
        QCOMPARE(manager.workerOptions("com.orvanta.colorful.flowingEffect").name, QString("流光异彩"));
        auto ctl = makeController("p");
        IEffectWorkerPtr flowing = manager.bind(ctl, "com.orvanta.colorful.flowingEffect");
        QVERIFY(qobject_cast<FlowingEffect*>(flowing.data()));
        // The plug-in's worker reaches the controller through the connections bind made.
        IEffectWorkerPtr plugged = manager.bind(ctl, "com.orvanta.plugin.fixedColor");
        QVERIFY(plugged);
        QCOMPARE(plugged->workerOptions().id, QString("com.orvanta.plugin.fixedColor"));
        QVERIFY(!ctl->frames.isEmpty());
        QCOMPARE(ctl->frames.last().value(0).value(0), (OV_RGB{5, 10, 15})); // brightness 0.5
        manager.unbind("p");
    }

    void brokenPluginIsSkipped()
    {
        populate({{"groups.json", fourGroups}, {"aaa_broken.so", QByteArray("not a library")}}, true);
        QTest::ignoreMessage(QtCriticalMsg,
                             QRegularExpression("^从QPluginLoader载入实例 .*/aaa_broken\\.so 失败："));
        EffectsManager manager;
        QVERIFY(manager.hasWorker("com.orvanta.plugin.fixedColor"));
    }

    void bindConnectsAndRemembers()
    {
        populate({{"groups.json", fourGroups}});
        EffectsManager manager;
        auto ctl = makeController("c1");
        QTest::ignoreMessage(QtInfoMsg, "c1 已经绑定到 com.orvanta.singleColor.singleColor1");
        IEffectWorkerPtr worker = manager.bind(ctl, "com.orvanta.singleColor.singleColor1");
        QVERIFY(worker);
        // load ran at once: the white frame is already at the controller, scaled by brightness 0.5.
        QVERIFY(!ctl->frames.isEmpty());
        QCOMPARE(ctl->frames.last().value(0), QVector<OV_RGB>(4, OV_RGB{127, 127, 127}));
        // Controller changes reach the worker's slots: a mood shadow follows the install direction.
        IEffectWorkerPtr mood = manager.bind(ctl, "com.orvanta.colorful.moodShadow");
        auto* shadow = qobject_cast<MoodShadow*>(mood.data());
        QVERIFY(shadow);
        ctl->setInstallDirection(1);
        shadow->tick(0.1);
        QVERIFY(shadow->currentPhase() > 0.5); // went backwards from 0 and wrapped
        QTest::ignoreMessage(QtInfoMsg, "c1 与 com.orvanta.colorful.moodShadow 解绑");
        manager.unbind("c1");
        // No colours reach the controller from the released worker any more.
        const int frames = ctl->frames.size();
        shadow->tick(0.1);
        QCOMPARE(ctl->frames.size(), frames);
    }

    void bindUnknownEffectReleasesOldWorker()
    {
        populate({{"groups.json", fourGroups}});
        EffectsManager manager;
        auto ctl = makeController("c2");
        IEffectWorkerPtr worker = manager.bind(ctl, "com.orvanta.singleColor.singleColor1");
        QPointer<IEffectWorker> watch(worker.data());
        qobject_cast<SingleColor*>(worker.data())->setColor(QColor(1, 2, 3));
        worker.clear();
        QTest::ignoreMessage(
            QtCriticalMsg,
            "[EffectsManager]: Not found worker factory for this effect, id: com.orvanta.none.x");
        QVERIFY(!manager.bind(ctl, "com.orvanta.none.x"));
        // The old worker was saved, and released.
        QCOMPARE(ConfigurationManager::instance()
                     ->effectVariant("com.orvanta.singleColor.singleColor1", "c2", "color")
                     .toUInt(),
                 QColor(1, 2, 3).rgb());
        flushDeletes();
        QVERIFY(watch.isNull());
        // The controller is unbound now.
        QTest::ignoreMessage(QtWarningMsg, "尝试解绑了一个未绑定的控制器 c2");
        manager.unbind("c2");
        QTest::ignoreMessage(QtCriticalMsg, "[EffectsManager]: Cannot binding, ctlId: c2   effectId: x.y");
        manager.activeOperate("c2", "x.y");
    }

    void rebindSameEffectSavesFirst()
    {
        populate({{"groups.json", fourGroups}});
        EffectsManager manager;
        auto ctl = makeController("c3");
        IEffectWorkerPtr first = manager.bind(ctl, "com.orvanta.singleColor.singleColor1");
        qobject_cast<SingleColor*>(first.data())->setColor(QColor(200, 100, 50));
        IEffectWorkerPtr second = manager.bind(ctl, "com.orvanta.singleColor.singleColor1");
        QVERIFY(second);
        QVERIFY(second != first);
        // The new worker loaded what the old one saved on its way out.
        QCOMPARE(qobject_cast<SingleColor*>(second.data())->currentColor(), QColor(200, 100, 50));
        manager.unbind("c3");
    }

    void panelsFollowBindings()
    {
        populate({{"groups.json", fourGroups}}, true);
        QTest::ignoreMessage(QtCriticalMsg,
                             "Not found group for the effect worker: com.orvanta.plugin.fixedColor");
        EffectsManager manager;
        AbsWorkerWidget* panel = manager.workerOptions("com.orvanta.plugin.fixedColor").optionWidget;
        QVERIFY(panel);
        QSignalSpy changed(panel, &AbsWorkerWidget::effectWorkerChanged);
        auto ctlA = makeController("a");
        auto ctlB = makeController("b");
        IEffectWorkerPtr workerA = manager.bind(ctlA, "com.orvanta.plugin.fixedColor");
        IEffectWorkerPtr workerB = manager.bind(ctlB, "com.orvanta.plugin.fixedColor");
        manager.activeOperate("a", "com.orvanta.plugin.fixedColor");
        QCOMPARE(panel->effectWorker(), workerA);
        manager.activeOperate("b", "com.orvanta.plugin.fixedColor");
        QCOMPARE(panel->effectWorker(), workerB);
        // The same worker again does not refill the panel.
        manager.activeOperate("b", "com.orvanta.plugin.fixedColor");
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
        QTest::newRow("single colour") << "com.orvanta.singleColor.singleColor1" << false << QString();
        QTest::newRow("rainbow") << "com.orvanta.colorful.flowingEffect" << false
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
        populate({{"groups.json", fourGroups}});
        EffectsManager manager;
        const EffectWorkerOptions options = manager.workerOptions(effect);
        AbsWorkerWidget* panel = extra ? options.extraOptionWidget : options.optionWidget;
        QVERIFY(panel);
        auto ctl = makeController("f1");
        const bool single = effect.startsWith("com.orvanta.singleColor");
        IEffectWorkerPtr foreign = manager.bind(ctl, single ? "com.orvanta.colorful.moodShadow"
                                                            : "com.orvanta.singleColor.singleColor1");
        const int frames = ctl->frames.size();
        auto driveEveryControl = [panel] {
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
        };
        LogCapture log;
        panel->setEffectWorker(foreign);
        driveEveryControl();
        panel->setEffectWorker(IEffectWorkerPtr());
        driveEveryControl();
        QCOMPARE(ctl->frames.size(), frames);
        if (!line.isEmpty()) {
            QVERIFY2(log.count(line, QtCriticalMsg) >= 1, qPrintable(log.lines().join(QLatin1Char('\n'))));
        }
        manager.unbind("f1");
    }

    void destructionUnloadsWorkers()
    {
        populate({{"groups.json", fourGroups}});
        auto ctl = makeController("c6");
        auto other = makeController("c7");
        QPointer<IEffectWorker> watch;
        {
            EffectsManager manager;
            IEffectWorkerPtr worker = manager.bind(ctl, "com.orvanta.singleColor.singleColor1");
            qobject_cast<SingleColor*>(worker.data())->setColor(QColor(9, 8, 7));
            IEffectWorkerPtr map = manager.bind(other, "com.orvanta.colorful.ColorMap_6");
            qobject_cast<ColorMap*>(map.data())->speed = 2.5;
            watch = worker.data();
        }
        ConfigurationManager* store = ConfigurationManager::instance();
        QCOMPARE(store->effectVariant("com.orvanta.singleColor.singleColor1", "c6", "color").toUInt(),
                 QColor(9, 8, 7).rgb());
        QCOMPARE(store->effectJsonValue("com.orvanta.colorful.ColorMap_6", "c7", "speed").toDouble(), 2.5);
        flushDeletes();
        QVERIFY(watch.isNull());
    }
};

QTEST_MAIN(TestEffectsManager)
#include "tst_EffectsManager.moc"
