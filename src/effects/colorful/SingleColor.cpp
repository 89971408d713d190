#include "effects/colorful/SingleColor.h"

#include "effects/IPanelMaker.h"
#include "service/config/ConfigurationManager.h"

#include <QCoreApplication>
#include <QJsonValue>

SingleColor::SingleColor(QObject* parent)
    : IEffectWorker(parent)
{
}

SingleColor::~SingleColor() = default;

EffectWorkerOptions SingleColor::staticWorkerOptions()
{
    static EffectWorkerOptions record = EffectWorkerOptions::make(
        QStringLiteral("com.orvanta.singleColor.singleColor1"), QStringLiteral("单色模式"), 0);
    // Made when first asked for where widgets can exist, and made anew once it was deleted.
    record.optionWidget = IPanelMaker::sharedPanel(IPanelMaker::Panel::FrmSingleColor);
    return record;
}

int32_t SingleColor::load(const ControlOptions& controlOptions)
{
    options = controlOptions;
    colors.resize(controlOptions.lines.size());
    for (int i = 0; i < controlOptions.lines.size(); ++i) {
        colors[i].resize(static_cast<int>(controlOptions.lines.at(i)));
    }
    // Any number is bounded to what QColor::rgb() can give; anything else counts as nothing stored.
    const QJsonValue stored = ConfigurationManager::instance()->effectJsonValue(
        staticWorkerOptions().id, controlOptions.id, QStringLiteral("color"));
    if (stored.isDouble()) {
        color = QColor::fromRgb(static_cast<QRgb>(qBound(0.0, stored.toDouble(), double(UINT32_MAX))));
    } else {
        color = QColor(255, 255, 255, 255);
    }
    paint();
    timer.setInterval(40);
    connect(&timer, &QTimer::timeout, this, &SingleColor::paint, Qt::UniqueConnection);
    timer.start();
    return 0;
}

EffectWorkerOptions SingleColor::workerOptions() const
{
    return staticWorkerOptions();
}

void SingleColor::unload()
{
    save();
}

QColor SingleColor::currentColor() const
{
    return color;
}

void SingleColor::setColor(QColor newColor)
{
    const bool changed = newColor.rgb() != color.rgb();
    color = newColor;
    paint();
    // Kept as it changes, so that a crash or a lost display costs no more than the store's lag.
    if (changed && !options.id.isEmpty()) {
        save();
    }
}

void SingleColor::save()
{
    const QString effectId = staticWorkerOptions().id;
    ConfigurationManager::instance()->setEffectVariant(effectId, options.id, QStringLiteral("color"),
                                                       QVariant(color.rgb()));
    ConfigurationManager::instance()->saveEffectJsonObj(effectId);
}

void SingleColor::paint()
{
    guard.run([this] {
        const OV_RGB rgb{static_cast<uint8_t>(color.red()), static_cast<uint8_t>(color.green()),
                         static_cast<uint8_t>(color.blue())};
        for (QVector<OV_RGB>& line : colors) {
            line.fill(rgb);
        }
        emit updateColors(colors);
    });
}

void SingleColor::onCtlDirChanged(uint32_t) {}

void SingleColor::onCtlBrightnessChanged(float) {}

void SingleColor::onCtlKindNameChanged(QString) {}

void SingleColor::onCtlEnableChanged(bool) {}
