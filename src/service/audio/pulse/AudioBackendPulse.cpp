#include "service/audio/pulse/AudioBackendPulse.h"

#include "service/audio/AudioCapManager.h"
#include "service/audio/AudioCapturer.h"
#include "service/audio/SpectrumAnalyzer.h"

#include <QMetaObject>
#include <QtDebug>

#include <chrono>

namespace {
// The default sink's name, empty when there is none. PipeWire's Pulse layer names the placeholder
// "@DEFAULT_SINK@" while no sink exists rather than leaving the name empty.
QString defaultSinkName(const pa_server_info* info)
{
    const QString name = info->default_sink_name ? QString::fromUtf8(info->default_sink_name) : QString();
    return name == QLatin1String("@DEFAULT_SINK@") ? QString() : name;
}

// Logs under AudioCapManager's name, and a stream's texts under AudioCapturer's: the log texts
// of this part are fixed that way.
constexpr char kTag[] = "[AudioCapManager]:";

qint64 steadyNowNs()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

const char* const kMediaName = "Music light";
constexpr int kIdlePaceMs = 20;
constexpr int kMaxBackoffMs = 5000;

} // namespace

std::unique_ptr<AudioBackend> AudioBackend::create(AudioCapManager* manager)
{
    return std::make_unique<AudioBackendPulse>(manager);
}

AudioBackendPulse::AudioBackendPulse(AudioCapManager* manager)
    : manager(manager)
{
}

AudioBackendPulse::~AudioBackendPulse()
{
    stop();
}

bool AudioBackendPulse::start(int waitMs, QVector<AudioSinkInfo>* sinks, QString* defaultSink)
{
    loop = pa_threaded_mainloop_new();
    if (!loop) {
        qCritical().noquote() << kTag << "Cannot create the sound server's main loop.";
        return false;
    }
    api = pa_threaded_mainloop_get_api(loop);
    pa_threaded_mainloop_lock(loop);
    if (pa_threaded_mainloop_start(loop) < 0) {
        pa_threaded_mainloop_unlock(loop);
        pa_threaded_mainloop_free(loop);
        loop = nullptr;
        qCritical().noquote() << kTag << "Cannot start the sound server's thread.";
        return false;
    }
    connectContext();
    pa_threaded_mainloop_unlock(loop);

    QMutexLocker locker(&firstMutex);
    if (!firstDone) {
        firstCondition.wait(&firstMutex, static_cast<unsigned long>(waitMs));
    }
    firstWaiting = false; // a snapshot later than this goes to the manager by queued call
    if (firstDone && firstOk) {
        *sinks = firstSinks;
        *defaultSink = firstDefault;
        return true;
    }
    return false;
}

void AudioBackendPulse::stop()
{
    if (!loop) {
        return;
    }
    pa_threaded_mainloop_lock(loop);
    stopping = true;
    for (auto& entry : captures) {
        closeStream(entry.second.get());
        stopIdle(entry.second.get());
    }
    captures.clear();
    if (reconnectEvent) {
        api->time_free(reconnectEvent);
        reconnectEvent = nullptr;
    }
    if (context) {
        pa_context_set_state_callback(context, nullptr, nullptr);
        pa_context_set_subscribe_callback(context, nullptr, nullptr);
        pa_context_disconnect(context);
        pa_context_unref(context);
        context = nullptr;
    }
    pa_threaded_mainloop_unlock(loop);
    pa_threaded_mainloop_stop(loop);
    pa_threaded_mainloop_free(loop);
    loop = nullptr;
    api = nullptr;
}

