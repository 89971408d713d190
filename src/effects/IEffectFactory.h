#pragma once

#include "effects/EffectWorkerOptions.h"

#include <QList>
#include <QObject>

class IEffectWorker;

// Makes workers: the built-in catalogue and every plug-in in the effects folder.
class IEffectFactory : public QObject
{
    Q_OBJECT
public:
    explicit IEffectFactory(QObject* parent = nullptr);
    ~IEffectFactory() override;

    // The caller takes ownership of the new worker; null on failure.
    virtual IEffectWorker* create(const QString& id) = 0;
    virtual QList<EffectWorkerOptions> effects() = 0;
};

#define IEffectFactory_iid "com.orvanta.EffectFactoryInterface"
Q_DECLARE_INTERFACE(IEffectFactory, IEffectFactory_iid)
