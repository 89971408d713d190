#pragma once

#include "AbsWorkerWidget.h"
#include "IEffectFactory.h"
#include "IEffectWorker.h"

#include <QTimer>

// A plug-in effect: a fixed colour, sent every 33 ms.
class PluginEffect : public IEffectWorker
{
    Q_OBJECT
public:
    explicit PluginEffect(const EffectWorkerOptions& options, QObject* parent = nullptr);

    int32_t load(const ControlOptions& options) override;
    EffectWorkerOptions workerOptions() const override;
    void unload() override;

public slots:
    void onCtlDirChanged(uint32_t dir) override;
    void onCtlBrightnessChanged(float brightness) override;
    void onCtlKindNameChanged(QString kindName) override;
    void onCtlEnableChanged(bool enable) override;

private:
    void send();

    EffectWorkerOptions options;
    QTimer timer;
    int nbLeds = 0;
};

// The option panel of the plug-in effect; it counts how often it was pointed at a worker.
class PluginPanel : public AbsWorkerWidget
{
    Q_OBJECT
public:
    using AbsWorkerWidget::AbsWorkerWidget;
    int changes = 0;

protected:
    void onEffectWorkerChanged(IEffectWorkerPtr worker) override;
};

// Offers "com.orvanta.plugin.fixedColor" with a panel, and a rival "flowingEffect" record that
// the built-in catalogue must replace.
class TestEffectPlugin : public IEffectFactory
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID IEffectFactory_iid)
    Q_INTERFACES(IEffectFactory)
public:
    explicit TestEffectPlugin(QObject* parent = nullptr);

    IEffectWorker* create(const QString& id) override;
    QList<EffectWorkerOptions> effects() override;

private:
    PluginPanel* panel = nullptr; // made on first use, kept for the life of the process
};
