#pragma once

#include "devices/ControlOptions.h"
#include "devices/OV_RGB.h"
#include "effects/EffectWorkerOptions.h"

#include <QObject>
#include <QSharedPointer>

// One running effect bound to one controller; it delivers unscaled colours by signal.
// The order of the virtual operations is part of the plug-in contract.
class IEffectWorker : public QObject
{
    Q_OBJECT
public:
    explicit IEffectWorker(QObject* parent = nullptr);
    ~IEffectWorker() override;

    virtual int32_t load(const ControlOptions& options) = 0;
    virtual EffectWorkerOptions workerOptions() const = 0;
    virtual void unload() = 0;

public slots:
    virtual void onCtlDirChanged(uint32_t dir) = 0;
    virtual void onCtlBrightnessChanged(float brightness) = 0;
    virtual void onCtlKindNameChanged(QString kindName) = 0;
    virtual void onCtlEnableChanged(bool enable) = 0;

signals:
    void updateColors(QVector<QVector<OV_RGB>> colors);
    void updateColors(QVector<OV_RGB> colors);
};

using IEffectWorkerPtr = QSharedPointer<IEffectWorker>;
Q_DECLARE_METATYPE(IEffectWorkerPtr)
