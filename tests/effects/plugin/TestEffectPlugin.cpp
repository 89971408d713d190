#include "TestEffectPlugin.h"

PluginEffect::PluginEffect(const EffectWorkerOptions& options, QObject* parent)
    : IEffectWorker(parent)
    , options(options)
{
    timer.setInterval(33);
    connect(&timer, &QTimer::timeout, this, &PluginEffect::send);
}

int32_t PluginEffect::load(const ControlOptions& controlOptions)
{
    nbLeds = static_cast<int>(controlOptions.nbLeds);
    send();
    timer.start();
    return 0;
}

EffectWorkerOptions PluginEffect::workerOptions() const
{
    return options;
}

void PluginEffect::unload()
{
    timer.stop();
}

void PluginEffect::onCtlDirChanged(uint32_t) {}
void PluginEffect::onCtlBrightnessChanged(float) {}
void PluginEffect::onCtlKindNameChanged(QString) {}
void PluginEffect::onCtlEnableChanged(bool) {}

void PluginEffect::send()
{
    emit updateColors(QVector<OV_RGB>(nbLeds, OV_RGB{10, 20, 30}));
}

void PluginPanel::onEffectWorkerChanged(IEffectWorkerPtr)
{
    ++changes;
}

TestEffectPlugin::TestEffectPlugin(QObject* parent)
    : IEffectFactory(parent)
{
}

IEffectWorker* TestEffectPlugin::create(const QString& id)
{
    for (const EffectWorkerOptions& record : effects()) {
        if (record.id == id) {
            return new PluginEffect(record);
        }
    }
    return nullptr;
}

QList<EffectWorkerOptions> TestEffectPlugin::effects()
{
    if (!panel) {
        panel = new PluginPanel;
        panel->setObjectName(QStringLiteral("pluginPanel"));
    }
    EffectWorkerOptions fixed;
    fixed.id = QStringLiteral("com.orvanta.plugin.fixedColor");
    fixed.name = QStringLiteral("plug-in colour");
    fixed.desc = fixed.name;
    fixed.order = 3;
    fixed.optionWidget = panel;

    EffectWorkerOptions rival;
    rival.id = QStringLiteral("com.orvanta.colorful.flowingEffect");
    rival.name = QStringLiteral("plug-in rival");
    rival.desc = rival.name;
    return {fixed, rival};
}
