#include "effects/EffectsManager.h"

#include "effects/IEffectFactory.h"
#include "effects/IPanelMaker.h"
#include "effects/InternalEffectFactory.h"
#include "service/config/ConfigurationManager.h"
#include "service/config/DataPaths.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QPluginLoader>
#include <QtDebug>

// The group texts log as "[EffectManager]", spelt so in their fixed log texts.
constexpr char kTag[] = "[EffectsManager]:";

EffectsManager::EffectsManager(QObject* parent)
    : QObject(parent)
{
    loadGroups();
    loadPlugins();
    // Registered last, so that a built-in effect takes the place of a plug-in's of the same id.
    registerFactory(new InternalEffectFactory(this), nullptr);
}

EffectsManager::~EffectsManager()
{
    for (auto it = bindings.begin(); it != bindings.end(); ++it) {
        if (it->worker) {
            it->worker->unload();
        }
    }
}

QString EffectsManager::groupIdOf(const QString& effectId)
{
    const int dot = effectId.lastIndexOf(QLatin1Char('.'));
    return dot < 0 ? QString() : effectId.left(dot);
}

void EffectsManager::loadGroups()
{
    // The plug-in folder beside the program may be empty: the groups come from the first place
    // that holds any.
    const QString folder = DataPaths::folderWith(QStringLiteral("effects"), QStringLiteral("*.json"),
                                                 DataPaths::First::ProgramFolder);
    QDir dir(folder);
    if (folder.isEmpty() || !dir.exists()) {
        qCritical().noquote() << "找不到<effects>文件夹，无法加载工作组信息。";
        return;
    }
    const QStringList files = dir.entryList({QStringLiteral("*.json")}, QDir::Files);
    for (const QString& file : files) {
        loadGroupFile(dir.absoluteFilePath(file));
    }
    qDebug().noquote() << "成功载入了" << groups.size() << "个组信息";
}

QVector<EffectGroup> EffectsManager::readGroupFile(const QByteArray& bytes, const QString& path)
{
    QVector<EffectGroup> result;
    QJsonParseError error;
    const QJsonDocument doc = QJsonDocument::fromJson(bytes, &error);
    if (error.error != QJsonParseError::NoError) {
        qCritical().noquote() << "无法解析组配置信息Json文件" << error.errorString();
        return result;
    }
    // Other data shares the folder (the strap defaults): an object without groups is not a group file.
    if (doc.isObject() && !doc.object().contains(QStringLiteral("groups"))) {
        qDebug().noquote() << kTag << "Not a group file, skipped:" << path;
        return result;
    }
    const QJsonArray array = doc.object().value(QStringLiteral("groups")).toArray();
    if (array.isEmpty()) {
        qCritical().noquote() << "不正确的json格式" << path;
        return result;
    }
    for (const QJsonValue& value : array) {
        const QJsonObject obj = value.toObject();
        EffectGroup group;
        group.id = obj.value(QStringLiteral("id")).toString();
        if (group.id.isEmpty()) {
            qWarning().noquote() << "不正确的组信息格式";
            continue;
        }
        const QByteArray sourceName = obj.value(QStringLiteral("name")).toString(group.id).toUtf8();
        group.name = tr(sourceName.constData());
        group.desc = obj.value(QStringLiteral("desc")).toString(group.name);
        group.iconPath = obj.value(QStringLiteral("icon")).toString();
        group.defaultEffect = obj.value(QStringLiteral("defaultEffect")).toString();
        group.order = obj.value(QStringLiteral("order")).toInt(0);
        result.append(group);
    }
    return result;
}

void EffectsManager::loadGroupFile(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text)) {
        qCritical().noquote() << "无法打开组配置信息文件" << path;
        return;
    }
    const QVector<EffectGroup> read = readGroupFile(file.readAll(), path);
    for (EffectGroup group : read) {
        if (groups.contains(group.id)) {
            qWarning().noquote() << "已跳过已存在的组信息" << group.id;
            continue;
        }
        if (!group.iconPath.isEmpty()) {
            group.icon = QImage(DataPaths::locate(group.iconPath));
        }
        if (groupOrder.contains(group.order)) {
            qWarning().noquote() << "[EffectManager]: Group order conflict: " + group.id +
                                        ". The order already exists: " +
                                        groups.value(groupOrder.value(group.order)).name;
            // Not refused: the group moves to a place that follows from its id.
            group.order = static_cast<int32_t>(qHash(group.id, 0));
        }
        groupOrder[group.order] = group.id;
        groups[group.id] = group;
        qInfo().noquote() << "成功读取到组信息" << group.id;
    }
}

