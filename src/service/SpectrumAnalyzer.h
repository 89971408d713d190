#pragma once

#include "SoundChannel.h"

#include <QVector>

// Turns interleaved stereo float samples at 48000 Hz into spectra: per channel the newest
// 2048 samples under a periodic Hann window, one real FFT, levels scaled to 0..80.
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

    SpectrumAnalyzer();
    ~SpectrumAnalyzer();
    SpectrumAnalyzer(const SpectrumAnalyzer&) = delete;
    SpectrumAnalyzer& operator=(const SpectrumAnalyzer&) = delete;

    // Appends frames (left, right, left, ...); true when a delivery is due.
    bool push(const float* interleaved, int frames);
    // The spectra of the newest window of both channels; clears the due delivery.
    QVector<SoundChannel> analyse(qint64 captureTimeNs);
    // Forgets every sample, as if silence had been played.
    void reset();

    // A delivery of silent bins at the analysis frequencies.
    static QVector<SoundChannel> silence(qint64 captureTimeNs);
    // Level on the 0..80 scale of a linear amplitude (1.0 = full scale).
    static float levelDb(float amplitude);
    static float binFrequency(int k) { return float(k) * kRate / kWindow; }

private:
    void transform(const float* ring, QVector<Spectrum>& out);

    float* left = nullptr; // ring buffers of kWindow samples, oldest at writePos
    float* right = nullptr;
    float* windowed = nullptr; // FFTW-aligned input of the transform
    void* spectrum = nullptr;  // FFTW-aligned fftwf_complex[kBins]
    int writePos = 0;
    int sinceDelivery = 0; // frames since the last delivery
};
