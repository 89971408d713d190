#include "devices/OVControllerEnumerator.h"

#include "devices/ExtraPortsWatcher.h"
#include "devices/HandshakeReply.h"
#include "devices/LedLayout.h"
#include "devices/ModelDefaults.h"
#include "devices/OVController.h"
#include "devices/OVSerialPort.h"
#include "devices/PortArrivalWatcher.h"
#include "service/config/DataPaths.h"

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

#include <algorithm>

// The compiled-in pictures live in this static library; register them before the first use.
static void initDeviceResources()
{
    Q_INIT_RESOURCE(devices);
}

namespace {

// A port's removal and error lines log as "[OVEnumerator]", the name their fixed texts give.
constexpr char kTag[] = "[OVControllerEnumerator]:";

const char* const kDefaultsFile = "controler_config/OVController.json";
const char* const kDefaultIcon = ":/images/Ov5512Icon.jpg";
const int kScanIntervalMs = 100;
const int kArrivalDelayMs = 500;
const int kResponseTimeoutMs = 5000;

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

// A model without a picture gets a null image, quietly: QImage warns about an empty name.
QImage loadPicture(const QString& path)
{
    return path.isEmpty() ? QImage() : QImage(DataPaths::locate(path));
}

} // namespace

// One port's handshake, shared by its reply and time-out handlers.
struct OVControllerEnumerator::Handshake
{
    // Deleted on the enumerator's thread even when the last holder lets go on a port thread.
    QSharedPointer<QTimer> timer{new QTimer(), &QObject::deleteLater};
    QMetaObject::Connection replies;     // readyRead to the reply handler
    QMetaObject::Connection failures;    // errorOccurred to the unplug handler
    QMetaObject::Connection salutations; // sendSalutation to the port
    // Set once the reply is decided: a reply queued in the same pass, or data after the reply on a
    // port that has moved to its controller's thread, never reaches the port from here.
    bool done = false;

    // Cuts every link between the port and the enumerator while both are on this thread. A link
    // left to a port on its controller's thread would queue calls here from there, and a slot
    // queued across threads as the enumerator goes was seen to leak.
    void end()
    {
        done = true;
        QObject::disconnect(replies);
        QObject::disconnect(failures);
        QObject::disconnect(salutations);
    }
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
    while (scanTasks.loadAcquire() > 0) {
        QThread::yieldCurrentThread();
    }

    // Ports still in their handshake, or answered with a known id, have no other owner.
    for (const auto& entry : qAsConst(unattachedPorts)) {
        if (entry.first && entry.first->thread() == thread()) {
            delete entry.first.data();
        }
    }
}

