#include "devices/DeviceManager.h"

#include "devices/IDeviceEnumerator.h"
#include "devices/OVControllerEnumerator.h"

#include <QCoreApplication>
#include <QDebug>
#include <QDir>
#include <QFileInfo>
#include <QPluginLoader>

namespace {

// The removal lines give the name without its colon.
constexpr char kTag[] = "[DeviceManager]:";

const char* const kBuiltInKey = "@@@OVControllerEnumerator";

} // namespace

DeviceManager::DeviceManager(QObject* parent)
    : QObject(parent)
{
    qRegisterMetaType<AbsRGBControllerPtr>("QSharedPointer<AbsRGBController>");
    qRegisterMetaType<AbsRGBControllerPtr>("AbsRGBControllerPtr");
    qRegisterMetaType<PortProblem>();
    loadPlugins();
    addBuiltInEnumerator();
}

// Enumerators and their loaders live as long as the manager: plug-ins are never unloaded, and
// the built-in enumerator is this object's child.
DeviceManager::~DeviceManager() = default;

void DeviceManager::loadPlugins()
{
    QDir dir(QCoreApplication::applicationDirPath());
    if (!dir.cd(QStringLiteral("deviceEnumerators"))) {
        qCritical().noquote() << "Not found Dir: deviceEnumerators, Unable to load external enumerators";
        return;
    }
    dir.makeAbsolute();
    const QFileInfoList entries =
        dir.entryInfoList(QStringList{QStringLiteral("*.so")}, QDir::Files, QDir::Name);
    for (const QFileInfo& entry : entries) {
        const QString path = entry.absoluteFilePath();
        auto* loader = new QPluginLoader(path, this);
        QObject* instance = loader->instance();
        if (!instance) {
            qWarning().noquote() << QStringLiteral("载入dll：%1失败。").arg(path) << loader->errorString();
            delete loader;
            continue;
        }
        auto* enumerator = static_cast<IDeviceEnumerator*>(instance->qt_metacast(IDeviceEnumerator_iid));
        if (!enumerator) {
            qWarning().noquote() << QStringLiteral("无效的外部库文件: %1").arg(path) << loader->errorString();
            // The library stays loaded, as every plug-in does; only its entry is skipped.
            delete loader;
            continue;
        }
        connect(enumerator, &IDeviceEnumerator::deviceEnabled, this, &DeviceManager::addController,
                Qt::QueuedConnection);
        enumerators.insert(path, EnumeratorEntry(loader, enumerator));
        qInfo().noquote() << QStringLiteral("成功从文件<%1>中加载了枚举器").arg(entry.fileName());
    }
}

void DeviceManager::addBuiltInEnumerator()
{
    auto* enumerator = new OVControllerEnumerator(this);
    connect(enumerator, &IDeviceEnumerator::deviceEnabled, this, &DeviceManager::addController,
            Qt::QueuedConnection);
    connect(enumerator, &OVControllerEnumerator::portNotOpened, this, &DeviceManager::portNotOpened);
    enumerators.insert(QString::fromLatin1(kBuiltInKey), EnumeratorEntry(nullptr, enumerator));
}

AbsRGBControllerPtr DeviceManager::controller(QString id) const
{
    return controllers.value(id);
}

ControlOptions& DeviceManager::controlOptions(QString id)
{
    static ControlOptions blank;
    const auto it = controllers.constFind(id);
    if (it == controllers.cend() || !it.value()) {
        return blank;
    }
    return it.value()->controlOptions();
}

QStringList DeviceManager::controllerNames() const
{
    return controllers.keys();
}

void DeviceManager::addEnumeratorControllers(IDeviceEnumerator* enumerator)
{
    if (!enumerator) {
        return;
    }
    const QSet<AbsRGBControllerPtr> found = enumerator->controllers();
    for (const AbsRGBControllerPtr& controller : found) {
        addController(controller);
    }
}

void DeviceManager::addController(AbsRGBControllerPtr controller)
{
    if (!controller) {
        qWarning().noquote() << kTag << "Cannot add an empty controller";
        return;
    }
    const ControlOptions options = controller->controlOptions();
    if (controllers.contains(options.id)) {
        qWarning().noquote() << kTag << "The controller already exists" << options.id;
        return;
    }
    if (options.id.isEmpty()) {
        qWarning().noquote() << kTag << "Cannot add a controller with an invalid ID";
        return;
    }
    controllers.insert(options.id, controller);
    qInfo().noquote() << "A new controller has been added to manager："
                      << options.model + QLatin1Char(':') + options.serial;

    const QString id = options.id;
    connect(
        controller.data(), &AbsRGBController::statusChanged, this,
        [this, id](uint32_t status, QString description) { onControllerStatus(id, status, description); });
    emit newController(id);
}

void DeviceManager::onControllerStatus(QString id, uint32_t status, QString description)
{
    if (status == 0) {
        return;
    }
    if (!controllers.contains(id)) {
        return;
    }
    // Dropping the strong reference; the last holder's release closes the port.
    controllers.remove(id);
    qInfo().noquote() << "Device has failed:" << id << ", Reason：" << description;
    emit controllerFailed(id);
}

void DeviceManager::removeController(QString ctlName)
{
    if (ctlName.isEmpty()) {
        qWarning().noquote() << kTag << "Invalid parameter \"ctlName\", func: removeController";
        return;
    }
    if (!controllers.contains(ctlName)) {
        qWarning().noquote() << kTag << "Try removing a controller that does not exist";
        return;
    }
    controllers.remove(ctlName);
    for (auto it = enumerators.cbegin(); it != enumerators.cend(); ++it) {
        if (it.value().second->removeController(ctlName)) {
            qInfo().noquote() << QLatin1String(kTag).chopped(1) << ctlName << "has been removed from"
                              << it.key();
            break;
        }
    }
    qInfo().noquote() << QLatin1String(kTag).chopped(1) << ctlName << "has been removed";
}
