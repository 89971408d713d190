#pragma once

#include "SoundChannel.h"
#include "SpectrumAnalyzer.h"

#include <cmath>
#include <vector>

// Synthetic deliveries and sounds shared by the music suites.
namespace MusicTestData {

// A delivery on the analysis bins: every bin silent but those within lo..hi Hz, which read the
// given levels on the left and right channel.
inline QVector<SoundChannel> delivery(double lo, double hi, float leftDb, float rightDb)
{
    QVector<SoundChannel> channels = SpectrumAnalyzer::silence(0);
    for (int c = 0; c < 2; ++c) {
        for (Spectrum& s : channels[c].spectrums) {
            if (s.frequency >= lo && s.frequency <= hi) {
                s.db = c == 0 ? leftDb : rightDb;
            }
        }
    }
    return channels;
}

// Interleaved stereo frames of a sine at the given dBFS on the chosen channels (1 left, 2 right).
inline std::vector<float> sine(double hz, double dbfs, int channelMask, int frames)
{
    std::vector<float> out(2 * frames);
    const double amplitude = std::pow(10.0, dbfs / 20.0);
    for (int i = 0; i < frames; ++i) {
        const float v = float(amplitude * std::sin(2.0 * M_PI * hz * i / SpectrumAnalyzer::kRate));
        out[2 * i] = (channelMask & 1) ? v : 0.0f;
        out[2 * i + 1] = (channelMask & 2) ? v : 0.0f;
    }
    return out;
}

// The bin holding the loudest level of a channel.
inline int loudestBin(const SoundChannel& channel)
{
    int best = 0;
    for (int k = 1; k < channel.spectrums.size(); ++k) {
        if (channel.spectrums[k].db > channel.spectrums[best].db) {
            best = k;
        }
    }
    return best;
}

} // namespace MusicTestData
