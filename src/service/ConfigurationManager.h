#pragma once

#include <QJsonObject>
#include <QJsonValue>
#include <QMap>
#include <QMutex>
#include <QString>
#include <QStringList>
#include <QVariant>

// The one configuration store: global values, the application object, one object per
// controller and effect values by effect id, controller id and key. JSON files under
// configPath(), every write atomic; a file that fails to parse is set aside, never overwritten.
class ConfigurationManager
{
public:
    static ConfigurationManager* instance();

    QString logsPath();
    QString configPath();

    QJsonValue globalValue(const QString& key);
    void setGlobalValue(const QString& key, const QJsonValue& value);
    void setGlobalValue(const QStringList& path, const QJsonValue& value);
    void saveGlobalValues();

    void reset();
    void EnableCleanStartup();
    void save();

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
};
