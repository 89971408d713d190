#pragma once

#include "PixelOrder.h"

#include <QColor>
#include <QImage>
#include <QMap>
#include <QSize>
#include <QString>

#include <memory>

struct pw_thread_loop;
struct pw_context;
struct pw_core;
struct spa_source;

// What a simulated screen shows: one colour, a picture (scaled to the stream's size), a bar
// moving across a background, one step a frame, or the whole screen a new colour every frame.
struct ScreenContent
{
    enum class Kind
    {
        Fill,
        Picture,
        MovingBar,
        Changing,
    };
    Kind kind = Kind::Fill;
    QColor colour = Qt::black; // the fill, or the bar's background
    QImage picture;
    QColor bar = Qt::white;
    int barWidth = 16; // pixels of the stream
    int barHeight = 0; // pixels of the stream, centred; 0: the whole height
};

// The screen cast video streams of the simulator: one PipeWire output node ("Video/Source") per
// simulated monitor on a private PipeWire, driving its own graph at up to 30 frames a second,
// buffers in memfds of its own, the pixels in the stream's byte order. A still screen sends
// a frame when it changes (and when a consumer starts), a moving bar every frame. Thread-safe:
// every call takes the PipeWire loop's lock.
class ScreenStreams
{
public:
    enum class Broken
    {
        EmptyChunk, // a buffer with no picture, as a cursor-only update sends
        Corrupted,  // a buffer flagged corrupted, its pixels white
    };

    ScreenStreams();
    ~ScreenStreams();

    // Connects to the PipeWire socket; false with errorString() if that failed.
    bool start(const QString& socketPath);
    // Drops the connection: every stream's node leaves the graph at once.
    void stop();
    bool isRunning() const { return core != nullptr; }
    QString errorString() const { return error; }

    // A new stream; its handle (> 0) once PipeWire has given it a node id, else 0.
    int add(const QString& name, QSize size, PixelOrder order, const ScreenContent& content);
    void remove(int handle);
    // Offers the new size only: the consumer's format changes with it.
    void resize(int handle, QSize size);
    void setContent(int handle, const ScreenContent& content);
    // Sends one broken buffer next, then goes on as before.
    void sendBroken(int handle, Broken kind);

    quint32 nodeId(int handle) const;
    // PipeWire's name of the stream's state ("streaming" while a consumer takes frames).
    QString state(int handle) const;
    // Frames queued since the stream was added, broken ones included.
    quint64 framesSent(int handle) const;
    // When the first frame of the content last set was queued (steady clock, ns); 0 until then.
    qint64 contentQueuedNs(int handle) const;
    // The size and byte order agreed with the consumer (invalid before).
    QSize negotiatedSize(int handle) const;

    struct Stream;

private:
    static void onTimer(void* data, uint64_t expirations);

    pw_thread_loop* loop = nullptr;
    pw_context* context = nullptr;
    pw_core* core = nullptr;
    spa_source* timer = nullptr;
    QMap<int, std::shared_ptr<Stream>> streams; // guarded by the loop's lock
    int lastHandle = 0;
    QString error;
};
