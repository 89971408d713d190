#pragma once

#include "service/audio/AudioBackend.h"

#include <QHash>
#include <QMutex>
#include <QWaitCondition>

#include <map>
#include <memory>
#include <pulse/pulseaudio.h>

// The sound server on PulseAudio (or PipeWire through pipewire-pulse): a threaded main loop of
// its own, one context that never spawns a daemon, followed by subscription and found again
// after the server went away. Every member below the lock note is touched with the loop's lock
// held: on the loop's thread in callbacks, elsewhere only between lock and unlock.
class AudioBackendPulse : public AudioBackend
{
public:
    explicit AudioBackendPulse(AudioCapManager* manager);
    ~AudioBackendPulse() override;

    bool start(int waitMs, QVector<AudioSinkInfo>* sinks, QString* defaultSink) override;
    void stop() override;
    void setCapturing(AudioCapturer* capturer, bool on) override;
    void forget(AudioCapturer* capturer) override;

private:
    struct Capture
    {
        AudioBackendPulse* owner = nullptr;
        AudioCapturer* capturer = nullptr;
        pa_stream* stream = nullptr;
        pa_time_event* idle = nullptr; // 20 ms pace of the silence rule while listened
    };

    void connectContext();
    void scheduleReconnect();
    void contextFailed();
    void requestSnapshot();
    void snapshotPartDone();
    void openStream(Capture* capture);
    void closeStream(Capture* capture);
    void stopIdle(Capture* capture);
    void armTimer(pa_time_event* event, int ms);

    static void onContextState(pa_context* c, void* userdata);
    static void onSubscription(pa_context* c, pa_subscription_event_type_t type, uint32_t index,
                               void* userdata);
    static void onListedSink(pa_context* c, const pa_sink_info* info, int eol, void* userdata);
    static void onChangedSink(pa_context* c, const pa_sink_info* info, int eol, void* userdata);
    static void onServerInfo(pa_context* c, const pa_server_info* info, void* userdata);
    static void onChangedServer(pa_context* c, const pa_server_info* info, void* userdata);
    static void onReconnectTimer(pa_mainloop_api* api, pa_time_event* e, const struct timeval* tv,
                                 void* userdata);
    static void onIdleTimer(pa_mainloop_api* api, pa_time_event* e, const struct timeval* tv, void* userdata);
    static void onStreamState(pa_stream* s, void* userdata);
    static void onStreamRead(pa_stream* s, size_t bytes, void* userdata);

    AudioCapManager* manager;
    pa_threaded_mainloop* loop = nullptr;
    pa_mainloop_api* api = nullptr;

    // Guarded by the loop's lock from here on.
    pa_context* context = nullptr;
    pa_time_event* reconnectEvent = nullptr;
    int backoffMs = 250;
    bool ready = false;
    bool warnedOutage = false; // one warning per outage
    bool stopping = false;
    int snapshotParts = 0;
    QVector<AudioSinkInfo> listing;
    QString listingDefault;
    QHash<uint32_t, QString> sinkNames; // sink index -> name, for removal notices
    QHash<QString, QString> monitors;   // sink name -> its monitor source
    std::map<AudioCapturer*, std::unique_ptr<Capture>> captures;

    // The first snapshot, handed to start() directly while it still waits.
    QMutex firstMutex;
    QWaitCondition firstCondition;
    bool firstDone = false;
    bool firstWaiting = true;
    bool firstOk = false;
    QVector<AudioSinkInfo> firstSinks;
    QString firstDefault;
};
