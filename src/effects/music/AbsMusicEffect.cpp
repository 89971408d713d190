#include "effects/music/AbsMusicEffect.h"

#include "service/audio/AudioCapManager.h"
#include "service/config/ConfigurationManager.h"

#include <QtDebug>

#include <algorithm>

constexpr char kTag[] = "[AbsMusicEffect]:";

AbsMusicEffect::AbsMusicEffect(QObject* parent)
    : IEffectWorker(parent)
{
    qRegisterMetaType<QVector<SoundChannel>>("QVector<SoundChannel>");
}

AbsMusicEffect::~AbsMusicEffect() = default;

double AbsMusicEffect::peakDb(const QVector<Spectrum>& bins, double minFrequency, double maxFrequency)
{
    // Compared in float, as the bins hold their frequencies.
    const float lo = static_cast<float>(minFrequency);
    const float hi = static_cast<float>(maxFrequency);
    const auto first = std::lower_bound(bins.cbegin(), bins.cend(), lo,
                                        [](const Spectrum& s, float f) { return s.frequency < f; });
    if (first == bins.cend()) {
        return 0.0; // above the last bin: a hand-edited band must not read past the end
    }
    const auto last =
        std::upper_bound(first, bins.cend(), hi, [](float f, const Spectrum& s) { return f < s.frequency; });
    if (last - first <= 1) {
        return first->db; // a band between two bins reads the next bin above it
    }
    const auto loudest =
        std::max_element(first, last, [](const Spectrum& a, const Spectrum& b) { return a.db < b.db; });
    return loudest->db;
}

void AbsMusicEffect::spectrumUpdate(QVector<Spectrum>) {}

void AbsMusicEffect::setCapturerId(QString newCapturerId)
{
    if (newCapturerId.isEmpty()) {
        qCritical().noquote() << kTag << "The newCapturerId is empty.";
        return;
    }
    if (newCapturerId == capturerId) {
        return;
    }
    if (capturer) {
        const QString oldId = capturerId;
        releaseCapturer();
        qInfo().noquote() << kTag << workerOptions().id + "is disconnected from the " + oldId;
    }
    capturerId = newCapturerId;
    capturer = AudioCapManager::instacne()->capturer(capturerId);
    if (!capturer) {
        qCritical().noquote() << kTag << "Not found this audio capturer: " + capturerId;
        return;
    }
    connect(capturer.data(), &AudioCapturer::spectrumsChanged, this,
            QOverload<QVector<SoundChannel>>::of(&AbsMusicEffect::spectrumUpdate), Qt::QueuedConnection);
    qInfo().noquote() << kTag << workerOptions().id + "is connected to the " + capturerId;
    emit capturerIdChanged(capturerId);
    capturerChangedHook();
}

void AbsMusicEffect::pinCapturer(QString id)
{
    if (id.isEmpty()) {
        setCapturerId(id); // refused with its line; the worker keeps what it has
        return;
    }
    stopFollowing();
    setCapturerId(id);
}

void AbsMusicEffect::releaseCapturer()
{
    if (capturer) {
        disconnect(capturer.data(), nullptr, this, nullptr);
    }
    capturer.clear();
    capturerId.clear();
}

int32_t AbsMusicEffect::load(const ControlOptions& ctlOptions)
{
    controlOptions = ctlOptions;
    AudioCapManager* manager = AudioCapManager::instacne();
    setCapturerId(manager->defaultCapturer());
    // A stored source is deliberately not applied: only the option panel moves a running worker.
    const QString stored =
        ConfigurationManager::instance()
            ->effectJsonValue(workerOptions().id, controlOptions.id, QStringLiteral("audioSource"))
            .toString();
    if (stored.isEmpty()) {
        setCapturerId(manager->defaultCapturer());
    }
    followDefaultCapturer();
    if (!capturer) {
        qInfo().noquote() << kTag << workerOptions().id + " waits for a sound output to appear.";
    }
    return 0;
}

void AbsMusicEffect::unload()
{
    stopFollowing();
    if (capturer) {
        releaseCapturer();
    }
}

void AbsMusicEffect::followDefaultCapturer()
{
    if (following) {
        return;
    }
    following = connect(AudioCapManager::instacne(), &AudioCapManager::defaultCapturerChanged, this,
                        &AbsMusicEffect::onDefaultCapturerChanged);
}

void AbsMusicEffect::stopFollowing()
{
    if (following) {
        disconnect(following);
        following = {};
    }
}

void AbsMusicEffect::onDefaultCapturerChanged(QString id)
{
    // No default for now: the worker stays where it is until the server names the next one.
    if (id.isEmpty() || (capturer && id == capturerId)) {
        return;
    }
    if (!capturer) {
        capturerId.clear(); // an id not found at load is retried, not refused as unchanged
    }
    setCapturerId(id);
}

void AbsMusicEffect::onCtlDirChanged(uint32_t dir)
{
    controlOptions.installDirection = dir;
}

void AbsMusicEffect::onCtlBrightnessChanged(float) {}

void AbsMusicEffect::onCtlKindNameChanged(QString) {}

void AbsMusicEffect::onCtlEnableChanged(bool) {}
