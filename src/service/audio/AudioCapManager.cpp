#include "service/audio/AudioCapManager.h"

#include <QCoreApplication>
#include <QtDebug>

namespace {

// Made at first access, deleted by shutdown(), the exit hook.
std::unique_ptr<AudioCapManager> self;
AudioBackend* liveBackend = nullptr; // null before the first access and after shutdown

} // namespace

AudioCapManager* AudioCapManager::instacne()
{
    if (!self) {
        self.reset(new AudioCapManager); // the constructor is private to instacne()
        // Stops the server thread after the workers unloaded and the event loop ended.
        qAddPostRoutine(&AudioCapManager::shutdown);
    }
    return self.get();
}

AudioCapManager::AudioCapManager()
{
    qRegisterMetaType<QVector<SoundChannel>>("QVector<SoundChannel>");
    backend = AudioBackend::create(this);
    liveBackend = backend.get();
    QVector<AudioSinkInfo> sinks;
    QString fallback;
    if (backend->start(1000, &sinks, &fallback)) {
        defaultSink = fallback;
        for (const AudioSinkInfo& sink : qAsConst(sinks)) {
            addSink(sink, false);
        }
    }
    announcedDefault = present.contains(defaultSink) ? defaultSink : QString();
}

AudioCapManager::~AudioCapManager() = default;

void AudioCapManager::shutdown()
{
    if (!self) {
        return;
    }
    liveBackend = nullptr;
    self->backend->stop();
    self.reset();
}

QList<QString> AudioCapManager::allCapturers() const
{
    return order;
}

QString AudioCapManager::defaultCapturer() const
{
    return defaultSink;
}

QSharedPointer<AudioCapturer> AudioCapManager::capturer(const QString& id) const
{
    return present.value(id);
}

QString AudioCapManager::capturerDesc(const QString& id) const
{
    const QSharedPointer<AudioCapturer> c = present.value(id);
    return c ? c->capturerDesc() : QString();
}

void AudioCapManager::updateCapture(AudioCapturer* capturer, bool listened)
{
    if (liveBackend) {
        liveBackend->setCapturing(capturer, listened);
    }
}

void AudioCapManager::forgetCapturer(AudioCapturer* capturer)
{
    if (liveBackend) {
        liveBackend->forget(capturer);
    }
}

void AudioCapManager::addSink(const AudioSinkInfo& sink, bool announce)
{
    QSharedPointer<AudioCapturer> c = present.value(sink.name);
    if (c) {
        c->setCapturerDesc(sink.description);
        return;
    }
    c = known.value(sink.name).toStrongRef(); // a capturer still held resumes on its sink
    if (!c) {
        c.reset(new AudioCapturer(sink.name, sink.description));
        known.insert(sink.name, c);
    }
    c->setCapturerDesc(sink.description);
    present.insert(sink.name, c);
    order.append(sink.name);
    const bool firstSeen = !seen.contains(sink.name);
    seen.insert(sink.name);
    if (announce && firstSeen) {
        emit capturerReady(sink.name);
    }
}

void AudioCapManager::applySinkList(const QVector<AudioSinkInfo>& sinks, const QString& newDefault)
{
    QSet<QString> names;
    for (const AudioSinkInfo& sink : sinks) {
        names.insert(sink.name);
    }
    const QList<QString> before = order;
    for (const QString& name : before) {
        if (!names.contains(name)) {
            dropSink(name);
        }
    }
    for (const AudioSinkInfo& sink : sinks) {
        addSink(sink, true);
    }
    defaultSink = newDefault;
    recheckAll();
    announceDefault();
}

void AudioCapManager::applySink(const AudioSinkInfo& sink)
{
    addSink(sink, true);
    if (QSharedPointer<AudioCapturer> c = present.value(sink.name)) {
        c->recheck();
    }
    announceDefault();
}

void AudioCapManager::removeSink(const QString& name)
{
    dropSink(name);
    announceDefault();
}

void AudioCapManager::dropSink(const QString& name)
{
    order.removeAll(name);
    present.remove(name);
    for (auto it = known.begin(); it != known.end();) {
        if (it.value().isNull()) {
            it = known.erase(it);
        } else {
            ++it;
        }
    }
}

void AudioCapManager::applyDefaultSink(const QString& name)
{
    defaultSink = name;
    announceDefault();
}

void AudioCapManager::announceDefault()
{
    // The default sink and its sink arrive in either order: announced once both are there.
    const QString usable = present.contains(defaultSink) ? defaultSink : QString();
    if (usable != announcedDefault) {
        announcedDefault = usable;
        emit defaultCapturerChanged(usable);
    }
}

void AudioCapManager::recheckAll()
{
    for (const QWeakPointer<AudioCapturer>& weak : qAsConst(known)) {
        if (QSharedPointer<AudioCapturer> c = weak.toStrongRef()) {
            c->recheck();
        }
    }
}
