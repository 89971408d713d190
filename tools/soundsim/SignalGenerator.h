#pragma once

#include <QtGlobal>

#include <cstddef>
#include <vector>

// Generated stereo sound for the tone player and the audio tests: a sine, pink noise or a mix of
// tones, at a given loudness. Deterministic: the same calls give the same samples.
class SignalGenerator
{
public:
    enum Channels
    {
        Left = 1,
        Right = 2,
        Both = 3,
    };
    enum class Kind
    {
        Silence,
        Tone,
        PinkNoise,
        ToneMix,
    };

    explicit SignalGenerator(int rate = 48000);

    void setSilence();
    // A sine of the given peak level (0 dBFS: amplitude 1.0), from phase 0.
    void setTone(double frequency, double dbfs, Channels channels = Both);
    // Noise falling 3 dB an octave, at the given RMS level, the same on both channels.
    void setPinkNoise(double rmsDbfs);
    // A bass note, a chord and overtones up to 7 kHz, each octave 6 dB down, at the given RMS level.
    void setToneMix(double rmsDbfs);
    Kind kind() const { return current; }

    // Appends frames (left, right, left, ...).
    void fill(float* interleaved, size_t frames);
    std::vector<float> take(size_t frames);

private:
    struct PinkFilter
    {
        double white();
        double next();
        quint32 noise = 12345;
        double b[3] = {0.0, 0.0, 0.0};
    };

    int rate;
    Kind current = Kind::Silence;
    double frequency = 0.0;
    double amplitude = 0.0;
    int channelMask = Both;
    double phase = 0.0;
    quint64 position = 0; // frames made
    PinkFilter pinkFilter;
    double pinkScale = 1.0; // makes the filter's output RMS 1.0
};
