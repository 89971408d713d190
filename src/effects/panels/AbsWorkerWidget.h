#pragma once

#include "effects/IEffectWorker.h"

#include <QWidget>

// Base of the option panels: one panel object is shared by all workers of its effects and is
// pointed at the worker of the device now on screen.
class AbsWorkerWidget : public QWidget
{
    Q_OBJECT
    Q_PROPERTY(
        IEffectWorkerPtr effectWorker READ effectWorker WRITE setEffectWorker NOTIFY effectWorkerChanged)
public:
    explicit AbsWorkerWidget(QWidget* parent = nullptr);
    ~AbsWorkerWidget() override;

    IEffectWorkerPtr effectWorker() const;
    void setEffectWorker(IEffectWorkerPtr worker);

signals:
    void effectWorkerChanged();

protected:
    virtual void onEffectWorkerChanged(IEffectWorkerPtr worker) = 0;
    // Pointed at no worker: composite panels hand that on to their inner panels.
    virtual void onEffectWorkerCleared() {}

private:
    IEffectWorkerPtr worker;
};
