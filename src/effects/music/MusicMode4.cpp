#include "effects/music/MusicMode4.h"

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
        // Bands read 80 at the recent peak and 4/3 less per dB below it. The level is (band - 48)
        // times the strength: at strength 3 the gradient spans the 20 dB ending 4 dB under the peak,
        // and silence stays at its start. No extra weight for the higher bands: on this scale it
        // flattens the spectrum into one or two colours.
        fragment.dbEnhance = -48.0;
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
