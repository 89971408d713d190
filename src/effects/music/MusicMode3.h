#pragma once

#include "effects/music/MusicMode1.h"
#include "effects/music/PeakFollower.h"

#include <QGradientStops>
#include <QMap>

// Each fragment in one colour: its loudness moves along a gradient, with a peak that falls.
class MusicMode3 : public MusicMode1
{
    Q_OBJECT
public:
    Q_INVOKABLE MusicMode3(const EffectWorkerOptions& options, QObject* parent = nullptr);
    ~MusicMode3() override;

    int32_t load(const ControlOptions& ctlOptions) override;
    void unload() override;
    QVector<OV_RGB> barColors(const QString& name, Fragment& fragment, double value) override;

    static constexpr int kRowWidth = 300;
    // The gradient painted into a row of kRowWidth pixels, as barColors reads it.
    static QVector<OV_RGB> paintRow(const QGradientStops& stops);

protected:
    void setupGradients();

    QMap<QString, QGradientStops> gradients;
    QMap<QString, PeakFollower> peaks;
    QMap<QString, QVector<OV_RGB>> rows; // each fragment's gradient, painted once

private slots:
    void onRefreshTimerTriggered();
};
