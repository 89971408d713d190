#include "OVControllerEnumerator.h"

#include "DefaultsFile.h"
#include "ExtraPortsWatcher.h"
#include "OVController.h"
#include "OVSerialPort.h"
#include "PortArrivalWatcher.h"

#include <QCoreApplication>
#include <QDebug>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMutexLocker>
#include <QPointer>
#include <QSerialPort>
#include <QSerialPortInfo>
#include <QStandardPaths>
#include <QThread>
#include <QThreadPool>

#include <limits>

// The compiled-in pictures live in this static library; register them before the first use.
static void initDeviceResources()
{
    Q_INIT_RESOURCE(devices);
}

namespace {

const char* const Tag = "[OVControllerEnumerator]: ";
const char* const DefaultsFile = "controler_config/OVController.json";
const char* const DefaultIcon = ":/images/Ov5512Icon.jpg";
const int ScanIntervalMs = 100;
const int ArrivalDelayMs = 500;
const int ResponseTimeoutMs = 5000;

// Quoted and escaped the way QDebug shows strings, so a reply stays on one log line.
QString quoted(const QString& text)
{
    QString out;
    QDebug(&out).nospace() << text;
    return out;
}

QString quoted(const QByteArray& bytes)
{
    QString out;
    QDebug(&out).nospace() << bytes;
    return out;
}

// A count from JSON: anything but a non-negative number reads as 0.
uint32_t toCount(const QJsonValue& value)
{
    if (!value.isDouble())
        return 0;
    const double d = value.toDouble();
    if (!(d >= 0.0))
        return 0;
    if (d >= double(std::numeric_limits<uint32_t>::max()))
        return std::numeric_limits<uint32_t>::max();
    return uint32_t(d);
}

// A model without a picture gets a null image, quietly: QImage warns about an empty name.
QImage loadPicture(const QString& baseDir, const QString& path)
{
    if (path.isEmpty())
        return QImage();
    return QImage(QDir::isAbsolutePath(path) ? path : QDir(baseDir).filePath(path));
}

} // namespace

// One port's handshake, shared by its reply and time-out handlers.
struct OVControllerEnumerator::Handshake
{
    // Deleted on the enumerator's thread even when the last holder lets go on a port thread.
    QSharedPointer<QTimer> timer{new QTimer(), &QObject::deleteLater};
    // Set once the port is scheduled for deletion: a reply queued in the same pass finds it.
    bool dropped = false;
};

OVControllerEnumerator::OVControllerEnumerator(QObject* parent)
    : IDeviceEnumerator(parent)
{
    initDeviceResources();
    qRegisterMetaType<AbsRGBControllerPtr>("QSharedPointer<AbsRGBController>");
    qRegisterMetaType<AbsRGBControllerPtr>("AbsRGBControllerPtr");

    startScan();

    // Arrival sources only name the port; the work happens later on this object's thread.
    connect(this, &OVControllerEnumerator::deviceArrival, this, &OVControllerEnumerator::onDeviceArrival,
            Qt::QueuedConnection);

    PortArrivalWatcher* systemWatcher = PortArrivalWatcher::createSystemWatcher(this);
    connect(systemWatcher, &PortArrivalWatcher::portArrived, this, &OVControllerEnumerator::deviceArrival);
    auto* extraWatcher = new ExtraPortsWatcher(this);
    connect(extraWatcher, &PortArrivalWatcher::portArrived, this, &OVControllerEnumerator::deviceArrival);
}

OVControllerEnumerator::~OVControllerEnumerator()
{
    // Pool tasks of scanControllers post back to this object; let the last of them finish.
    while (scanTasks.loadAcquire() > 0)
        QThread::yieldCurrentThread();

    // Ports still in their handshake, or answered with a known id, have no other owner.
    for (const QPointer<OVSerialPort>& port : qAsConst(unattachedPorts)) {
        if (port && port->thread() == thread())
            delete port.data();
    }
}

