#pragma once

#include "effects/IEffectWorker.h"
#include "service/audio/AudioCapturer.h"
#include "service/audio/SoundChannel.h"

#include <QSharedPointer>
#include <QString>

// Base of the music-following effects: binds the worker to one audio capturer and receives its
// spectra; the concrete mode makes the colours.
class AbsMusicEffect : public IEffectWorker
{
    Q_OBJECT
public:
    explicit AbsMusicEffect(QObject* parent = nullptr);
    ~AbsMusicEffect() override;

    int32_t load(const ControlOptions& ctlOptions) override;
    void unload() override;

    // The loudest bin's level within minFrequency..maxFrequency; a range above the last bin
    // reads silence.
    static double peakDb(const QVector<Spectrum>& bins, double minFrequency, double maxFrequency);

    QString currentCapturerId() const { return capturerId; }
    bool isCapturerConnected() const { return !capturer.isNull(); }

public slots:
    virtual void spectrumUpdate(QVector<SoundChannel> channels) = 0;
    virtual void spectrumUpdate(QVector<Spectrum> spectrum);
    virtual void capturerChangedHook() = 0;

    void setCapturerId(QString newCapturerId);
    void onCtlDirChanged(uint32_t dir) override;
    void onCtlBrightnessChanged(float brightness) override;
    void onCtlKindNameChanged(QString kindName) override;
    void onCtlEnableChanged(bool enable) override;

private slots:
    void onDefaultCapturerChanged(QString id);

protected:
    void releaseCapturer();
    // With no capturer bound at load (no sound server or no output yet), the first default
    // output that appears is bound.
    void waitForDefaultCapturer();
    void stopWaiting();

    QString capturerId;
    QSharedPointer<AudioCapturer> capturer;
    ControlOptions controlOptions;
    QMetaObject::Connection waiting;
};