void AudioBackendPulse::connectContext()
{
    if (context) {
        pa_context_set_state_callback(context, nullptr, nullptr);
        pa_context_set_subscribe_callback(context, nullptr, nullptr);
        pa_context_disconnect(context);
        pa_context_unref(context);
    }
    ready = false;
    context = pa_context_new(api, "Orvanta");
    pa_context_set_state_callback(context, &AudioBackendPulse::onContextState, this);
    pa_context_set_subscribe_callback(context, &AudioBackendPulse::onSubscription, this);
    // Never spawn a daemon: on a desktop without pipewire-pulse it would seize the sound card.
    // A null server name lets libpulse honour PULSE_SERVER and the usual places.
    if (pa_context_connect(context, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0) {
        contextFailed();
    }
}

void AudioBackendPulse::onContextState(pa_context* c, void* userdata)
{
    auto* self = static_cast<AudioBackendPulse*>(userdata);
    if (c != self->context) {
        return;
    }
    switch (pa_context_get_state(c)) {
    case PA_CONTEXT_READY: {
        self->ready = true;
        self->backoffMs = 250;
        if (self->warnedOutage) {
            qInfo().noquote() << kTag << "The sound server is back:" << pa_context_get_server(c);
            self->warnedOutage = false;
        }
        const auto mask =
            static_cast<pa_subscription_mask_t>(PA_SUBSCRIPTION_MASK_SINK | PA_SUBSCRIPTION_MASK_SERVER);
        if (pa_operation* op = pa_context_subscribe(c, mask, nullptr, nullptr)) {
            pa_operation_unref(op);
        }
        self->requestSnapshot();
        break;
    }
    case PA_CONTEXT_FAILED:
    case PA_CONTEXT_TERMINATED:
        self->contextFailed();
        break;
    default:
        break;
    }
}

void AudioBackendPulse::contextFailed()
{
    if (stopping) {
        return;
    }
    const bool wasReady = ready;
    ready = false;
    if (!warnedOutage) {
        qWarning().noquote() << kTag << "No sound server:" << pa_strerror(pa_context_errno(context))
                             << "- music effects stay silent; retrying.";
        warnedOutage = true;
    }
    if (wasReady) {
        // Its sinks are gone with it; a capturer still held goes quiet until its sink returns.
        sinkNames.clear();
        monitors.clear();
        QMetaObject::invokeMethod(
            manager, [m = manager] { m->applySinkList({}, QString()); }, Qt::QueuedConnection);
    }
    {
        QMutexLocker locker(&firstMutex);
        if (!firstDone) {
            firstDone = true;
            firstOk = false;
            firstCondition.wakeAll();
        }
    }
    scheduleReconnect();
}

void AudioBackendPulse::scheduleReconnect()
{
    if (!reconnectEvent) {
        reconnectEvent = api->time_new(api, nullptr, &AudioBackendPulse::onReconnectTimer, this);
    }
    armTimer(reconnectEvent, backoffMs);
    backoffMs = qMin(backoffMs * 2, kMaxBackoffMs);
}

void AudioBackendPulse::armTimer(pa_time_event* event, int ms)
{
    struct timeval tv;
    pa_gettimeofday(&tv);
    pa_timeval_add(&tv, static_cast<pa_usec_t>(ms) * PA_USEC_PER_MSEC);
    api->time_restart(event, &tv);
}

void AudioBackendPulse::onReconnectTimer(pa_mainloop_api*, pa_time_event* e, const struct timeval*,
                                         void* userdata)
{
    auto* self = static_cast<AudioBackendPulse*>(userdata);
    self->api->time_restart(e, nullptr); // disarmed until the next failure
    if (!self->stopping) {
        self->connectContext();
    }
}

void AudioBackendPulse::requestSnapshot()
{
    listing.clear();
    listingDefault.clear();
    sinkNames.clear();
    monitors.clear();
    snapshotParts = 2;
    if (pa_operation* op = pa_context_get_sink_info_list(context, &AudioBackendPulse::onListedSink, this)) {
        pa_operation_unref(op);
    } else {
        --snapshotParts;
    }
    if (pa_operation* op = pa_context_get_server_info(context, &AudioBackendPulse::onServerInfo, this)) {
        pa_operation_unref(op);
    } else {
        --snapshotParts;
    }
    if (snapshotParts == 0) {
        snapshotPartDone();
    }
}

void AudioBackendPulse::onListedSink(pa_context* c, const pa_sink_info* info, int eol, void* userdata)
{
    auto* self = static_cast<AudioBackendPulse*>(userdata);
    if (c != self->context) {
        return;
    }
    if (eol != 0 || !info) {
        self->snapshotPartDone();
        return;
    }
    const QString name = QString::fromUtf8(info->name);
    self->sinkNames.insert(info->index, name);
    self->monitors.insert(name, QString::fromUtf8(info->monitor_source_name));
    self->listing.append(AudioSinkInfo{name, QString::fromUtf8(info->description)});
}

void AudioBackendPulse::onServerInfo(pa_context* c, const pa_server_info* info, void* userdata)
{
    auto* self = static_cast<AudioBackendPulse*>(userdata);
    if (c != self->context) {
        return;
    }
    if (info) {
        self->listingDefault = defaultSinkName(info);
    }
    self->snapshotPartDone();
}

void AudioBackendPulse::snapshotPartDone()
{
    if (--snapshotParts > 0) {
        return;
    }
    {
        QMutexLocker locker(&firstMutex);
        if (firstWaiting && !firstDone) {
            firstSinks = listing;
            firstDefault = listingDefault;
            firstOk = true;
            firstDone = true;
            firstCondition.wakeAll();
            return;
        }
        firstDone = true;
    }
    QMetaObject::invokeMethod(
        manager, [m = manager, sinks = listing, def = listingDefault] { m->applySinkList(sinks, def); },
        Qt::QueuedConnection);
}

void AudioBackendPulse::onSubscription(pa_context* c, pa_subscription_event_type_t type, uint32_t index,
                                       void* userdata)
{
    auto* self = static_cast<AudioBackendPulse*>(userdata);
    const int facility = type & PA_SUBSCRIPTION_EVENT_FACILITY_MASK;
    const int kind = type & PA_SUBSCRIPTION_EVENT_TYPE_MASK;
    if (facility == PA_SUBSCRIPTION_EVENT_SINK) {
        if (kind == PA_SUBSCRIPTION_EVENT_REMOVE) {
            const QString name = self->sinkNames.take(index);
            if (!name.isEmpty()) {
                self->monitors.remove(name);
                QMetaObject::invokeMethod(
                    self->manager, [m = self->manager, name] { m->removeSink(name); }, Qt::QueuedConnection);
            }
        } else if (pa_operation* op =
                       pa_context_get_sink_info_by_index(c, index, &AudioBackendPulse::onChangedSink, self)) {
            pa_operation_unref(op);
        }
    } else if (facility == PA_SUBSCRIPTION_EVENT_SERVER) {
        if (pa_operation* op = pa_context_get_server_info(c, &AudioBackendPulse::onChangedServer, self)) {
            pa_operation_unref(op);
        }
    }
}

void AudioBackendPulse::onChangedSink(pa_context* c, const pa_sink_info* info, int eol, void* userdata)
{
    auto* self = static_cast<AudioBackendPulse*>(userdata);
    if (c != self->context || eol != 0 || !info) {
        return;
    }
    const QString name = QString::fromUtf8(info->name);
    self->sinkNames.insert(info->index, name);
    self->monitors.insert(name, QString::fromUtf8(info->monitor_source_name));
    const AudioSinkInfo sink{name, QString::fromUtf8(info->description)};
    QMetaObject::invokeMethod(
        self->manager, [m = self->manager, sink] { m->applySink(sink); }, Qt::QueuedConnection);
}

void AudioBackendPulse::onChangedServer(pa_context* c, const pa_server_info* info, void* userdata)
{
    auto* self = static_cast<AudioBackendPulse*>(userdata);
    if (c != self->context || !info) {
        return;
    }
    const QString name = defaultSinkName(info);
    QMetaObject::invokeMethod(
        self->manager, [m = self->manager, name] { m->applyDefaultSink(name); }, Qt::QueuedConnection);
}

void AudioBackendPulse::setCapturing(AudioCapturer* capturer, bool on)
{
    if (!loop) {
        return;
    }
    pa_threaded_mainloop_lock(loop);
    auto it = captures.find(capturer);
    if (on && !stopping) {
        Capture* capture = it != captures.end() ? it->second.get() : nullptr;
        if (!capture) {
            auto made = std::make_unique<Capture>();
            capture = made.get();
            capture->owner = this;
            capture->capturer = capturer;
            captures.emplace(capturer, std::move(made));
        }
        if (!capture->idle) {
            capture->idle = api->time_new(api, nullptr, &AudioBackendPulse::onIdleTimer, capture);
            armTimer(capture->idle, kIdlePaceMs);
        }
        if (!capture->stream) {
            openStream(capture);
        }
    } else if (it != captures.end()) {
        closeStream(it->second.get());
        stopIdle(it->second.get());
        captures.erase(it);
    }
    pa_threaded_mainloop_unlock(loop);
}

void AudioBackendPulse::forget(AudioCapturer* capturer)
{
    setCapturing(capturer, false);
}

void AudioBackendPulse::openStream(Capture* capture)
{
    if (!ready || !context) {
        return; // reopened when the server and the sink are back
    }
    const QString monitor = monitors.value(capture->capturer->id());
    if (monitor.isEmpty()) {
        return;
    }
    // Float stereo at 48 kHz whatever the sink runs at: the server resamples and remixes.
    const pa_sample_spec format{PA_SAMPLE_FLOAT32LE, SpectrumAnalyzer::kRate, 2};
    pa_channel_map map;
    pa_channel_map_init_stereo(&map);
    pa_proplist* props = pa_proplist_new();
    pa_proplist_sets(props, PA_PROP_MEDIA_NAME, kMediaName);
    pa_proplist_sets(props, PA_PROP_APPLICATION_NAME, "Orvanta");
    pa_stream* stream = pa_stream_new_with_proplist(context, kMediaName, &format, &map, props);
    pa_proplist_free(props);
    if (!stream) {
        qWarning().noquote() << "[AudioCapturer]: Cannot make a stream on" << monitor << ":"
                             << pa_strerror(pa_context_errno(context));
        return;
    }
    pa_stream_set_state_callback(stream, &AudioBackendPulse::onStreamState, capture);
    pa_stream_set_read_callback(stream, &AudioBackendPulse::onStreamRead, capture);
    pa_buffer_attr attr;
    attr.maxlength = static_cast<uint32_t>(-1);
    attr.tlength = static_cast<uint32_t>(-1);
    attr.prebuf = static_cast<uint32_t>(-1);
    attr.minreq = static_cast<uint32_t>(-1);
    attr.fragsize = static_cast<uint32_t>(pa_usec_to_bytes(10 * PA_USEC_PER_MSEC, &format)); // else ~2 s
    // Moved, it would feed another sink's sound under this sink's id.
    const auto flags = static_cast<pa_stream_flags_t>(
        PA_STREAM_ADJUST_LATENCY | PA_STREAM_DONT_MOVE | PA_STREAM_DONT_INHIBIT_AUTO_SUSPEND |
        PA_STREAM_AUTO_TIMING_UPDATE | PA_STREAM_INTERPOLATE_TIMING);
    if (pa_stream_connect_record(stream, monitor.toUtf8().constData(), &attr, flags) < 0) {
        qWarning().noquote() << "[AudioCapturer]: Cannot record" << monitor << ":"
                             << pa_strerror(pa_context_errno(context));
        pa_stream_set_state_callback(stream, nullptr, nullptr);
        pa_stream_set_read_callback(stream, nullptr, nullptr);
        pa_stream_unref(stream);
        return;
    }
    capture->stream = stream;
}

void AudioBackendPulse::closeStream(Capture* capture)
{
    if (!capture->stream) {
        return;
    }
    pa_stream_set_state_callback(capture->stream, nullptr, nullptr);
    pa_stream_set_read_callback(capture->stream, nullptr, nullptr);
    pa_stream_disconnect(capture->stream);
    pa_stream_unref(capture->stream);
    capture->stream = nullptr;
}

void AudioBackendPulse::stopIdle(Capture* capture)
{
    if (capture->idle) {
        api->time_free(capture->idle);
        capture->idle = nullptr;
    }
}

void AudioBackendPulse::onStreamState(pa_stream* s, void* userdata)
{
    auto* capture = static_cast<Capture*>(userdata);
    const pa_stream_state_t state = pa_stream_get_state(s);
    if (state == PA_STREAM_FAILED || state == PA_STREAM_TERMINATED) {
        // The sink or the server went away. libpulse holds its own reference during this call.
        if (capture->stream == s) {
            pa_stream_set_state_callback(s, nullptr, nullptr);
            pa_stream_set_read_callback(s, nullptr, nullptr);
            pa_stream_unref(s);
            capture->stream = nullptr;
        }
    }
}

void AudioBackendPulse::onStreamRead(pa_stream* s, size_t, void* userdata)
{
    auto* capture = static_cast<Capture*>(userdata);
    const qint64 now = steadyNowNs();
    while (pa_stream_readable_size(s) > 0) {
        const void* data = nullptr;
        size_t bytes = 0;
        if (pa_stream_peek(s, &data, &bytes) < 0 || bytes == 0) {
            break;
        }
        if (data) { // null with bytes is a hole in the stream: skip it
            capture->capturer->feed(static_cast<const float*>(data),
                                    static_cast<int>(bytes / (2 * sizeof(float))), now);
        }
        pa_stream_drop(s);
    }
}

void AudioBackendPulse::onIdleTimer(pa_mainloop_api*, pa_time_event* e, const struct timeval*, void* userdata)
{
    auto* capture = static_cast<Capture*>(userdata);
    AudioBackendPulse* self = capture->owner;
    const qint64 now = steadyNowNs();
    capture->capturer->idleTick(now);
    double latencyMs = 0.0;
    if (capture->stream && pa_stream_get_state(capture->stream) == PA_STREAM_READY) {
        pa_usec_t usec = 0;
        int negative = 0;
        if (pa_stream_get_latency(capture->stream, &usec, &negative) == 0) {
            latencyMs = (negative ? -1.0 : 1.0) * usec / 1000.0;
        }
    }
    capture->capturer->reportLoop(now, latencyMs);
    self->armTimer(e, kIdlePaceMs);
}
