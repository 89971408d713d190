#pragma once

#include "effects/FrameGuard.h"
#include "effects/IEffectWorker.h"

#include <QColor>
#include <QTimer>

// One colour on every LED, sent again every 40 ms whether or not it changed.
class SingleColor : public IEffectWorker
{
    Q_OBJECT
public:
    Q_INVOKABLE explicit SingleColor(QObject* parent = nullptr);
    ~SingleColor() override;

    // The constant record of this effect, built on first use.
    static EffectWorkerOptions staticWorkerOptions();

    int32_t load(const ControlOptions& options) override;
    EffectWorkerOptions workerOptions() const override;
    void unload() override;

    QColor currentColor() const;

public slots:
    void setColor(QColor color);
    void onCtlDirChanged(uint32_t dir) override;
    void onCtlBrightnessChanged(float brightness) override;
    void onCtlKindNameChanged(QString kindName) override;
    void onCtlEnableChanged(bool enable) override;

private slots:
    // Sends the colour again; also the first frame at load.
    void paint();

private:
    void save();

    QVector<QVector<OV_RGB>> colors;
    QColor color;
    QTimer timer;
    ControlOptions options;
    FrameGuard guard{this};
};
