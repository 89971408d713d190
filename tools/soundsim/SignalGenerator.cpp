#include "SignalGenerator.h"

#include <cmath>

namespace {

constexpr double kTwoPi = 2.0 * M_PI;

// The tone mix: frequency and amplitude relative to the bass note.
struct MixTone
{
    double hz;
    double gain;
};
constexpr MixTone kMix[] = {{55.0, 1.0},        {110.0, 0.5},       {220.0, 0.25},   {261.63, 0.21},
                            {329.63, 0.167},    {440.0, 0.125},     {880.0, 0.0625}, {1760.0, 0.03125},
                            {3520.0, 0.015625}, {7040.0, 0.0078125}};

double mixRms()
{
    double power = 0.0;
    for (const MixTone& tone : kMix) {
        power += tone.gain * tone.gain / 2.0;
    }
    return std::sqrt(power);
}

} // namespace

double SignalGenerator::PinkFilter::white()
{
    noise = noise * 1664525u + 1013904223u;
    return double(noise >> 8) / double(1 << 23) - 1.0; // -1..1
}

double SignalGenerator::PinkFilter::next()
{
    // Three one-pole filters over white noise: within about 1 dB of 3 dB an octave from 20 Hz up.
    const double w = white();
    b[0] = 0.99765 * b[0] + w * 0.0990460;
    b[1] = 0.96300 * b[1] + w * 0.2965164;
    b[2] = 0.57000 * b[2] + w * 1.0526913;
    return b[0] + b[1] + b[2] + w * 0.1848;
}

SignalGenerator::SignalGenerator(int rate)
    : rate(rate)
{
    // The filter's gain, measured once on a filter of its own, so that levels are RMS levels.
    static const double gain = [] {
        PinkFilter probe;
        double power = 0.0;
        const int n = 1 << 18;
        for (int i = 0; i < n; ++i) {
            const double v = probe.next();
            power += v * v;
        }
        return std::sqrt(power / n);
    }();
    pinkScale = 1.0 / gain;
}

void SignalGenerator::setSilence()
{
    current = Kind::Silence;
}

void SignalGenerator::setTone(double hz, double dbfs, Channels channels)
{
    current = Kind::Tone;
    frequency = hz;
    amplitude = std::pow(10.0, dbfs / 20.0);
    channelMask = channels;
    phase = 0.0;
}

void SignalGenerator::setPinkNoise(double rmsDbfs)
{
    current = Kind::PinkNoise;
    amplitude = std::pow(10.0, rmsDbfs / 20.0) * pinkScale;
    channelMask = Both;
}

void SignalGenerator::setToneMix(double rmsDbfs)
{
    current = Kind::ToneMix;
    amplitude = std::pow(10.0, rmsDbfs / 20.0) / mixRms();
    channelMask = Both;
}

void SignalGenerator::fill(float* out, size_t frames)
{
    for (size_t i = 0; i < frames; ++i) {
        double v = 0.0;
        switch (current) {
        case Kind::Silence:
            break;
        case Kind::Tone:
            v = amplitude * std::sin(phase);
            phase += kTwoPi * frequency / rate;
            if (phase > kTwoPi) {
                phase -= kTwoPi;
            }
            break;
        case Kind::PinkNoise:
            v = amplitude * pinkFilter.next();
            break;
        case Kind::ToneMix: {
            const double t = double(position + i) / rate;
            for (const MixTone& tone : kMix) {
                v += tone.gain * std::sin(kTwoPi * tone.hz * t);
            }
            v *= amplitude;
            break;
        }
        }
        out[2 * i] = (channelMask & Left) ? float(v) : 0.0f;
        out[2 * i + 1] = (channelMask & Right) ? float(v) : 0.0f;
    }
    position += frames;
}

std::vector<float> SignalGenerator::take(size_t frames)
{
    std::vector<float> out(2 * frames);
    fill(out.data(), frames);
    return out;
}
