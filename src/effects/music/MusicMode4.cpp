#include "effects/music/MusicMode4.h"

#include <algorithm>

MusicMode4::MusicMode4(const EffectWorkerOptions& options, QObject* parent)
    : MusicMode3(options, parent)
{
}

MusicMode4::~MusicMode4() = default;

int32_t MusicMode4::load(const ControlOptions& ctlOptions)
{
    AbsMusicEffect::load(ctlOptions); // no file, no stored fragments
    const int nbLeds = static_cast<int>(ctlOptions.nbLeds);
    shapeColors({ctlOptions.nbLeds});
    const int half = static_cast<int>(ctlOptions.nbLeds - ctlOptions.nbLeds / 2);
    const double step = 1600.0 / half;
    double low = 40.0;
    for (int i = 0; i < half; ++i) {
        const double high = low + step;
        Fragment fragment;
        fragment.dbEnhance = 0.0;
        fragment.mulEnhance = 3.0;
        fragment.minFrequency = low;
        fragment.maxFrequency = high;
        fragment.dir = 0;
        fragment.beginIndex = i;
        fragment.endIndex = i + 1;
        fragment.soundChannel = 1;
        fragments.insert(QString::number(i), fragment);
        fragment.beginIndex = nbLeds - i - 1;
        fragment.endIndex = nbLeds - i;
        fragment.soundChannel = 2;
        fragments.insert(QString::number(nbLeds - i - 1), fragment);
        low = high;
    }
    setupGradients();
    strength = 3.0;
    controlOptions = ctlOptions;
    return 0;
}

void MusicMode4::unload()
{
    MusicMode3::unload();
}

QVector<OV_RGB> MusicMode4::barColors(const QString& name, Fragment& fragment, double value)
{
    const int weight = fragment.soundChannel == 1
                           ? fragment.beginIndex + 1
                           : static_cast<int>(controlOptions.nbLeds) - fragment.beginIndex;
    const double v = std::clamp(weight * value, 0.0, 79.99999);
    return MusicMode3::barColors(name, fragment, v);
}
