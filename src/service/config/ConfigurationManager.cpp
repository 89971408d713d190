#include "service/config/ConfigurationManager.h"

#include "service/config/ConfigurationFile.h"
#include "service/config/ConfigurationWriter.h"
#include "service/config/SignalStack.h"

#include "service/config/DataPaths.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonParseError>
#include <QMutexLocker>
#include <QStandardPaths>
#include <QThread>
#include <QUrl>

namespace {

constexpr char kTag[] = "[ConfigurationManager]";

const QString kCleanStartup = QStringLiteral("cleanStartup");
// How long a write may lag its change: its write begins within this, and changes within this
// window reach the disk together.
constexpr int kWriteLagMs = 250;

// Moves an unreadable file out of the way under a name that says when, so that the next save
// cannot overwrite what the user had.
void setAside(const QString& path, const QString& reason)
{
    const QString stamp = QDateTime::currentDateTime().toString(QStringLiteral("yyyyMMdd-hhmmss"));
    QString aside = path + QStringLiteral(".corrupt-") + stamp;
    for (int n = 1; QFileInfo::exists(aside); ++n) {
        aside = path + QStringLiteral(".corrupt-") + stamp + QLatin1Char('-') + QString::number(n);
    }
    if (QFile::rename(path, aside)) {
        qWarning().noquote() << kTag << "Set aside unreadable file" << path << "as" << aside
                             << "(" + reason + "); starting from defaults";
    } else {
        qWarning().noquote() << kTag << "Unreadable file" << path << "(" + reason + ")"
                             << "could not be set aside; starting from defaults";
    }
}

// A missing file is an empty object. A file that does not hold a JSON object (or is larger than
// any settings file) is set aside when it belongs to the store, or only reported when it is
// read-only program data. A file that is there but cannot be read (permission, I/O error, not a
// regular file) is reported, and `leaveAlone` tells the store never to write over it.
QJsonObject readObjectFile(const QString& path, bool ownedByStore, bool* leaveAlone = nullptr)
{
    const ConfigurationFile::ReadResult file = ConfigurationFile::read(path);
    QString reason = file.error;
    switch (file.status) {
    case ConfigurationFile::Status::Missing:
        return QJsonObject();
    case ConfigurationFile::Status::NotRegular:
    case ConfigurationFile::Status::Unreadable:
        qWarning().noquote() << kTag << "Cannot read" << path << "(" + reason + ");"
                             << (ownedByStore ? "its settings run on defaults and the file is left as it is"
                                              : "ignored");
        if (leaveAlone) {
            *leaveAlone = ownedByStore;
        }
        return QJsonObject();
    case ConfigurationFile::Status::TooLarge:
        break;
    case ConfigurationFile::Status::Read: {
        QJsonParseError error;
        const QJsonDocument doc = QJsonDocument::fromJson(file.bytes, &error);
        if (error.error != QJsonParseError::NoError) {
            reason = error.errorString() + QStringLiteral(" at offset ") + QString::number(error.offset);
        } else if (!doc.isObject()) {
            reason = QStringLiteral("not a JSON object");
        } else {
            return doc.object();
        }
        break;
    }
    }
    if (ownedByStore) {
        setAside(path, reason);
    } else {
        qWarning().noquote() << kTag << "Ignoring malformed file" << path << "(" + reason + ")";
    }
    return QJsonObject();
}

// Keys become file names: everything outside [A-Za-z0-9-._~] is percent-encoded, so no key can
// climb out of its folder or collide with another.
QString safeFileName(const QString& key)
{
    return QString::fromLatin1(QUrl::toPercentEncoding(key)) + QStringLiteral(".json");
}

void removeJsonFiles(const QString& dirPath)
{
    QDir dir(dirPath);
    const QStringList names = dir.entryList({QStringLiteral("*.json")}, QDir::Files | QDir::Hidden);
    for (const QString& name : names) {
        if (!dir.remove(name)) {
            qWarning().noquote() << kTag << "Failed to remove" << dir.filePath(name);
        }
    }
}

QJsonValue valueAtPath(const QJsonObject& root, const QStringList& path)
{
    QJsonValue current = root;
    for (const QString& level : path) {
        if (!current.isObject()) {
            return QJsonValue(QJsonValue::Undefined);
        }
        current = current.toObject().value(level);
    }
    return current;
}

void insertAtPath(QJsonObject& root, const QStringList& path, int index, const QJsonValue& value)
{
    const QString& level = path.at(index);
    if (index == path.size() - 1) {
        root.insert(level, value);
        return;
    }
    // A level in the way that is not an object is replaced by one.
    QJsonObject child = root.value(level).toObject();
    insertAtPath(child, path, index + 1, value);
    root.insert(level, child);
}

} // namespace

