#pragma once

#include "service/screen/AreaAverager.h"
#include "service/screen/portal/PortalFrameSlot.h"

#include <QMap>
#include <QSize>
#include <QString>
#include <QVector>

#include <cstdint>
#include <functional>
#include <memory>

struct pw_thread_loop;
struct pw_context;
struct pw_core;
struct pw_registry;

// The video of one screen cast session: a PipeWire thread loop on the portal's remote and one
// stream per shared screen, each averaging its newest buffer into its PortalFrameSlot. Streams
// run only while their slot has a listener, once their format is agreed. Main thread: start and stop;
// the events are called on the loop thread.
class PipeWireCapture
{
public:
    struct Events
    {
        std::function<void(uint32_t node)> streamEnded;
        std::function<void(uint32_t node, QSize size)> negotiated; // the stream's pixel size
        std::function<void(uint32_t node, bool listened)> listened;
        std::function<void()> disconnected; // the remote is gone: every stream ended
    };

    explicit PipeWireCapture(const Events& events);
    ~PipeWireCapture(); // stop()
    PipeWireCapture(const PipeWireCapture&) = delete;
    PipeWireCapture& operator=(const PipeWireCapture&) = delete;

    // Takes the remote's fd (closed on failure too); false with errorString().
    bool start(int fd, const QVector<uint32_t>& nodes);
    // Disconnects the streams and joins the loop; the slots answer Ended from then on.
    void stop();
    QString errorString() const { return error; }

    std::shared_ptr<PortalFrameSlot> slot(uint32_t node) const;

    // How a PipeWire video format (SPA_VIDEO_FORMAT_*) lies in memory; false for the formats we
    // don't take.
    static bool layoutOf(uint32_t format, AreaAverager::PixelLayout* layout);
    static QString formatName(uint32_t format);

    struct Stream;

private:
    friend struct PipeWireCaptureCallbacks;
    // Under the loop's lock.
    void connectStreams(const QVector<uint32_t>& nodes);

    pw_thread_loop* loop = nullptr;
    pw_context* context = nullptr;
    pw_core* core = nullptr;
    pw_registry* registry = nullptr;
    struct Hooks;
    std::unique_ptr<Hooks> hooks;
    QMap<uint32_t, std::shared_ptr<Stream>> streams; // fixed between start and stop
    Events events;                                   // cleared under the loop's lock at stop
    QString error;
};