void OVControllerEnumerator::startScan()
{
    qInfo().noquote() << "[OVControllerEnumerator]: Begin scan devices list";

    // Full device paths throughout, the form udev and ORVANTA_EXTRA_PORTS give too.
    auto ports = QSharedPointer<QStringList>::create();
    const QList<QSerialPortInfo> infos = QSerialPortInfo::availablePorts();
    for (const QSerialPortInfo& info : infos)
        ports->append(info.systemLocation());
    const QStringList extra = ExtraPortsWatcher::expandEntries(ExtraPortsWatcher::configuredEntries());
    for (const QString& path : extra) {
        if (!ports->contains(path))
            ports->append(path);
    }

    auto* scanTimer = new QTimer(this);
    scanTimer->setInterval(ScanIntervalMs);
    connect(scanTimer, &QTimer::timeout, this, [this, scanTimer, ports]() {
        if (ports->isEmpty()) {
            qInfo().noquote() << "[OVControllerEnumerator]: End scan devices list";
            scanTimer->stop();
            scanTimer->deleteLater();
            ports->clear();
            return;
        }
        verifyDevice(ports->takeFirst());
    });
    scanTimer->start();
}

QSet<AbsRGBControllerPtr> OVControllerEnumerator::controllers()
{
    QSet<AbsRGBControllerPtr> alive;
    QMutexLocker locker(&mutex);
    for (auto it = controllersMap.cbegin(); it != controllersMap.cend(); ++it) {
        AbsRGBControllerPtr controller = it.value().toStrongRef();
        if (controller)
            alive.insert(controller);
    }
    return alive;
}

bool OVControllerEnumerator::removeController(const QString& id)
{
    {
        QMutexLocker locker(&mutex);
        controllersMap.remove(id);
    }
    qInfo().noquote() << "[OVEnumerator]" << id << "removed";
    return true;
}

void OVControllerEnumerator::scanControllers()
{
    // The pool only dispatches: the handshake's objects must live on this object's thread.
    const QList<QSerialPortInfo> infos = QSerialPortInfo::availablePorts();
    for (const QSerialPortInfo& info : infos) {
        const QString name = info.systemLocation();
        scanTasks.ref();
        QThreadPool::globalInstance()->start([this, name]() {
            QMetaObject::invokeMethod(
                this, [this, name]() { verifyDevice(name); }, Qt::QueuedConnection);
            scanTasks.deref();
        });
    }
}

void OVControllerEnumerator::onDeviceArrival(QString deviceName)
{
    if (pendingArrivals.contains(deviceName))
        return;
    pendingArrivals.insert(deviceName);
    // Let the port settle; repeated notices within the delay fold into this one attempt.
    QTimer::singleShot(ArrivalDelayMs, this, [this, deviceName]() {
        verifyDevice(deviceName);
        pendingArrivals.remove(deviceName);
    });
}

void OVControllerEnumerator::verifyDevice(QString portName)
{
    qDebug().noquote() << "[OVControllerEnumerator]: Start verifying device:" << portName;

    auto* port = new OVSerialPort();
    if (!port->open(portName)) {
        qWarning().noquote() << "[OVControllerEnumerator]: Failed to init the serial port" << portName;
        delete port;
        return;
    }
    unattachedPorts.removeAll(QPointer<OVSerialPort>());
    unattachedPorts.append(port);

    auto handshake = QSharedPointer<Handshake>::create();
    QTimer* timer = handshake->timer.data();
    const QPointer<OVSerialPort> guardedPort(port);

    connect(
        port->serialPort(), &QSerialPort::readyRead, this,
        [this, guardedPort, portName, handshake]() { onReply(guardedPort, portName, handshake); },
        Qt::QueuedConnection);
    connect(this, &OVControllerEnumerator::sendSalutation, port, &OVSerialPort::write, Qt::QueuedConnection);
    // One signal for every port: each port still waiting hears the salutation again.
    emit sendSalutation(QByteArrayLiteral("Moni-A"));

    timer->setSingleShot(true);
    timer->setInterval(ResponseTimeoutMs);
    // The handshake state lives in the reply handler's connection; the timer holds it weakly.
    Handshake* state = handshake.data();
    connect(timer, &QTimer::timeout, this,
            [this, guardedPort, portName, state]() { onResponseTimeout(guardedPort, portName, state); });
    timer->start();
}

