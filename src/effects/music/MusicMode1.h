#pragma once

#include "effects/FrameGuard.h"
#include "effects/music/AbsMusicEffect.h"
#include "effects/music/Fragment.h"

#include <QHash>
#include <QJsonObject>

// A level meter over the strip: each fragment lights a bar whose length follows the loudness of
// its band, green at the foot to red at the head.
class MusicMode1 : public AbsMusicEffect
{
    Q_OBJECT
public:
    Q_INVOKABLE MusicMode1(const EffectWorkerOptions& options, QObject* parent = nullptr);
    ~MusicMode1() override;

    int32_t load(const ControlOptions& ctlOptions) override;
    EffectWorkerOptions workerOptions() const override;
    void unload() override;

    virtual QVector<OV_RGB> barColors(const QString& name, Fragment& fragment, double value);

    // For the option panel. The strength is kept in the store, with the fragments, as it changes.
    double getStrength() const { return strength; }
    void setStrength(double value);
    // Every fragment's multiplier at once, as the option panel's strength sets it.
    void setMulEnhance(double value);

    // The ends of the panel's strength slider; strengths and multipliers from files stay within.
    static constexpr double kMinStrength = 0.505;
    static constexpr double kMaxStrength = 4.0;
    // Above any sample rate's highest frequency: a band up there reads silence.
    static constexpr double kMaxFrequency = 100000.0;
    const QHash<QString, Fragment>& getFragments() const { return fragments; }
    void setFragment(const QString& name, const Fragment& fragment);

    // Instant attack, a fall along the mean of the last 10 levels.
    static double fallSmooth(QList<double>& recentLevels, double level);
    static OV_RGB heatColor(int count, int index);
    // The fragments of a stored or default configuration ("fragments" by name) that lie on a
    // strip of nbLeds LEDs, their values held to what the panel can set; the others are skipped
    // with a log line. A pure function of its arguments, bar the log lines.
    static QHash<QString, Fragment> readFragments(const QJsonObject& config, uint32_t nbLeds);
    // The fragments used when neither store nor file gives any, for nbLeds LEDs.
    static QHash<QString, Fragment> defaultFragments(uint32_t nbLeds);

public slots:
    void onCtlDirChanged(uint32_t dir) override;
    void onCtlBrightnessChanged(float brightness) override;
    void onCtlKindNameChanged(QString kindName) override;
    void onCtlEnableChanged(bool enable) override;
    void spectrumUpdate(QVector<SoundChannel> channels) override;
    void spectrumUpdate(QVector<Spectrum> spectrum) override;
    void capturerChangedHook() override;

protected:
    void shapeColors(const QVector<uint32_t>& lines);
    void readConfiguration();
    // Places a fragment's colours at its begin index, clipped to the strip.
    void place(QVector<OV_RGB>& flat, const Fragment& fragment, const QVector<OV_RGB>& colors) const;
    void dealOut(const QVector<OV_RGB>& flat);
    void saveConfiguration();
    void makeFrame(const QVector<SoundChannel>& channels);

    QVector<QVector<OV_RGB>> colors; // per line, per LED
    EffectWorkerOptions effectOptions;
    QHash<QString, Fragment> fragments;
    double strength = 1.0;
    uint32_t installDirection = 0;
    FrameGuard guard{this};
};
