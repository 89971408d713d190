#pragma once

#include "service/audio/SoundChannel.h"
#include "service/audio/SpectrumAnalyzer.h"

#include <QObject>
#include <QString>
#include <QVector>

#include <atomic>

// One audio source: the sound of one output sink. It records only while something listens to
// spectrumsChanged, which it emits on the sound server's thread, 50 times a second.
class AudioCapturer : public QObject
{
    Q_OBJECT
public:
    AudioCapturer(const QString& id, const QString& desc, QObject* parent = nullptr);
    ~AudioCapturer() override;

    QString id() const { return sinkName; }
    QString capturerDesc() const { return description; }
    void setCapturerDesc(const QString& desc) { description = desc; }
    bool hasListeners() const;

    // Called by the sound server's thread only, never at the same time.
    void feed(const float* interleaved, int frames, qint64 nowNs);
    // Paced every 20 ms while listened: no data for 100 ms is silence, delivered for 1 s.
    void idleTick(qint64 nowNs);
    // Once every 10 s at most, the statistics line of the stream.
    void reportLoop(qint64 nowNs, double latencyMs);

    static constexpr qint64 kSilenceAfterNs = 100 * 1000 * 1000;
    static constexpr qint64 kSilenceForNs = 1000 * 1000 * 1000;

public slots:
    // Opens or closes the stream after the listeners changed; main thread.
    void recheck();

signals:
    void spectrumsChanged(QVector<SoundChannel> channels);

protected:
    void connectNotify(const QMetaMethod& signal) override;
    void disconnectNotify(const QMetaMethod& signal) override;

private:
    void requestRecheck();

    QString sinkName;
    QString description;
    SpectrumAnalyzer analyzer;

    // Sound server thread state.
    qint64 lastDataNs = 0;
    qint64 silentSinceNs = -1; // start of the current silence, -1 while data flows
    qint64 lastSilentDeliveryNs = 0;
    qint64 loopSinceNs = 0;
    int loopDeliveries = 0;
    qint64 loopAnalysisNs = 0;

    std::atomic<bool> recheckPosted{false};
};
