#pragma once

#include "AudioCapturer.h"
#include "MusicTestData.h"

#include <QElapsedTimer>
#include <QObject>

// Receives a capturer's deliveries on the main thread by queued connection and keeps the
// newest, with a count and the time since it came.
class SpectrumListener : public QObject
{
    Q_OBJECT
public:
    void attach(AudioCapturer* capturer)
    {
        connect(capturer, &AudioCapturer::spectrumsChanged, this, &SpectrumListener::receive,
                Qt::QueuedConnection);
    }
    void detach(AudioCapturer* capturer) { disconnect(capturer, nullptr, this, nullptr); }

    int count = 0;
    QVector<SoundChannel> last;
    QElapsedTimer sinceLast;

    // The newest delivery's loudest bin and level on one channel.
    int loudest(int channel) const;
    float level(int channel) const;
    bool silent() const { return count > 0 && level(0) == 0.0f && level(1) == 0.0f; }
    // Quiet for this long: deliveries have stopped.
    bool quietFor(int ms) const { return sinceLast.isValid() && sinceLast.elapsed() >= ms; }

private slots:
    void receive(QVector<SoundChannel> channels)
    {
        ++count;
        last = channels;
        sinceLast.start();
    }
};

inline int SpectrumListener::loudest(int channel) const
{
    return last.size() < 2 ? -1 : MusicTestData::loudestBin(last[channel]);
}

inline float SpectrumListener::level(int channel) const
{
    const int k = loudest(channel);
    return k < 0 ? -1.0f : last[channel].spectrums[k].db;
}