ConfigurationManager* ConfigurationManager::instance()
{
    static ConfigurationManager store;
    return &store;
}

ConfigurationManager::ConfigurationManager()
    : configDir(QStandardPaths::writableLocation(QStandardPaths::AppConfigLocation))
    , logsDir(QStandardPaths::writableLocation(QStandardPaths::AppLocalDataLocation) +
              QStringLiteral("/logs"))
{
}

ConfigurationManager::~ConfigurationManager()
{
    stopWriter();
}

void ConfigurationManager::startWriter()
{
    // Without an application object there is no thread to write on; the caller writes itself.
    if (writer || !QCoreApplication::instance()) {
        return;
    }
    writerThread = std::make_unique<QThread>();
    writerThread->setObjectName(QStringLiteral("ConfigurationWriter"));
    writer = std::make_unique<ConfigurationWriter>(kWriteLagMs);
    writer->moveToThread(writerThread.get());
    SignalStack::watch(writerThread.get());
    writerThread->start(QThread::LowPriority);
    // Whatever is pending when the application object goes still reaches the disk.
    qAddPostRoutine(&ConfigurationManager::stopWriterAtExit);
}

void ConfigurationManager::stopWriterAtExit()
{
    instance()->stopWriter();
}

void ConfigurationManager::stopWriter()
{
    QMutexLocker locker(&writeMutex);
    if (!writer) {
        return;
    }
    QMetaObject::invokeMethod(writer.get(), &ConfigurationWriter::writePending, Qt::BlockingQueuedConnection);
    writerThread->quit();
    writerThread->wait();
    writer.reset();
    writerThread.reset();
}

QJsonObject ConfigurationManager::readStoreFile(const QString& path)
{
    bool leaveAlone = false;
    const QJsonObject object = readObjectFile(path, true, &leaveAlone);
    QMutexLocker locker(&writeMutex);
    if (leaveAlone) {
        leftAlone.insert(path);
        return object;
    }
    startWriter();
    if (writer) {
        QMetaObject::invokeMethod(
            writer.get(), [w = writer.get(), path, object]() { w->noteOnDisk(path, object); },
            Qt::QueuedConnection);
    }
    return object;
}

void ConfigurationManager::requestWrite(const QString& path, const QJsonObject& object)
{
    // Costs a copy of shared data and a queued call: callers may save at every change.
    const qint64 requestedMs = ConfigurationWriter::nowMs(); // the writer's lag runs from here
    QMutexLocker locker(&writeMutex);
    if (leftAlone.contains(path)) {
        return;
    }
    startWriter();
    if (!writer) {
        QString error;
        if (!ConfigurationWriter::writeFile(path, object, &error)) {
            qWarning().noquote() << kTag << "Failed to save" << path << ":" << error;
        }
        return;
    }
    QMetaObject::invokeMethod(
        writer.get(),
        [w = writer.get(), path, object, requestedMs]() { w->enqueue(path, object, requestedMs); },
        Qt::QueuedConnection);
}

