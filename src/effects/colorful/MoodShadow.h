#pragma once

#include "effects/AbsAnimatedEffect.h"
#include "effects/colorful/ColorStrap.h"

#include <QGradientStop>
#include <QJsonArray>
#include <QJsonObject>
#include <QStringList>
#include <QVector>

#include <memory>
#include <vector>

// Slides the current user-edited colour strap along the LED lines. The strap list is shared by
// all devices; the current strap and each strap's speed and range are kept per device. Every
// edit reaches the store as it is made: a change of the list as a change of that one strap,
// found by its uuid, so that a worker never writes back what another worker changed.
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

    // The stops of strap i as the gradient widgets show them: ends colour, key colours, ends colour.
    QList<QGradientStop> gradientStops(int i) const;
    // Takes the shared list as the store now holds it, with this device's values; the current
    // strap stays the same strap where it still exists.
    void reloadStraps();

    // The shared strap list as stored, each value held to what the panel can set and every strap
    // with an identity of its own: a missing or repeated uuid gets a fresh one, written back
    // into `list`, and `renamed` says so. A pure function of the list, bar the fresh uuids.
    static QVector<ColorStrap> readStrapList(QJsonArray& list, bool* renamed);
    // A device's own speed and range of each strap, by uuid, over the list's.
    static void applyDeviceValues(QVector<ColorStrap>& straps, const QJsonObject& configs);
    // Width of the one-pixel-high picture a strap is rendered into for n LEDs.
    static int imageWidth(const ColorStrap& strap, uint32_t n);

    // What the panel's sliders can set; values from files are kept within these.
    static constexpr double kMaxSpeed = 1.0;
    static constexpr double kMinRange = 0.001;
    static constexpr double kMaxRange = 1.0;

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
    enum class ListEdit
    {
        Update,
        Add,
        Remove
    };

    void clearStraps();
    void readStraps();
    const ColorStrap* current() const;
    ColorStrap* current();
    // Applies one edit of a strap to the shared list in the store.
    void editList(ListEdit edit, const ColorStrap& strap);
    // The current strap and every strap's speed and range, under this device.
    void saveDeviceValues();

    EffectWorkerOptions effectOptions;
    std::vector<std::unique_ptr<ColorStrap>> straps;
    int currentStrap = 0;
    ControlOptions controlOptions;
    double phase = 0.0;
    QString id;
};
