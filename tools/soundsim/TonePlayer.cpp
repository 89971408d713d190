#include "TonePlayer.h"

#include <chrono>
#include <vector>

namespace {

qint64 steadyNowNs()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

} // namespace

TonePlayer::TonePlayer() = default;

TonePlayer::~TonePlayer()
{
    stop();
}

void TonePlayer::onContextState(pa_context*, void* userdata)
{
    pa_threaded_mainloop_signal(static_cast<TonePlayer*>(userdata)->loop, 0);
}

void TonePlayer::onStreamState(pa_stream*, void* userdata)
{
    pa_threaded_mainloop_signal(static_cast<TonePlayer*>(userdata)->loop, 0);
}

bool TonePlayer::start(const QString& sinkName, int rate)
{
    generator = SignalGenerator(rate);
    loop = pa_threaded_mainloop_new();
    pa_threaded_mainloop_lock(loop);
    pa_threaded_mainloop_start(loop);
    context = pa_context_new(pa_threaded_mainloop_get_api(loop), "Orvanta tone player");
    pa_context_set_state_callback(context, &TonePlayer::onContextState, this);
    bool ok = pa_context_connect(context, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) >= 0;
    while (ok) {
        const pa_context_state_t state = pa_context_get_state(context);
        if (state == PA_CONTEXT_READY) {
            break;
        }
        if (!PA_CONTEXT_IS_GOOD(state)) {
            ok = false;
            break;
        }
        pa_threaded_mainloop_wait(loop);
    }
    if (ok) {
        const pa_sample_spec format{PA_SAMPLE_FLOAT32LE, static_cast<uint32_t>(rate), 2};
        // What is played goes to the channels it names: no spreading of the front pair over the
        // centre and rear of a surround output, which would blur the channel a test listens to.
        pa_proplist* props = pa_proplist_new();
        pa_proplist_sets(props, "channelmix.upmix", "false");
        stream = pa_stream_new_with_proplist(context, "tone", &format, nullptr, props);
        pa_proplist_free(props);
        pa_stream_set_state_callback(stream, &TonePlayer::onStreamState, this);
        pa_stream_set_write_callback(stream, &TonePlayer::onStreamWrite, this);
        pa_buffer_attr attr;
        attr.maxlength = static_cast<uint32_t>(-1);
        attr.tlength = static_cast<uint32_t>(pa_usec_to_bytes(10 * PA_USEC_PER_MSEC, &format));
        attr.prebuf = 0; // play at once, never wait for a full buffer
        attr.minreq = static_cast<uint32_t>(-1);
        attr.fragsize = static_cast<uint32_t>(-1);
        const auto flags = static_cast<pa_stream_flags_t>(PA_STREAM_ADJUST_LATENCY);
        ok = pa_stream_connect_playback(stream, sinkName.toUtf8().constData(), &attr, flags, nullptr,
                                        nullptr) >= 0;
        while (ok) {
            const pa_stream_state_t state = pa_stream_get_state(stream);
            if (state == PA_STREAM_READY) {
                break;
            }
            if (!PA_STREAM_IS_GOOD(state)) {
                ok = false;
                break;
            }
            pa_threaded_mainloop_wait(loop);
        }
    }
    pa_threaded_mainloop_unlock(loop);
    if (!ok) {
        stop();
    }
    return ok;
}

void TonePlayer::stop()
{
    if (!loop) {
        return;
    }
    pa_threaded_mainloop_lock(loop);
    if (stream) {
        pa_stream_set_write_callback(stream, nullptr, nullptr);
        pa_stream_set_state_callback(stream, nullptr, nullptr);
        pa_stream_disconnect(stream);
        pa_stream_unref(stream);
        stream = nullptr;
    }
    if (context) {
        pa_context_set_state_callback(context, nullptr, nullptr);
        pa_context_disconnect(context);
        pa_context_unref(context);
        context = nullptr;
    }
    pa_threaded_mainloop_unlock(loop);
    pa_threaded_mainloop_stop(loop);
    pa_threaded_mainloop_free(loop);
    loop = nullptr;
}

void TonePlayer::playTone(double hz, double dbfs, Channels channels)
{
    if (!loop) {
        return;
    }
    pa_threaded_mainloop_lock(loop);
    startPending = generator.kind() == SignalGenerator::Kind::Silence;
    generator.setTone(hz, dbfs, SignalGenerator::Channels(channels));
    pa_threaded_mainloop_unlock(loop);
}

void TonePlayer::playSilence()
{
    if (!loop) {
        return;
    }
    pa_threaded_mainloop_lock(loop);
    generator.setSilence();
    pa_threaded_mainloop_unlock(loop);
}

qint64 TonePlayer::soundStartNs()
{
    if (!loop) {
        return 0;
    }
    pa_threaded_mainloop_lock(loop);
    const qint64 ns = startPending ? 0 : startNs;
    pa_threaded_mainloop_unlock(loop);
    return ns;
}

void TonePlayer::onStreamWrite(pa_stream* s, size_t bytes, void* userdata)
{
    auto* self = static_cast<TonePlayer*>(userdata);
    const size_t frames = bytes / (2 * sizeof(float));
    if (frames == 0) {
        return;
    }
    std::vector<float> buffer(frames * 2);
    self->generator.fill(buffer.data(), frames);
    if (self->startPending && self->generator.kind() != SignalGenerator::Kind::Silence) {
        self->startPending = false;
        self->startNs = steadyNowNs();
    }
    pa_stream_write(s, buffer.data(), frames * 2 * sizeof(float), nullptr, 0, PA_SEEK_RELATIVE);
}