void ConfigurationManager::flush()
{
    ConfigurationWriter* current = nullptr;
    {
        QMutexLocker locker(&writeMutex);
        current = writer.get();
    }
    // Not under the lock: a thread that saves meanwhile must not wait for the disk.
    if (current) {
        QMetaObject::invokeMethod(current, &ConfigurationWriter::writePending, Qt::BlockingQueuedConnection);
    }
}

void ConfigurationManager::removeLeftovers()
{
    const QStringList removed = ConfigurationFile::removeTemporaries(storeDir());
    for (const QString& path : removed) {
        qInfo().noquote() << kTag << "Removed" << path << ", a save cut short by the end of an earlier run";
    }
}

QString ConfigurationManager::logsPath()
{
    QDir().mkpath(logsDir);
    return logsDir;
}

QString ConfigurationManager::configPath()
{
    QDir().mkpath(configDir);
    return configDir;
}

QString ConfigurationManager::storeDir()
{
    return configDir;
}

QString ConfigurationManager::globalFile()
{
    return storeDir() + QStringLiteral("/global.json");
}

QString ConfigurationManager::appFile()
{
    return storeDir() + QStringLiteral("/app.json");
}

QString ConfigurationManager::controllerFile(const QString& key)
{
    return storeDir() + QStringLiteral("/controllers/") + safeFileName(key);
}

QString ConfigurationManager::effectFile(const QString& effectId)
{
    return storeDir() + QStringLiteral("/effects/") + safeFileName(effectId);
}

void ConfigurationManager::ensureGlobal()
{
    if (!globalLoaded) {
        global = readStoreFile(globalFile());
        globalLoaded = true;
    }
}

void ConfigurationManager::ensureApp()
{
    if (!appLoaded) {
        app = readStoreFile(appFile());
        appLoaded = true;
    }
}

QJsonValue ConfigurationManager::globalValue(const QString& key)
{
    ensureGlobal();
    if (key.isEmpty()) {
        return QJsonValue(QJsonValue::Undefined);
    }
    return valueAtPath(global, key.split(QLatin1Char('/')));
}

void ConfigurationManager::setGlobalValue(const QString& key, const QJsonValue& value)
{
    ensureGlobal();
    global.insert(key, value);
}

void ConfigurationManager::setGlobalValue(const QStringList& path, const QJsonValue& value)
{
    if (path.isEmpty()) {
        return;
    }
    ensureGlobal();
    insertAtPath(global, path, 0, value);
}

void ConfigurationManager::saveGlobalValues()
{
    ensureGlobal();
    requestWrite(globalFile(), global);
}

void ConfigurationManager::reset()
{
    {
        // Nothing asked for before the wipe may land after it.
        QMutexLocker writeLocker(&writeMutex);
        if (writer) {
            QMetaObject::invokeMethod(writer.get(), &ConfigurationWriter::discardPending,
                                      Qt::BlockingQueuedConnection);
        }
        leftAlone.clear();
    }
    QMutexLocker locker(&effectMutex);
    global = QJsonObject();
    globalLoaded = false;
    app = QJsonObject();
    appLoaded = false;
    controllers.clear();
    effects.clear();
    // Only the store's own files go; set-aside copies, dumps and screenshots stay.
    QFile::remove(globalFile());
    QFile::remove(appFile());
    removeJsonFiles(storeDir() + QStringLiteral("/controllers"));
    removeJsonFiles(storeDir() + QStringLiteral("/effects"));
    qInfo().noquote() << kTag << "Configuration reset in" << storeDir();
}

void ConfigurationManager::EnableCleanStartup()
{
    setGlobalValue(kCleanStartup, true);
    saveGlobalValues();
}

void ConfigurationManager::save()
{
    // Scopes never read are not written: their files are as they were.
    if (globalLoaded) {
        requestWrite(globalFile(), global);
    }
    if (appLoaded) {
        requestWrite(appFile(), app);
    }
    for (auto it = controllers.cbegin(); it != controllers.cend(); ++it) {
        requestWrite(controllerFile(it.key()), it.value());
    }
    {
        QMutexLocker locker(&effectMutex);
        const QStringList ids = effects.keys();
        for (const QString& id : ids) {
            saveEffectLocked(id);
        }
    }
    flush();
}

