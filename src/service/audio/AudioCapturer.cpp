#include "service/audio/AudioCapturer.h"

#include "service/audio/AudioCapManager.h"

#include <QElapsedTimer>
#include <QMetaMethod>
#include <QtDebug>

namespace {

constexpr char kTag[] = "[AudioCapturer]";

} // namespace

AudioCapturer::AudioCapturer(const QString& id, const QString& desc, QObject* parent)
    : QObject(parent)
    , sinkName(id)
    , description(desc)
{
    qRegisterMetaType<QVector<SoundChannel>>("QVector<SoundChannel>");
}

AudioCapturer::~AudioCapturer()
{
    // Closes the stream under the server's lock: no callback runs on this object afterwards.
    AudioCapManager::forgetCapturer(this);
}

bool AudioCapturer::hasListeners() const
{
    static const QMetaMethod signal = QMetaMethod::fromSignal(&AudioCapturer::spectrumsChanged);
    return isSignalConnected(signal);
}

void AudioCapturer::connectNotify(const QMetaMethod&)
{
    requestRecheck();
}

void AudioCapturer::disconnectNotify(const QMetaMethod&)
{
    requestRecheck();
}

void AudioCapturer::requestRecheck()
{
    // Never re-enter the connection machinery from its own notice: look again from the loop.
    if (!recheckPosted.exchange(true)) {
        QMetaObject::invokeMethod(this, &AudioCapturer::recheck, Qt::QueuedConnection);
    }
}

void AudioCapturer::recheck()
{
    recheckPosted = false;
    AudioCapManager::updateCapture(this, hasListeners());
}

void AudioCapturer::feed(const float* interleaved, int frames, qint64 nowNs)
{
    if (!hasListeners()) {
        requestRecheck(); // a receiver was destroyed: close the stream
        return;
    }
    lastDataNs = nowNs;
    silentSinceNs = -1;
    if (!analyzer.push(interleaved, frames)) {
        return;
    }
    QElapsedTimer clock;
    clock.start();
    const QVector<SoundChannel> channels = analyzer.analyse(nowNs);
    loopAnalysisNs += clock.nsecsElapsed();
    ++loopDeliveries;
    emit spectrumsChanged(channels);
}

void AudioCapturer::idleTick(qint64 nowNs)
{
    if (!hasListeners()) {
        requestRecheck();
        return;
    }
    if (lastDataNs == 0) {
        lastDataNs = nowNs; // the pace starts now: silence only after 100 ms without data
    }
    if (nowNs - lastDataNs < kSilenceAfterNs) {
        return;
    }
    if (silentSinceNs < 0) {
        silentSinceNs = nowNs;
        analyzer.reset(); // stale samples must not mix into the first window after the pause
    }
    if (nowNs - silentSinceNs > kSilenceForNs) {
        return; // bars have fallen: nothing until data flows again
    }
    lastSilentDeliveryNs = nowNs;
    emit spectrumsChanged(SpectrumAnalyzer::silence(nowNs));
}

void AudioCapturer::reportLoop(qint64 nowNs, double latencyMs)
{
    if (loopSinceNs == 0) {
        loopSinceNs = nowNs;
        return;
    }
    const qint64 span = nowNs - loopSinceNs;
    if (span < 10LL * 1000 * 1000 * 1000) {
        return;
    }
    const double perSecond = loopDeliveries * 1e9 / span;
    const double analysisUs = loopDeliveries ? loopAnalysisNs / 1000.0 / loopDeliveries : 0.0;
    qDebug().noquote() << QStringLiteral("[[loop]]") + kTag
                       << QStringLiteral("%1: %2 deliveries/s, analysis %3 us, stream latency %4 ms")
                              .arg(sinkName)
                              .arg(perSecond, 0, 'f', 1)
                              .arg(analysisUs, 0, 'f', 1)
                              .arg(latencyMs, 0, 'f', 1);
    loopSinceNs = nowNs;
    loopDeliveries = 0;
    loopAnalysisNs = 0;
}
