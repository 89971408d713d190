#include "service/audio/SpectrumAnalyzer.h"

#include <QMutex>
#include <QMutexLocker>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <fftw3.h>

namespace {

struct SharedPlan
{
    fftwf_plan plan = nullptr;
    float window[SpectrumAnalyzer::kWindow];
    float windowSum = 0.0f;
};

// Made once and kept for the life of the process: every analyzer runs it on its own buffers
// through the new-array execute, which is thread-safe.
SharedPlan& sharedPlan()
{
    static QMutex mutex;
    static SharedPlan shared;
    QMutexLocker locker(&mutex);
    if (!shared.plan) {
        const int n = SpectrumAnalyzer::kWindow;
        double sum = 0.0;
        for (int i = 0; i < n; ++i) {
            // Periodic Hann: the window of an n-point periodic extension, sum n / 2.
            shared.window[i] = float(0.5 - 0.5 * std::cos(2.0 * M_PI * i / n));
            sum += shared.window[i];
        }
        shared.windowSum = float(sum);
        float* in = fftwf_alloc_real(n);
        fftwf_complex* out = fftwf_alloc_complex(SpectrumAnalyzer::kBins);
        shared.plan = fftwf_plan_dft_r2c_1d(n, in, out, FFTW_MEASURE);
        fftwf_free(in);
        fftwf_free(out);
    }
    return shared;
}

} // namespace

SpectrumAnalyzer::SpectrumAnalyzer()
{
    sharedPlan();
    left = fftwf_alloc_real(kWindow);
    right = fftwf_alloc_real(kWindow);
    windowed = fftwf_alloc_real(kWindow);
    spectrum = fftwf_alloc_complex(kBins);
    reset();
}

SpectrumAnalyzer::~SpectrumAnalyzer()
{
    fftwf_free(left);
    fftwf_free(right);
    fftwf_free(windowed);
    fftwf_free(spectrum);
}

void SpectrumAnalyzer::reset()
{
    std::fill(left, left + kWindow, 0.0f);
    std::fill(right, right + kWindow, 0.0f);
    writePos = 0;
    sinceDelivery = 0;
    sinceAnalysis = 0;
    follower = kFloorDbfs;
}

bool SpectrumAnalyzer::push(const float* interleaved, int frames)
{
    // Only the newest window matters: skip what it would overwrite anyway.
    const int skip = std::max(0, frames - kWindow);
    for (int i = skip; i < frames; ++i) {
        left[writePos] = interleaved[2 * i];
        right[writePos] = interleaved[2 * i + 1];
        writePos = (writePos + 1) % kWindow;
    }
    sinceDelivery += frames;
    sinceAnalysis = std::min(sinceAnalysis + frames, 3600 * kRate); // an hour is as good as forever
    return sinceDelivery >= kHop;
}

QVector<SoundChannel> SpectrumAnalyzer::analyse(qint64 captureTimeNs)
{
    // Keep the pace of one delivery per hop, but after a stall deliver once, not many times.
    sinceDelivery = sinceDelivery >= 2 * kHop ? sinceDelivery % kHop : std::max(0, sinceDelivery - kHop);
    QVector<SoundChannel> channels(2);
    transform(left, channels[0].spectrums);
    transform(right, channels[1].spectrums);
    float loudest = 0.0f;
    for (const SoundChannel& channel : qAsConst(channels)) {
        for (const Spectrum& s : channel.spectrums) {
            loudest = std::max(loudest, s.amplitude);
        }
    }
    follow(loudest);
    for (SoundChannel& channel : channels) {
        channel.captureTimeNs = captureTimeNs;
        for (Spectrum& s : channel.spectrums) {
            s.db = levelDb(s.amplitude, follower);
        }
    }
    return channels;
}

void SpectrumAnalyzer::follow(float loudestAmplitude)
{
    float loudest = std::max(kFloorDbfs, 20.0f * std::log10(std::max(loudestAmplitude, 1e-9f)));
    if (!std::isfinite(loudest)) {
        loudest = follower; // a window holding an infinity must not stick at the top for good
    }
    // Falls in a straight line in dB, measured in sound played, not in wall time: the whole
    // range of the scale in kReleaseSeconds.
    const double seconds = double(sinceAnalysis) / kRate;
    const float released = follower - float(kRangeDb * seconds / kReleaseSeconds);
    follower = std::max({loudest, released, kFloorDbfs});
    sinceAnalysis = 0;
}

void SpectrumAnalyzer::transform(const float* ring, QVector<Spectrum>& out)
{
    const SharedPlan& shared = sharedPlan();
    // Oldest sample first: the ring from writePos to its end, then from its start.
    const int tail = kWindow - writePos;
    for (int i = 0; i < tail; ++i) {
        windowed[i] = ring[writePos + i] * shared.window[i];
    }
    for (int i = 0; i < writePos; ++i) {
        windowed[tail + i] = ring[i] * shared.window[tail + i];
    }
    auto* bins = static_cast<fftwf_complex*>(spectrum);
    fftwf_execute_dft_r2c(shared.plan, windowed, bins);

    out.resize(kBins);
    Spectrum* s = out.data();
    const float full = 2.0f / shared.windowSum; // one-sided: a sine's energy is split over +-k
    for (int k = 0; k < kBins; ++k) {
        const float magnitude = std::sqrt(bins[k][0] * bins[k][0] + bins[k][1] * bins[k][1]);
        const float scale = (k == 0 || k == kBins - 1) ? full * 0.5f : full;
        s[k].frequency = binFrequency(k);
        s[k].amplitude = magnitude * scale;
    }
}

float SpectrumAnalyzer::levelDb(float amplitude, float peakDbfs)
{
    static const float floorAmplitude = std::pow(10.0f, kFloorDbfs / 20.0f);
    if (!(amplitude >= floorAmplitude)) {
        return 0.0f; // below the floor, silence and NaN
    }
    const float below = peakDbfs - 20.0f * std::log10(amplitude);
    return std::clamp(80.0f - below * (80.0f / kRangeDb), 0.0f, 80.0f);
}

QVector<SoundChannel> SpectrumAnalyzer::silence(qint64 captureTimeNs)
{
    QVector<Spectrum> bins(kBins);
    for (int k = 0; k < kBins; ++k) {
        bins[k].frequency = binFrequency(k);
    }
    QVector<SoundChannel> channels(2);
    for (SoundChannel& channel : channels) {
        channel.spectrums = bins;
        channel.captureTimeNs = captureTimeNs;
    }
    return channels;
}