void OVControllerEnumerator::onResponseTimeout(OVSerialPort* port, const QString& portName,
                                               Handshake* handshake)
{
    qInfo().noquote() << "device response timeout：" << portName;
    if (port) {
        handshake->dropped = true;
        port->deleteLater();
    }
}

void OVControllerEnumerator::onReply(OVSerialPort* port, const QString& portName,
                                     const QSharedPointer<Handshake>& handshake)
{
    if (!port)
        return;
    if (handshake->dropped) {
        // Queued in the same pass as the time-out that already let the port go.
        qInfo().noquote() << "[OVControllerEnumerator]: Ignored a reply on a port already dropped:"
                          << portName;
        return;
    }
    disconnect(this, &OVControllerEnumerator::sendSalutation, port, &OVSerialPort::write);

    // A port already handed to a controller lives on its own thread, so its bytes are drained
    // there. Whatever it says later, cut differently or chatter, is not a new device: two
    // controllers on one port would write over each other and the first release would leave the
    // other with a dangling port.
    QSerialPort* serial = port->serialPort();
    if (port->thread() != thread()) {
        QByteArray late;
        QMetaObject::invokeMethod(
            port, [serial]() { return serial->readAll(); }, Qt::BlockingQueuedConnection, &late);
        qInfo().noquote() << "[OVControllerEnumerator]: Ignored data on a port that already drives a device:"
                          << quoted(portName) << quoted(late);
        return;
    }

    // Whatever has arrived by now is the whole reply.
    const QByteArray bytes = serial->readAll();
    if (bytes.isEmpty() || !bytes.toUpper().startsWith("OV")) {
        qInfo().noquote() << QStringLiteral("Failed to verify deviece <%1>").arg(portName);
        handshake->dropped = true;
        port->deleteLater();
        return;
    }

    handshake->timer->stop();
    qInfo().noquote() << Tag << quoted(portName) << "returned" << quoted(bytes);

    // Byte for byte, so a serial's bytes come back unchanged in its hexadecimal form.
    QString s = QString::fromLatin1(bytes);
    s.chop(2);
    qInfo().noquote() << Tag << quoted(portName) << "removed the raw string tail:" << quoted(s);
    if (s.contains(QLatin1String("\r\n"))) {
        s.remove(0, 2);
        qInfo().noquote() << Tag << quoted(portName) << "removed the raw string hreader:" << quoted(s);
    }

    ControlOptions options;
    options.portName = portName;
    if (s.size() > 6 && s.at(6) == QLatin1Char(',')) {
        qDebug().noquote() << "[OVControllerEnumerator]: Loading device serial and model:" << portName;
        options.model = s.left(6);
        const QStringList fields = s.split(QLatin1Char(','), Qt::KeepEmptyParts);
        options.serial = QString::fromLatin1(fields.at(1).toLatin1().toHex().toUpper());
        options.id = fields.at(0).toUpper() + QLatin1Char(':') + options.serial;
    } else {
        qDebug().noquote() << "[OVControllerEnumerator]: The device has no serial:" << portName;
        options.id = s.toUpper();
        options.model = options.id;
    }
    qInfo().noquote() << Tag << quoted(portName) << "id:" << quoted(options.id);

    bool known = false;
    {
        QMutexLocker locker(&mutex);
        known = controllersMap.contains(options.id);
    }
    if (known) {
        // The port stays open and unattached; it goes with this enumerator at the latest.
        qWarning().noquote() << "[OVControllerEnumerator]: The device already exists" << options.id;
        return;
    }

    unattachedPorts.removeAll(QPointer<OVSerialPort>(port));
    auto* ovController = new OVController(options, port, nullptr);
    AbsRGBControllerPtr controller(ovController, &QObject::deleteLater);

    // Saved settings beat the model's defaults.
    loadDefaults(ovController);
    ovController->loadConfig();
    ControlOptions& settled = ovController->controlOptions();
    if (settled.kindName.isEmpty())
        settled.kindName = portName;
    if (settled.icon.isNull())
        settled.icon = QImage(QString::fromLatin1(DefaultIcon));
    ovController->updateFrameHeader();
    ovController->saveConfig();

    const QString id = options.id;
    connect(
        ovController, &AbsRGBController::statusChanged, this,
        [this, id](uint32_t status, QString description) { onControllerStatus(id, status, description); },
        Qt::QueuedConnection);

    {
        QMutexLocker locker(&mutex);
        controllersMap.insert(id, controller.toWeakRef());
    }
    qInfo().noquote() << "OVControllerEnumerator found a device:" << id;
    emit deviceEnabled(controller);
}

