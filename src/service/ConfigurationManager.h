#pragma once

#include <QHash>
#include <QJsonObject>
#include <QJsonValue>
#include <QMap>
#include <QMutex>
#include <QString>
#include <QStringList>
#include <QVariant>

class ConfigurationWriter;
class QThread;

// The one configuration store: global values, the application object, one object per
// controller and effect values by effect id, controller id and key. JSON files under
// configPath(), every write atomic; a file that fails to parse is set aside, never overwritten.
// Values are readable at once; the save calls hand a copy to a writer thread, which writes each
// file at most once per fraction of a second and only when its content changed, so no caller
// waits on the disk. save() and flush() write everything pending before they return.
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

    // Hands the file to the writer unless it already holds, or is about to hold, that content.
    void requestWrite(const QString& path, const QJsonObject& object);
    // The content a file was read with; what a later write is compared with.
    void noteOnDisk(const QString& path, const QJsonObject& object);
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
    QHash<QString, QJsonObject> onDisk; // path -> content read or last handed to the writer
    QThread* writerThread = nullptr;
    ConfigurationWriter* writer = nullptr;
};