QJsonObject& ConfigurationManager::AppConfigJsonObj()
{
    ensureApp();
    return app;
}

void ConfigurationManager::saveAppConfigJsonObj()
{
    ensureApp();
    requestWrite(appFile(), app);
}

QJsonObject& ConfigurationManager::controllerJsonObj(const QString& key)
{
    auto it = controllers.find(key);
    if (it == controllers.end()) {
        it = controllers.insert(key, readStoreFile(controllerFile(key)));
    }
    return it.value();
}

void ConfigurationManager::saveControllerJsonObj(const QString& key)
{
    requestWrite(controllerFile(key), controllerJsonObj(key));
}

QJsonObject& ConfigurationManager::effectObjectLocked(const QString& effectId)
{
    auto it = effects.find(effectId);
    if (it == effects.end()) {
        it = effects.insert(effectId, readStoreFile(effectFile(effectId)));
    }
    return it.value();
}

QJsonValue ConfigurationManager::storedEffectValueLocked(const QString& effectId, const QString& controllerId,
                                                         const QString& key)
{
    const QJsonValue entry = effectObjectLocked(effectId).value(controllerId);
    if (key.isNull()) {
        return entry;
    }
    if (!entry.isObject()) {
        return QJsonValue(QJsonValue::Undefined);
    }
    return entry.toObject().value(key);
}

void ConfigurationManager::saveEffectLocked(const QString& effectId)
{
    requestWrite(effectFile(effectId), effectObjectLocked(effectId));
}

QJsonValue ConfigurationManager::effectJsonValue(QString effectId, QString controllerId, QString key)
{
    QMutexLocker locker(&effectMutex);
    return storedEffectValueLocked(effectId, controllerId, key);
}

QJsonValue ConfigurationManager::effectJsonValue(QString effectId, QString controllerId, QString key,
                                                 QString defaultsFile)
{
    {
        QMutexLocker locker(&effectMutex);
        const QJsonValue stored = storedEffectValueLocked(effectId, controllerId, key);
        if (!stored.isUndefined()) {
            return stored;
        }
    }
    // Read outside the lock: the defaults file is program data, not shared state.
    const QJsonObject defaults = readObjectFile(DataPaths::locate(defaultsFile), false);
    if (key.isNull()) {
        return defaults;
    }
    return defaults.value(key);
}

void ConfigurationManager::setEffectJsonValue(QString effectId, QString controllerId, QString key,
                                              const QJsonValue& value)
{
    QMutexLocker locker(&effectMutex);
    QJsonObject& effect = effectObjectLocked(effectId);
    if (key.isNull()) {
        // The whole entry of that controller, as the null-key read hands it out.
        effect.insert(controllerId, value);
        return;
    }
    QJsonObject entry = effect.value(controllerId).toObject();
    entry.insert(key, value);
    effect.insert(controllerId, entry);
}

QVariant ConfigurationManager::effectVariant(QString effectId, QString controllerId, QString key)
{
    QMutexLocker locker(&effectMutex);
    const QJsonValue value = storedEffectValueLocked(effectId, controllerId, key);
    if (value.isUndefined() || value.isNull()) {
        // An invalid variant: toUInt reports failure, every other conversion gives 0.
        return QVariant();
    }
    return value.toVariant();
}

void ConfigurationManager::setEffectVariant(QString effectId, QString controllerId, QString key,
                                            QVariant value)
{
    const QJsonValue json =
        value.isValid() ? QJsonValue::fromVariant(value) : QJsonValue(QJsonValue::Undefined);
    setEffectJsonValue(effectId, controllerId, key, json);
}

void ConfigurationManager::saveEffectJsonObj(QString effectId)
{
    QMutexLocker locker(&effectMutex);
    saveEffectLocked(effectId);
}