void OVControllerEnumerator::startScan()
{
    qInfo().noquote() << kTag << "Begin scan devices list";

    // Full device paths throughout, the form udev and ORVANTA_EXTRA_PORTS give too.
    auto ports = QSharedPointer<QStringList>::create();
    const QList<QSerialPortInfo> infos = QSerialPortInfo::availablePorts();
    for (const QSerialPortInfo& info : infos) {
        ports->append(info.systemLocation());
    }
    const QStringList extra = ExtraPortsWatcher::expandEntries(ExtraPortsWatcher::configuredEntries());
    for (const QString& path : extra) {
        if (!ports->contains(path)) {
            ports->append(path);
        }
    }

    auto* scanTimer = new QTimer(this);
    scanTimer->setInterval(kScanIntervalMs);
    connect(scanTimer, &QTimer::timeout, this, [this, scanTimer, ports]() {
        if (ports->isEmpty()) {
            qInfo().noquote() << kTag << "End scan devices list";
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
        if (controller) {
            alive.insert(controller);
        }
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

void OVControllerEnumerator::holdArrivals()
{
    holding = true;
}

void OVControllerEnumerator::releaseArrivals(const QStringList& alsoArrived)
{
    holding = false;
    QStringList names = heldArrivals;
    heldArrivals.clear();
    for (const QString& name : alsoArrived) {
        if (!names.contains(name)) {
            names.append(name);
        }
    }
    for (const QString& name : qAsConst(names)) {
        onDeviceArrival(name);
    }
}

void OVControllerEnumerator::onDeviceArrival(QString deviceName)
{
    if (holding) {
        if (!heldArrivals.contains(deviceName)) {
            heldArrivals.append(deviceName);
        }
        return;
    }
    if (pendingArrivals.contains(deviceName)) {
        return;
    }
    pendingArrivals.insert(deviceName);
    // Let the port settle; repeated notices within the delay fold into this one attempt.
    QTimer::singleShot(kArrivalDelayMs, this, [this, deviceName]() {
        verifyDevice(deviceName);
        pendingArrivals.remove(deviceName);
    });
}

bool OVControllerEnumerator::isOpenHere(const QString& portName)
{
    const QString file = QFileInfo(portName).canonicalFilePath();
    if (file.isEmpty()) {
        return false;
    }
    const auto same = [&file](const QString& name) { return QFileInfo(name).canonicalFilePath() == file; };
    for (const auto& entry : qAsConst(unattachedPorts)) {
        if (entry.first && same(entry.second)) {
            return true;
        }
    }
    QMutexLocker locker(&mutex);
    for (const QWeakPointer<AbsRGBController>& weak : qAsConst(controllersMap)) {
        const AbsRGBControllerPtr controller = weak.toStrongRef();
        if (controller && same(controller->controlOptions().portName)) {
            return true;
        }
    }
    return false;
}

void OVControllerEnumerator::verifyDevice(QString portName)
{
    qDebug().noquote() << kTag << "Start verifying device:" << portName;

    // A second handle on a port would salute a device that is already talking, and two readers
    // would share its bytes.
    // A port that failed (its device unplugged) holds nothing and must not stand in the way of
    // the device coming back at the same name.
    unattachedPorts.erase(std::remove_if(unattachedPorts.begin(), unattachedPorts.end(),
                                         [](const auto& entry) {
                                             if (entry.first && !entry.first->serialPort()->isOpen()) {
                                                 entry.first->deleteLater();
                                                 return true;
                                             }
                                             return entry.first.isNull();
                                         }),
                          unattachedPorts.end());
    if (isOpenHere(portName)) {
        qInfo().noquote() << kTag << "The port is open here already, not opened again:" << portName;
        return;
    }

    auto* port = new OVSerialPort();
    if (!port->open(portName)) {
        qWarning().noquote() << kTag << "Failed to init the serial port" << portName;
        const QSerialPort::SerialPortError error = port->serialPort()->error();
        delete port;
        explainFailedOpen(portName, error);
        return;
    }
    unattachedPorts.append({port, portName});
    // The reply is short: a device that streams cannot fill memory while it is judged.
    port->serialPort()->setReadBufferSize(HandshakeReply::maxBytes);

    auto handshake = QSharedPointer<Handshake>::create();
    QTimer* timer = handshake->timer.data();
    const QPointer<OVSerialPort> guardedPort(port);

    handshake->replies = connect(
        port->serialPort(), &QSerialPort::readyRead, this,
        [this, guardedPort, portName, handshake]() { takeReply(guardedPort, portName, handshake, false); },
        Qt::QueuedConnection);
    handshake->salutations = connect(this, &OVControllerEnumerator::sendSalutation, port,
                                     &OVSerialPort::write, Qt::QueuedConnection);
    // One signal for every port: each port still waiting hears the salutation again.
    emit sendSalutation(QByteArrayLiteral("Moni-A"));

    timer->setSingleShot(true);
    timer->setInterval(kResponseTimeoutMs);
    // The handshake state lives in the reply handler's connection; the timer holds it weakly.
    const QWeakPointer<Handshake> state = handshake;
    connect(timer, &QTimer::timeout, this, [this, guardedPort, portName, state]() {
        if (const QSharedPointer<Handshake> alive = state.toStrongRef()) {
            takeReply(guardedPort, portName, alive, true);
        }
    });
    timer->start();
    // Unplugged during its handshake: dropped now rather than at the timeout, so that the device,
    // back at the same name within that time, is saluted again.
    handshake->failures =
        connect(port->serialPort(), &QSerialPort::errorOccurred, this,
                [this, guardedPort, portName, state](QSerialPort::SerialPortError error) {
                    const QSharedPointer<Handshake> alive = state.toStrongRef();
                    if (!alive || alive->done || !guardedPort ||
                        (error != QSerialPort::ReadError && error != QSerialPort::WriteError &&
                         error != QSerialPort::ResourceError)) {
                        return;
                    }
                    qInfo().noquote() << kTag << "The port failed during its handshake:" << portName;
                    drop(guardedPort, alive.data());
                });
}

void OVControllerEnumerator::explainFailedOpen(const QString& portName, QSerialPort::SerialPortError error)
{
    // Meant: a USB adapter, or a port the user named; on-board ports (ttyS) are probed by every
    // scan and are never the user's strip.
    const QString file = QFileInfo(portName).canonicalFilePath();
    for (const QString& name : {portName, file}) {
        if (QFileInfo(name).fileName().startsWith(QLatin1String("ttyS"))) {
            return;
        }
    }
    const bool named =
        ExtraPortsWatcher::expandEntries(ExtraPortsWatcher::configuredEntries()).contains(portName);
    if (!named && !QSerialPortInfo(portName).hasVendorIdentifier()) {
        return;
    }
    const PortProblem problem =
        PortAccess::diagnose(portName, PortAccess::facts(portName), error == QSerialPort::PermissionError);
    if (problem.kind == PortProblem::Kind::None) {
        return;
    }
    qWarning().noquote()
        << QStringLiteral("%1 Cannot open %2: %3").arg(QLatin1String(kTag), portName, problem.remedy());
    emit portNotOpened(problem);
}

void OVControllerEnumerator::drop(OVSerialPort* port, Handshake* handshake)
{
    handshake->end();
    port->deleteLater();
}

void OVControllerEnumerator::takeReply(const QPointer<OVSerialPort>& port, const QString& portName,
                                       QSharedPointer<Handshake> handshake, bool final)
{
    if (handshake->done) {
        if (!final) {
            qInfo().noquote() << kTag << "Ignored a reply on a port already dropped:" << portName;
        }
        return;
    }
    if (!port) {
        return;
    }
    QSerialPort* serial = port->serialPort();
    // Only the first bytes: whoever answers later no longer hears the salutation again.
    if (serial->bytesAvailable() > 0) {
        disconnect(handshake->salutations);
    }

    const HandshakeReply reply = HandshakeReply::parse(serial->peek(HandshakeReply::maxBytes), final);
    switch (reply.verdict) {
    case HandshakeReply::Verdict::Incomplete:
        if (final) {
            qInfo().noquote() << "device response timeout：" << portName;
            drop(port, handshake.data());
        }
        return;
    case HandshakeReply::Verdict::NotADevice:
        qInfo().noquote() << QStringLiteral("Failed to verify deviece <%1>").arg(portName);
        drop(port, handshake.data());
        return;
    case HandshakeReply::Verdict::TooLong:
        qWarning().noquote() << kTag << "Refused a reply of more than" << HandshakeReply::maxBytes
                             << "bytes without a line end on" << quoted(portName) << "beginning"
                             << quoted(serial->peek(16));
        drop(port, handshake.data());
        return;
    case HandshakeReply::Verdict::Device:
        break;
    }

    handshake->end();
    handshake->timer->stop();
    const QByteArray bytes = serial->read(reply.length);
    qInfo().noquote() << kTag << quoted(portName) << "returned" << quoted(bytes);
    qInfo().noquote() << kTag << quoted(portName) << "removed the raw string tail:" << quoted(reply.text);

    ControlOptions options;
    options.portName = portName;
    options.model = reply.model;
    options.serial = reply.serial;
    options.id = reply.id;
    if (reply.hasSerial) {
        qDebug().noquote() << kTag << "Loading device serial and model:" << portName;
    } else {
        qDebug().noquote() << kTag << "The device has no serial:" << portName;
    }
    qInfo().noquote() << kTag << quoted(portName) << "id:" << quoted(options.id);

    bool known = false;
    {
        QMutexLocker locker(&mutex);
        known = controllersMap.contains(options.id);
    }
    if (known) {
        // The port stays open and unattached; it goes with this enumerator at the latest.
        qWarning().noquote() << kTag << "The device already exists" << options.id;
        return;
    }
    attach(port, portName, options);
}

void OVControllerEnumerator::attach(OVSerialPort* port, const QString& portName,
                                    const ControlOptions& options)
{
    unattachedPorts.erase(std::remove_if(unattachedPorts.begin(), unattachedPorts.end(),
                                         [port](const auto& entry) { return entry.first == port; }),
                          unattachedPorts.end());
    auto* ovController = new OVController(options, port, nullptr);
    AbsRGBControllerPtr controller(ovController, &QObject::deleteLater);

    // Saved settings beat the model's defaults.
    loadDefaults(ovController);
    ovController->loadConfig();
    ControlOptions& settled = ovController->controlOptions();
    if (settled.kindName.isEmpty()) {
        settled.kindName = portName;
    }
    if (settled.icon.isNull()) {
        settled.icon = QImage(QString::fromLatin1(kDefaultIcon));
    }
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
    if (status == 0) {
        return;
    }
    qInfo().noquote() << "[OVEnumerator]" << id << "has an error";
    removeController(id);
}

void OVControllerEnumerator::loadDefaults(AbsRGBController* controller)
{
    QFile file(DataPaths::locate(QString::fromLatin1(kDefaultsFile)));
    if (!file.open(QIODevice::ReadOnly)) {
        qCritical().noquote() << kTag << "Failed to open \"controler_config/OVController.json\", errStr:"
                              << file.errorString();
        return;
    }
    const ModelDefaults defaults = ModelDefaults::parse(file.readAll(), controller->controlOptions().model);
    if (!defaults.parsed) {
        qCritical().noquote() << kTag << "Failed to parse json document from OVController.json, errStr:"
                              << defaults.parseError;
        return;
    }

    ControlOptions& options = controller->controlOptions();
    options.nbLeds = defaults.nbLeds;
    options.lines = defaults.lines;
    options.icon = loadPicture(defaults.icon);
    options.image = loadPicture(defaults.image);
    options.brightness = defaults.brightness;

    if (!defaults.layoutInRange) {
        qWarning().noquote()
            << kTag << "The layout of" << options.model
            << "in \"controler_config/OVController.json\" is ignored, its strips count as not "
               "configured:"
            << defaults.layoutProblem;
    } else if (!LedLayout::problem(options.nbLeds, options.lines).isEmpty()) {
        qWarning().noquote() << kTag << "Incorrect configuration from default configuration file";
    }
}

ControlOptions OVControllerEnumerator::readOVControllerConfig(const QString& model, const QString& serial)
{
    ControlOptions options;
    const QString dataDir = QStandardPaths::writableLocation(QStandardPaths::AppLocalDataLocation);
    const QStringList paths{
        dataDir + QLatin1String("/controler_config/") + model + QLatin1Char('_') + serial +
            QLatin1String(".json"),
        dataDir + QLatin1String("/controler_config/") + model + QLatin1String(".json"),
        DataPaths::locate(QLatin1String("controler_config/") + model + QLatin1String(".json"),
                          DataPaths::First::ProgramFolder),
    };
    for (const QString& path : paths) {
        qDebug().noquote() << "ReadOVControllerConfig:" << path;
        QFile file(path);
        if (!file.open(QIODevice::ReadOnly)) {
            qDebug().noquote() << "***" << path;
            continue;
        }
        const QJsonDocument document = QJsonDocument::fromJson(file.readAll());
        if (!document.isObject()) {
            continue;
        }
        const QJsonObject object = document.object();
        uint32_t keyLen = 0;
        uint32_t keyWid = 0;
        uint32_t keyNum = 0;
        if (!LedLayout::readCount(object.value(QLatin1String("key_len")), &keyLen) ||
            !LedLayout::readCount(object.value(QLatin1String("key_wid")), &keyWid) ||
            !LedLayout::readCount(object.value(QLatin1String("key_num")), &keyNum)) {
            qWarning().noquote() << "ReadOVControllerConfig: a count beyond" << LedLayout::maxLeds << "in"
                                 << path;
            break;
        }
        options.nbLeds = keyNum;
        options.lines = {keyLen, keyWid, keyLen};
        break;
    }
    return options;
}
