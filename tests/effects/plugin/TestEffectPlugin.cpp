#include "effects/AbsAnimatedEffect.h"
#include "effects/IEffectFactory.h"

namespace {

// A fixed colour, sent once at load.
class PluginEffect : public AbsAnimatedEffect
{
public:
    explicit PluginEffect(const EffectWorkerOptions& options)
        : options(options)
    {
    }
    int32_t load(const ControlOptions& controller) override
    {
        emit updateColors(QVector<OV_RGB>(int(controller.nbLeds), OV_RGB{10, 20, 30}));
        return 0;
    }
    EffectWorkerOptions workerOptions() const override { return options; }
    void unload() override {}
    void tick(double) override {}

private:
    EffectWorkerOptions options;
};

} // namespace

// Offers "com.orvanta.plugin.fixedColor", and a rival "flowingEffect" record that the built-in
// catalogue must replace.
class TestEffectPlugin : public IEffectFactory
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID IEffectFactory_iid)
    Q_INTERFACES(IEffectFactory)
public:
    IEffectWorker* create(const QString& id) override
    {
        for (const EffectWorkerOptions& record : effects()) {
            if (record.id == id) {
                return new PluginEffect(record);
            }
        }
        return nullptr;
    }

    QList<EffectWorkerOptions> effects() override
    {
        return {EffectWorkerOptions::make("com.orvanta.plugin.fixedColor", "plug-in colour", 3),
                EffectWorkerOptions::make("com.orvanta.colorful.flowingEffect", "plug-in rival", 0)};
    }
};

#include "TestEffectPlugin.moc"
