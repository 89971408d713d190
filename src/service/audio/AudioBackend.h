#pragma once

#include <QString>
#include <QVector>

#include <memory>

class AudioCapManager;
class AudioCapturer;

struct AudioSinkInfo
{
    QString name;
    QString description;
};

// What the audio registry needs of a sound server. The server runs a thread of its own; it
// reports sinks to the manager by queued calls and feeds each capturer that records.
class AudioBackend
{
public:
    virtual ~AudioBackend() = default;

    // Connects and waits at most waitMs for the first sink list and default sink. True when they
    // came in time, with both filled; later lists reach the manager by queued calls.
    virtual bool start(int waitMs, QVector<AudioSinkInfo>* sinks, QString* defaultSink) = 0;
    // Closes every stream and the connection and ends the server thread.
    virtual void stop() = 0;
    // Main thread: record the capturer's sink while on, else close its stream.
    virtual void setCapturing(AudioCapturer* capturer, bool on) = 0;
    // Main thread: the capturer dies; no callback may reach it after this returns.
    virtual void forget(AudioCapturer* capturer) = 0;

    // The platform's server, reporting to manager.
    static std::unique_ptr<AudioBackend> create(AudioCapManager* manager);
};
