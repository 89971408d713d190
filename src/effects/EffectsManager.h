#pragma once

#include "devices/AbsRGBController.h"
#include "effects/EffectGroup.h"
#include "effects/EffectWorkerOptions.h"
#include "effects/IEffectWorker.h"

#include <QHash>
#include <QMap>
#include <QObject>
#include <QPair>
#include <QPointer>
#include <QStringList>
#include <QVector>

class IEffectFactory;
class QPluginLoader;

// Registry of effect groups and effects, and the place where a controller and a worker meet.
// Main thread only.
class EffectsManager : public QObject
{
    Q_OBJECT
public:
    struct Binding
    {
        AbsRGBControllerPtr controller;
        IEffectWorkerPtr worker;
    };

    explicit EffectsManager(QObject* parent = nullptr);
    ~EffectsManager() override;

    IEffectWorkerPtr bind(AbsRGBControllerPtr controller, const QString& effectId);
    void unbind(const QString& ctlId);
    void activeOperate(const QString& ctlId, const QString& effectId);
    QString lastBinding(const QString& ctlId, const QString& groupId);
    QString nextGroup(const QString& groupId);
    QString previousGroup(const QString& groupId);
    QString defaultEffect(const QString& groupId) const;
    EffectWorkerOptions workerOptions(const QString& effectId) const;
    bool hasWorker(const QString& effectId) const;
    EffectGroup group(const QString& groupId) const;
    QStringList groupIds() const;

    // The group of an effect is the text of its id before the last ".".
    static QString groupIdOf(const QString& effectId);
    // The groups of a group file's bytes, in file order, each with an id, its name translated;
    // entries without an id are skipped, and a file that isn't one gives none, with a log line
    // naming path. Pictures are not loaded. A pure function of the bytes, bar the log lines.
    static QVector<EffectGroup> readGroupFile(const QByteArray& bytes, const QString& path);

signals:
    void workerReady(QString effectId);
    void groupReady(QString groupId);

private:
    void loadGroups();
    void loadGroupFile(const QString& path);
    void loadPlugins();
    void registerFactory(IEffectFactory* factory, QPluginLoader* loader);
    QString stepGroup(const QString& groupId, bool forward);

    QMap<QString, QPair<IEffectFactory*, QPluginLoader*>> factories;
    QMap<QString, EffectWorkerOptions> workers;
    // The panels of each effect, followed: a factory may delete them before this registry goes.
    struct Panels
    {
        QPointer<QObject> option;
        QPointer<QObject> extra;
    };
    QHash<QString, Panels> panels;
    QHash<QString, Binding> bindings;
    QMap<QString, EffectGroup> groups;
    QMap<int32_t, QString> groupOrder;
};
