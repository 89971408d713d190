#pragma once

#include "AbsAnimatedEffect.h"
#include "ColorStrap.h"

#include <QGradientStop>
#include <QStringList>

// Slides the current user-edited colour strap along the LED lines. The strap list is shared by
// all devices; the current strap and each strap's speed and range are kept per device.
class MoodShadow : public AbsAnimatedEffect
{
    Q_OBJECT
public:
    Q_INVOKABLE MoodShadow(const EffectWorkerOptions& options, QObject* parent = nullptr);
    ~MoodShadow() override;

    int32_t load(const ControlOptions& options) override;
    EffectWorkerOptions workerOptions() const override;
    void unload() override;
    void tick(double seconds) override;

    int strapCount() const;
    int currentStrapIndex() const;
    QStringList strapNames() const;
    QString strapName() const;
    QColor endsColor() const;
    QList<QGradientStop> keyColors() const;
    double speed() const;
    double range() const;
    double currentPhase() const;
    // Music mode 2 runs this effect in the background and stops it before unloading it.
    void stopTimer() { pause(); }

    // Width of the one-pixel-high picture a strap is rendered into for n LEDs.
    static int imageWidth(const ColorStrap& strap, uint32_t n);

public slots:
    void setStrapName(QString name);
    void setCurrentStrap(int i);
    void removeStrap(int i);
    void setEndsColor(QColor color);
    void addStrap(QString name, double speed);
    void addStrap(QString name);
    void addStrap();
    void setKeyColor(QList<QGradientStop> color);
    void onCtlDirChanged(uint32_t dir) override;
    void setSpeed(double speed);
    void setRange(double range);

private:
    void clearStraps();
    const ColorStrap* current() const;
    ColorStrap* current();

    EffectWorkerOptions effectOptions;
    QList<ColorStrap*> straps;
    int currentStrap = 0;
    ControlOptions controlOptions;
    double phase = 0.0;
    QString id;
};