void EffectsManager::loadPlugins()
{
    QDir dir(QCoreApplication::applicationDirPath());
    if (!dir.cd(QStringLiteral("effects"))) {
        qCritical().noquote() << "找不到<effects>文件夹，无法加载外部工作模式。";
        return;
    }
    const QStringList files = dir.entryList({QStringLiteral("*.so")}, QDir::Files);
    for (const QString& file : files) {
        const QString path = dir.absoluteFilePath(file);
        auto* loader = new QPluginLoader(path, this);
        QObject* root = loader->instance();
        auto* factory = root ? static_cast<IEffectFactory*>(root->qt_metacast(IEffectFactory_iid)) : nullptr;
        if (factory) {
            registerFactory(factory, loader);
        } else {
            qCritical().noquote() << "从QPluginLoader载入实例" << path << "失败：" << loader->errorString();
            delete loader;
        }
    }
}

void EffectsManager::registerFactory(IEffectFactory* factory, QPluginLoader* loader)
{
    const QList<EffectWorkerOptions> records = factory->effects();
    for (const EffectWorkerOptions& record : records) {
        EffectWorkerOptions& entry = workers[record.id];
        entry.id = record.id;
        entry.name = record.name;
        entry.icon = record.icon;
        entry.image = record.image;
        entry.category = record.category;
        entry.desc = record.desc;
        entry.order = record.order;
        entry.optionWidget = record.optionWidget;
        entry.extraOptionWidget = record.extraOptionWidget;
        panels[record.id] =
            Panels{IPanelMaker::follow(record.optionWidget), IPanelMaker::follow(record.extraOptionWidget)};
        entry.tags = record.tags;

        const QString groupId = groupIdOf(record.id);
        if (!groups.contains(groupId)) {
            qCritical().noquote() << "Not found group for the effect worker:" << record.id;
            EffectGroup group;
            group.id = groupId;
            group.name = groupId;
            group.desc = groupId;
            groups.insert(groupId, group);
        }
        factories[record.id] = qMakePair(factory, loader);
        groups[groupId].effects.insert(record.id);
        emit workerReady(record.id);
    }
}

IEffectWorkerPtr EffectsManager::bind(AbsRGBControllerPtr controller, const QString& effectId)
{
    if (!controller) {
        qCritical().noquote() << kTag << "Invalid parameters. func:"
                              << "EffectsManager::bind";
        return {};
    }
    const QString ctlId = controller->controlOptions().id;
    if (bindings.contains(ctlId)) {
        unbind(ctlId);
    }
    const auto factoryIt = factories.constFind(effectId);
    if (factoryIt == factories.constEnd()) {
        qCritical().noquote() << kTag << "Not found worker factory for this effect, id: " + effectId;
        return {};
    }
    IEffectWorker* created = factoryIt->first->create(effectId);
    if (!created) {
        qCritical().noquote() << kTag << "Failed to create effect worker, id: " + effectId;
        return {};
    }
    IEffectWorkerPtr worker(created, &QObject::deleteLater);

    AbsRGBController* ctl = controller.data();
    IEffectWorker* w = worker.data();
    connect(w, qOverload<QVector<QVector<OV_RGB>>>(&IEffectWorker::updateColors), ctl,
            qOverload<QVector<QVector<OV_RGB>>>(&AbsRGBController::update));
    connect(w, qOverload<QVector<OV_RGB>>(&IEffectWorker::updateColors), ctl,
            qOverload<QVector<OV_RGB>>(&AbsRGBController::update));
    connect(ctl, &AbsRGBController::kindNameChanged, w, &IEffectWorker::onCtlKindNameChanged);
    connect(ctl, &AbsRGBController::enableChanged, w, &IEffectWorker::onCtlEnableChanged);
    connect(ctl, &AbsRGBController::brightnessChanged, w, &IEffectWorker::onCtlBrightnessChanged);
    connect(ctl, &AbsRGBController::installDirectionChanged, w, &IEffectWorker::onCtlDirChanged);

    worker->load(controller->controlOptions());
    bindings.insert(ctlId, Binding{controller, worker});
    qInfo().noquote() << ctlId << "已经绑定到" << worker->workerOptions().id;

    // Saved at once, not only at exit, so that a crash cannot bring back an effect left long ago;
    // the store writes nothing when the value was already there.
    ConfigurationManager* store = ConfigurationManager::instance();
    store->setGlobalValue(QStringList{QStringLiteral("lastBinding"), ctlId, groupIdOf(effectId)}, effectId);
    store->saveGlobalValues();
    return worker;
}

