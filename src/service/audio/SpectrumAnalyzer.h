#pragma once

#include "service/audio/SoundChannel.h"

#include <QVector>

// Turns interleaved stereo float samples at 48000 Hz into spectra: per channel the newest
// 2048 samples under a periodic Hann window, one real FFT, levels scaled to 0..80.
// The scale follows the music, so that quiet and loud music both use all of it: the loudest bin
// of both channels sets a follower that rises at once and falls 12 dB a second of sound (the
// whole scale in 5 s); the follower reads 80, 60 dB below it 0. A bin below -90 dBFS reads 0
// whatever the follower, so silence is dark.
// One delivery is due per 960 frames (20 ms); after a stall only the newest window is analysed.
// Construct on the main thread: the first instance makes the shared FFT plan, and FFTW's planner
// is not thread-safe. push() and analyse() may then run on any one thread.
class SpectrumAnalyzer
{
public:
    static constexpr int kRate = 48000;
    static constexpr int kWindow = 2048;
    static constexpr int kHop = 960;
    static constexpr int kBins = kWindow / 2 + 1;
    static constexpr float kFloorDbfs = -90.0f;    // below it a bin reads 0
    static constexpr float kRangeDb = 60.0f;       // from the follower (80) down to 0
    static constexpr double kReleaseSeconds = 5.0; // the follower's fall through kRangeDb

    SpectrumAnalyzer();
    ~SpectrumAnalyzer();
    SpectrumAnalyzer(const SpectrumAnalyzer&) = delete;
    SpectrumAnalyzer& operator=(const SpectrumAnalyzer&) = delete;

    // Appends frames (left, right, left, ...); true when a delivery is due.
    bool push(const float* interleaved, int frames);
    // The spectra of the newest window of both channels; clears the due delivery.
    QVector<SoundChannel> analyse(qint64 captureTimeNs);
    // Forgets every sample and the follower, as if a long silence had been played.
    void reset();

    // A delivery of silent bins at the analysis frequencies.
    static QVector<SoundChannel> silence(qint64 captureTimeNs);
    // Level on the 0..80 scale of a linear amplitude (1.0 = full scale) under a follower at
    // peakDbfs.
    static float levelDb(float amplitude, float peakDbfs);
    static float binFrequency(int k) { return float(k) * kRate / kWindow; }

private:
    // Fills frequency and amplitude; the levels wait for the follower.
    void transform(const float* ring, QVector<Spectrum>& out);
    void follow(float loudestAmplitude);

    float* left = nullptr; // ring buffers of kWindow samples, oldest at writePos
    float* right = nullptr;
    float* windowed = nullptr; // FFTW-aligned input of the transform
    void* spectrum = nullptr;  // FFTW-aligned fftwf_complex[kBins]
    int writePos = 0;
    int sinceDelivery = 0; // frames since the last delivery
    int sinceAnalysis = 0; // frames since the last analysis: the follower's clock
    float follower = kFloorDbfs;
};