void OVControllerEnumerator::onControllerStatus(const QString& id, uint32_t status,
                                                const QString& description)
{
    Q_UNUSED(description)
    if (status == 0)
        return;
    qInfo().noquote() << "[OVEnumerator]" << id << "has an error";
    removeController(id);
}

void OVControllerEnumerator::loadDefaults(AbsRGBController* controller)
{
    // Data lies in the working directory or, failing that, beside the program.
    QFile file(locateDefaultsFile(QString::fromLatin1(DefaultsFile)));
    const QString baseDir = QFileInfo(file.fileName()).isAbsolute() ? QCoreApplication::applicationDirPath()
                                                                    : QDir::currentPath();
    if (!file.open(QIODevice::ReadOnly)) {
        qCritical().noquote()
            << "[OVControllerEnumerator]: Failed to open \"controler_config/OVController.json\", errStr:"
            << file.errorString();
        return;
    }
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(file.readAll(), &error);
    if (error.error != QJsonParseError::NoError) {
        qCritical().noquote()
            << "[OVControllerEnumerator]: Failed to parse json document from OVController.json, errStr:"
            << error.errorString();
        return;
    }

    ControlOptions& options = controller->controlOptions();
    const QJsonObject entry = document.object().value(options.model).toObject();
    options.nbLeds = toCount(entry.value(QLatin1String("nbLeds")));
    options.icon = loadPicture(baseDir, entry.value(QLatin1String("icon")).toString());
    options.image = loadPicture(baseDir, entry.value(QLatin1String("image")).toString());
    options.brightness = float(entry.value(QLatin1String("brightness")).toDouble(0.8));

    uint64_t sum = 0;
    const QJsonArray lines = entry.value(QLatin1String("lines")).toArray();
    for (const QJsonValue& line : lines) {
        const uint32_t count = toCount(line);
        options.lines.append(count);
        sum += count;
    }
    if (sum != options.nbLeds || sum == 0 || options.nbLeds == 0)
        qWarning().noquote()
            << "[OVControllerEnumerator]: Incorrect configuration from default configuration file";
}

ControlOptions OVControllerEnumerator::readOVControllerConfig(const QString& model, const QString& serial)
{
    ControlOptions options;
    const QString dataDir = QStandardPaths::writableLocation(QStandardPaths::AppLocalDataLocation);
    const QStringList paths{
        dataDir + QLatin1String("/controler_config/") + model + QLatin1Char('_') + serial +
            QLatin1String(".json"),
        dataDir + QLatin1String("/controler_config/") + model + QLatin1String(".json"),
        QCoreApplication::applicationDirPath() + QLatin1String("/controler_config/") + model +
            QLatin1String(".json"),
    };
    for (const QString& path : paths) {
        qDebug().noquote() << "ReadOVControllerConfig:" << path;
        QFile file(path);
        if (!file.open(QIODevice::ReadOnly)) {
            qDebug().noquote() << "***" << path;
            continue;
        }
        const QJsonDocument document = QJsonDocument::fromJson(file.readAll());
        if (!document.isObject())
            continue;
        const QJsonObject object = document.object();
        const uint32_t keyLen = uint32_t(object.value(QLatin1String("key_len")).toInt());
        const uint32_t keyWid = uint32_t(object.value(QLatin1String("key_wid")).toInt());
        const uint32_t keyNum = uint32_t(object.value(QLatin1String("key_num")).toInt());
        options.nbLeds = keyNum;
        options.lines = {keyLen, keyWid, keyLen};
        break;
    }
    return options;
}
