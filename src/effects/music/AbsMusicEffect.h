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
    // The user's choice: the worker stays on this output while loaded, whatever the default does.
    void pinCapturer(QString id);
    void onCtlDirChanged(uint32_t dir) override;
    void onCtlBrightnessChanged(float brightness) override;
    void onCtlKindNameChanged(QString kindName) override;
    void onCtlEnableChanged(bool enable) override;

signals:
    // A capturer was connected, by the user or by following the default output.
    void capturerIdChanged(QString id);

private slots:
    void onDefaultCapturerChanged(QString id);

protected:
    void releaseCapturer();
    // From load until unload or a pin, the worker moves with the default output; with none at
    // load (no sound server or no output yet) it binds the first that appears.
    void followDefaultCapturer();
    void stopFollowing();

    QString capturerId;
    QSharedPointer<AudioCapturer> capturer;
    ControlOptions controlOptions;
    QMetaObject::Connection following;
};
