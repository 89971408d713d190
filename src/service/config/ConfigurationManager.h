#pragma once

#include <QJsonObject>
#include <QJsonValue>
#include <QMap>
#include <QMutex>
#include <QSet>
#include <QString>
#include <QStringList>
#include <QVariant>

#include <memory>

class ConfigurationWriter;
class QThread;

// The one configuration store: global values, the application object, one object per
// controller and effect values by effect id, controller id and key. JSON files under
// configPath(), every write atomic; a file that fails to parse is set aside, never overwritten.
// A file that is there but cannot be read is never written over: its scope runs on defaults.
// Values are readable at once; the save calls hand a copy to a writer thread, which writes a lone
// change at once, what follows within a fraction of a second together, and only what changed, so
// no caller waits on the disk and any thread may save at every change. A failed write is tried
// again until it works. save() and flush() write everything pending before they return.
class ConfigurationManager
{
public:
    static ConfigurationManager* instance();
    ~ConfigurationManager();

    QString logsPath();
    QString configPath();

    QJsonValue globalValue(const QString& key);
    void setGlobalValue(const QString& key, const QJsonValue& value);
    void setGlobalValue(const QStringList& path, const QJsonValue& value);
    void saveGlobalValues();

    void reset();
    void EnableCleanStartup();
    void save();
    // Removes what writes cut short by a kill left in the store; for the one instance running,
    // before its first write.
    void removeLeftovers();
    // Writes what the save calls have asked for and waits until it is on disk.
    void flush();

    QJsonObject& AppConfigJsonObj();
    void saveAppConfigJsonObj();

    QJsonObject& controllerJsonObj(const QString& key);
    void saveControllerJsonObj(const QString& key);

    // The effect-value calls may come from the screen sync worker thread: they lock.
    QJsonValue effectJsonValue(QString effectId, QString controllerId, QString key);
    QJsonValue effectJsonValue(QString effectId, QString controllerId, QString key, QString defaultsFile);
    void setEffectJsonValue(QString effectId, QString controllerId, QString key, const QJsonValue& value);
    QVariant effectVariant(QString effectId, QString controllerId, QString key);
    void setEffectVariant(QString effectId, QString controllerId, QString key, QVariant value);
    void saveEffectJsonObj(QString effectId);

private:
    ConfigurationManager();

    void ensureGlobal();
    void ensureApp();
    // The effect helpers expect effectMutex to be held by the caller.
    QJsonObject& effectObjectLocked(const QString& effectId);
    QJsonValue storedEffectValueLocked(const QString& effectId, const QString& controllerId,
                                       const QString& key);
    void saveEffectLocked(const QString& effectId);

    QString storeDir();
    QString globalFile();
    QString appFile();
    QString controllerFile(const QString& key);
    QString effectFile(const QString& effectId);

    // Hands the file to the writer, which writes it unless it holds that content already.
    void requestWrite(const QString& path, const QJsonObject& object);
    // Reads one of the store's files and tells the writer what it holds.
    QJsonObject readStoreFile(const QString& path);
    void startWriter();
    void stopWriter();
    static void stopWriterAtExit();

    // Fixed at first use; the directories themselves are made when asked for.
    QString configDir;
    QString logsDir;

    bool globalLoaded = false;
    QJsonObject global;
    bool appLoaded = false;
    QJsonObject app;
    // Node-based maps: a reference handed out stays valid while other keys are added.
    QMap<QString, QJsonObject> controllers;

    QMutex effectMutex;
    QMap<QString, QJsonObject> effects; // effect id -> controller id -> key -> value

    // Any thread may save an effect: the writer and what it was given are guarded.
    QMutex writeMutex;
    QSet<QString> leftAlone; // files that are there but could not be read: never written over
    std::unique_ptr<QThread> writerThread;
    std::unique_ptr<ConfigurationWriter> writer;
};
