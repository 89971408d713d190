#include "SingleColor.h"

#include "FrmSingleColor.h"

#include <QCoreApplication>
#include <QPointer>

#include "ConfigurationManager.h"

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
    static QPointer<FrmSingleColor> panel;
    if (!panel && AbsWorkerWidget::panelsPossible()) {
        panel = new FrmSingleColor;
    }
    record.optionWidget = panel.data();
    return record;
}

int32_t SingleColor::load(const ControlOptions& controlOptions)
{
    colors.resize(controlOptions.lines.size());
    for (int i = 0; i < controlOptions.lines.size(); ++i) {
        colors[i].resize(static_cast<int>(controlOptions.lines.at(i)));
    }
    const QString effectId = staticWorkerOptions().id;
    bool ok = false;
    const uint rgb = ConfigurationManager::instance()
                         ->effectVariant(effectId, controlOptions.id, QStringLiteral("color"))
                         .toUInt(&ok);
    if (ok) {
        setColor(QColor::fromRgb(rgb));
    } else {
        setColor(QColor(255, 255, 255, 255));
    }
    options = controlOptions;
    timer.setInterval(40);
    connect(&timer, &QTimer::timeout, this, &SingleColor::repeatColor, Qt::UniqueConnection);
    timer.start();
    return 0;
}

EffectWorkerOptions SingleColor::workerOptions() const
{
    return staticWorkerOptions();
}

void SingleColor::unload()
{
    const QString effectId = staticWorkerOptions().id;
    ConfigurationManager::instance()->setEffectVariant(effectId, options.id, QStringLiteral("color"),
                                                       QVariant(color.rgb()));
    ConfigurationManager::instance()->saveEffectJsonObj(effectId);
}

QColor SingleColor::currentColor() const
{
    return color;
}

void SingleColor::setColor(QColor newColor)
{
    color = newColor;
    const OV_RGB rgb{static_cast<uint8_t>(color.red()), static_cast<uint8_t>(color.green()),
                     static_cast<uint8_t>(color.blue())};
    for (QVector<OV_RGB>& line : colors) {
        line.fill(rgb);
    }
    emit updateColors(colors);
}

void SingleColor::repeatColor()
{
    setColor(color);
}

void SingleColor::onCtlDirChanged(uint32_t) {}

void SingleColor::onCtlBrightnessChanged(float) {}

void SingleColor::onCtlKindNameChanged(QString) {}

void SingleColor::onCtlEnableChanged(bool) {}