void EffectsManager::unbind(const QString& ctlId)
{
    const auto it = bindings.find(ctlId);
    if (it == bindings.end()) {
        qWarning().noquote() << "尝试解绑了一个未绑定的控制器" << ctlId;
        return;
    }
    const Binding binding = it.value();
    if (binding.worker && binding.controller) {
        disconnect(binding.worker.data(), nullptr, binding.controller.data(), nullptr);
    }
    if (binding.worker) {
        const QString effectId = binding.worker->workerOptions().id;
        qInfo().noquote() << ctlId << "与" << effectId << "解绑";
        binding.worker->unload();
        const EffectWorkerOptions record = workerOptions(effectId);
        IPanelMaker::pointPanel(record.extraOptionWidget, IEffectWorkerPtr());
        // A record may name no panel (a plug-in, a row without options): then there is none to release.
        IPanelMaker::pointPanel(record.optionWidget, IEffectWorkerPtr());
    }
    bindings.remove(ctlId);
}

void EffectsManager::activeOperate(const QString& ctlId, const QString& effectId)
{
    if (ctlId.isEmpty() || effectId.isEmpty()) {
        qCritical().noquote() << kTag
                              << "Invalid parameters. func: " +
                                     QStringLiteral("EffectsManager::activeOperate");
        return;
    }
    const auto it = bindings.constFind(ctlId);
    if (it == bindings.constEnd()) {
        qCritical().noquote() << kTag << "Cannot binding, ctlId: " + ctlId + "   effectId: " + effectId;
        return;
    }
    const IEffectWorkerPtr worker = it->worker;
    const QString boundId = worker ? worker->workerOptions().id : QString();
    if (boundId != effectId) {
        qCritical().noquote() << kTag
                              << "The worker bound in the manager is different from the "
                                 "input parameter \r\n" +
                                     QStringLiteral("In manager: ") + boundId + "\t Input: " + effectId;
        return;
    }
    const EffectWorkerOptions record = workerOptions(effectId);
    IPanelMaker::pointPanel(record.optionWidget, worker);
    IPanelMaker::pointPanel(record.extraOptionWidget, worker);
}

QString EffectsManager::lastBinding(const QString& ctlId, const QString& groupId)
{
    if (ctlId.isEmpty() && !groupId.isEmpty()) {
        return defaultEffect(groupId);
    }
    if (groupId.isEmpty()) {
        return QStringLiteral("com.orvanta.singleColor.singleColor1");
    }
    const QString stored =
        ConfigurationManager::instance()->globalValue("lastBinding/" + ctlId + "/" + groupId).toString();
    return stored.isEmpty() ? defaultEffect(groupId) : stored;
}

QString EffectsManager::stepGroup(const QString& groupId, bool forward)
{
    const QString first = groups.isEmpty() ? QString() : groups.firstKey();
    const auto groupIt = groups.constFind(groupId);
    if (groupIt == groups.constEnd()) {
        qCritical().noquote() << "[EffectManager]: Not found group info: " + groupId;
        return first;
    }
    auto orderIt = groupOrder.constFind(groupIt->order);
    if (orderIt == groupOrder.constEnd()) {
        qCritical().noquote() << "[EffectManager]: Not found group order: " + groupId;
        return first;
    }
    if (forward) {
        ++orderIt;
        if (orderIt == groupOrder.constEnd()) {
            orderIt = groupOrder.constBegin();
        }
    } else {
        if (orderIt == groupOrder.constBegin()) {
            orderIt = groupOrder.constEnd();
        }
        --orderIt;
    }
    return orderIt.value();
}

QString EffectsManager::nextGroup(const QString& groupId)
{
    return stepGroup(groupId, true);
}

QString EffectsManager::previousGroup(const QString& groupId)
{
    return stepGroup(groupId, false);
}

QString EffectsManager::defaultEffect(const QString& groupId) const
{
    return groups.value(groupId).defaultEffect;
}

EffectWorkerOptions EffectsManager::workerOptions(const QString& effectId) const
{
    EffectWorkerOptions record = workers.value(effectId);
    const Panels live = panels.value(effectId);
    record.optionWidget = live.option ? record.optionWidget : nullptr;
    record.extraOptionWidget = live.extra ? record.extraOptionWidget : nullptr;
    return record;
}

bool EffectsManager::hasWorker(const QString& effectId) const
{
    return workers.contains(effectId);
}

EffectGroup EffectsManager::group(const QString& groupId) const
{
    return groups.value(groupId);
}

QStringList EffectsManager::groupIds() const
{
    return groups.keys();
}
