#include "service/screen/portal/PipeWireCapture.h"
#include "service/screen/portal/PipeWireLoopLock.h"

#include <QtDebug>

#include <pipewire/pipewire.h>
#include <spa/param/video/format-utils.h>
#include <spa/pod/builder.h>
#include <spa/utils/result.h>

#include <mutex>
#include <unistd.h>

namespace {

constexpr char kTag[] = "[PipeWireCapture]:";
constexpr int kFramesPerSecond = 30;

} // namespace

struct PipeWireCapture::Stream
{
    PipeWireCapture* owner = nullptr;
    uint32_t node = 0;
    pw_stream* stream = nullptr;
    spa_hook listener{};
    std::shared_ptr<PortalFrameSlot> slot;
    uint32_t format = SPA_VIDEO_FORMAT_UNKNOWN;
    AreaAverager::PixelLayout layout;
    QSize size;
    bool usable = false; // a format we read was agreed
    bool ended = false;
    bool listened = false;
    QString technique;

    void endOnce()
    {
        if (ended) {
            return;
        }
        ended = true;
        slot->end();
        if (owner->events.streamEnded) {
            owner->events.streamEnded(node);
        }
    }

    // Whether the buffer holds a whole picture we can read.
    const uint8_t* pixels(pw_buffer* buffer, int* stride) const
    {
        spa_buffer* buf = buffer->buffer;
        if (!usable || buf->n_datas < 1) {
            return nullptr;
        }
        const auto* header = static_cast<spa_meta_header*>(
            spa_buffer_find_meta_data(buf, SPA_META_Header, sizeof(spa_meta_header)));
        if (header && (header->flags & SPA_META_HEADER_FLAG_CORRUPTED)) {
            return nullptr;
        }
        const spa_data& data = buf->datas[0];
        if (!data.data || !data.chunk || data.chunk->size == 0 ||
            (data.chunk->flags & SPA_CHUNK_FLAG_CORRUPTED)) {
            return nullptr; // an empty chunk: the cursor moved, the picture did not
        }
        const int rowBytes = size.width() * 4;
        const int rows = data.chunk->stride > 0 ? data.chunk->stride : rowBytes;
        const uint64_t offset = data.chunk->offset % std::max<uint32_t>(data.maxsize, 1);
        const uint64_t needed = offset + uint64_t(rows) * uint64_t(size.height() - 1) + uint64_t(rowBytes);
        if (rows < rowBytes || needed > data.maxsize) {
            return nullptr;
        }
        *stride = rows;
        return static_cast<const uint8_t*>(data.data) + offset;
    }

    void process()
    {
        // Everything but the newest readable buffer goes back unread: no queue of old pictures.
        pw_buffer* newest = nullptr;
        const uint8_t* src = nullptr;
        int stride = 0;
        while (pw_buffer* buffer = pw_stream_dequeue_buffer(stream)) {
            int rowBytes = 0;
            const uint8_t* p = pixels(buffer, &rowBytes);
            if (!p) {
                pw_stream_queue_buffer(stream, buffer);
                continue;
            }
            if (newest) {
                pw_stream_queue_buffer(stream, newest);
            }
            newest = buffer;
            src = p;
            stride = rowBytes;
        }
        if (!newest) {
            return;
        }
        const QSize out = slot->outputSize();
        QImage frame(out.boundedTo(size), QImage::Format_RGBA8888);
        if (!frame.isNull()) {
            AreaAverager::average(src, size.width(), size.height(), stride, layout, &frame);
            slot->put(frame, technique);
        }
        pw_stream_queue_buffer(stream, newest);
    }

    void paramChanged(uint32_t id, const spa_pod* param)
    {
        if (id != SPA_PARAM_Format || !param) {
            return;
        }
        spa_video_info_raw info{};
        if (spa_format_video_raw_parse(param, &info) < 0 || info.size.width == 0 || info.size.height == 0 ||
            !layoutOf(info.format, &layout)) {
            usable = false;
            qWarning().noquote() << kTag << "Stream" << node << "offers no format we read";
            return;
        }
        usable = true;
        format = info.format;
        size = QSize(int(info.size.width), int(info.size.height));
        technique =
            QStringLiteral("PipeWire %1 %2x%3").arg(formatName(format)).arg(size.width()).arg(size.height());

        uint8_t storage[512];
        spa_pod_builder b = SPA_POD_BUILDER_INIT(storage, sizeof(storage));
        const spa_pod* params[2];
        params[0] = static_cast<const spa_pod*>(spa_pod_builder_add_object(
            &b, SPA_TYPE_OBJECT_ParamBuffers, SPA_PARAM_Buffers, SPA_PARAM_BUFFERS_buffers,
            SPA_POD_CHOICE_RANGE_Int(4, 2, 8), SPA_PARAM_BUFFERS_blocks, SPA_POD_Int(1),
            SPA_PARAM_BUFFERS_dataType,
            SPA_POD_CHOICE_FLAGS_Int((1 << SPA_DATA_MemFd) | (1 << SPA_DATA_MemPtr))));
        params[1] = static_cast<const spa_pod*>(spa_pod_builder_add_object(
            &b, SPA_TYPE_OBJECT_ParamMeta, SPA_PARAM_Meta, SPA_PARAM_META_type, SPA_POD_Id(SPA_META_Header),
            SPA_PARAM_META_size, SPA_POD_Int(sizeof(spa_meta_header))));
        pw_stream_update_params(stream, params, 2);
        // A stream starts active, as a paused one agrees no format: it learns its size, then rests.
        if (!listened) {
            pw_stream_set_active(stream, false);
        }
        if (owner->events.negotiated) {
            owner->events.negotiated(node, size);
        }
    }
};

struct PipeWireCapture::Hooks
{
    spa_hook core{};
    spa_hook registry{};
};

namespace {

void onProcess(void* data)
{
    static_cast<PipeWireCapture::Stream*>(data)->process();
}

void onParamChanged(void* data, uint32_t id, const spa_pod* param)
{
    static_cast<PipeWireCapture::Stream*>(data)->paramChanged(id, param);
}

void onStateChanged(void* data, pw_stream_state old, pw_stream_state state, const char* error)
{
    auto* stream = static_cast<PipeWireCapture::Stream*>(data);
    if (state == PW_STREAM_STATE_ERROR || (state == PW_STREAM_STATE_UNCONNECTED && old != state)) {
        if (!stream->ended) {
            qInfo().noquote() << kTag << "Stream" << stream->node
                              << "ended:" << (error ? error : pw_stream_state_as_string(state));
        }
        stream->endOnce();
    }
}

const pw_stream_events streamEvents = [] {
    pw_stream_events events{};
    events.version = PW_VERSION_STREAM_EVENTS;
    events.state_changed = onStateChanged;
    events.param_changed = onParamChanged;
    events.process = onProcess;
    return events;
}();

} // namespace

// The registry and core callbacks reach the capture through these two.
struct PipeWireCaptureCallbacks
{
    static void globalRemoved(void* data, uint32_t id)
    {
        auto* capture = static_cast<PipeWireCapture*>(data);
        const auto stream = capture->streams.value(id);
        if (stream) {
            stream->endOnce(); // the screen's node left the graph
        }
    }
    static void coreError(void* data, uint32_t id, int, int res, const char* message)
    {
        auto* capture = static_cast<PipeWireCapture*>(data);
        if (id != PW_ID_CORE || res != -EPIPE) {
            return;
        }
        qWarning().noquote() << kTag << "The PipeWire remote is gone:" << message;
        for (const auto& stream : qAsConst(capture->streams)) {
            stream->endOnce();
        }
        if (capture->events.disconnected) {
            capture->events.disconnected();
        }
    }
};

namespace {

const pw_registry_events registryEvents = [] {
    pw_registry_events events{};
    events.version = PW_VERSION_REGISTRY_EVENTS;
    events.global_remove = PipeWireCaptureCallbacks::globalRemoved;
    return events;
}();

const pw_core_events coreEvents = [] {
    pw_core_events events{};
    events.version = PW_VERSION_CORE_EVENTS;
    events.error = PipeWireCaptureCallbacks::coreError;
    return events;
}();

} // namespace

PipeWireCapture::PipeWireCapture(const Events& handlers)
    : hooks(std::make_unique<Hooks>())
    , events(handlers)
{
    static std::once_flag initialised;
    std::call_once(initialised, [] { pw_init(nullptr, nullptr); });
}

PipeWireCapture::~PipeWireCapture()
{
    stop();
}

bool PipeWireCapture::layoutOf(uint32_t format, AreaAverager::PixelLayout* layout)
{
    // Masks of the four bytes read as one little-endian word: byte 0 is 0xff, byte 3 0xff000000.
    uint32_t masks[3];
    switch (format) {
    case SPA_VIDEO_FORMAT_BGRx:
    case SPA_VIDEO_FORMAT_BGRA:
        masks[0] = 0xff0000, masks[1] = 0xff00, masks[2] = 0xff;
        break;
    case SPA_VIDEO_FORMAT_RGBx:
    case SPA_VIDEO_FORMAT_RGBA:
        masks[0] = 0xff, masks[1] = 0xff00, masks[2] = 0xff0000;
        break;
    case SPA_VIDEO_FORMAT_xBGR:
        masks[0] = 0xff000000, masks[1] = 0xff0000, masks[2] = 0xff00;
        break;
    case SPA_VIDEO_FORMAT_xRGB:
        masks[0] = 0xff00, masks[1] = 0xff0000, masks[2] = 0xff000000;
        break;
    default:
        return false;
    }
    layout->bitsPerPixel = 32;
    layout->scanlinePad = 32;
    layout->swapBytes = Q_BYTE_ORDER == Q_BIG_ENDIAN;
    std::copy(masks, masks + 3, layout->masks);
    return true;
}

QString PipeWireCapture::formatName(uint32_t format)
{
    switch (format) {
    case SPA_VIDEO_FORMAT_BGRx:
        return QStringLiteral("BGRx");
    case SPA_VIDEO_FORMAT_RGBx:
        return QStringLiteral("RGBx");
    case SPA_VIDEO_FORMAT_xBGR:
        return QStringLiteral("xBGR");
    case SPA_VIDEO_FORMAT_xRGB:
        return QStringLiteral("xRGB");
    case SPA_VIDEO_FORMAT_BGRA:
        return QStringLiteral("BGRA");
    case SPA_VIDEO_FORMAT_RGBA:
        return QStringLiteral("RGBA");
    default:
        return QStringLiteral("format %1").arg(format);
    }
}

bool PipeWireCapture::start(int fd, const QVector<uint32_t>& nodes)
{
    loop = pw_thread_loop_new("orvanta-screencast", nullptr);
    context = loop ? pw_context_new(pw_thread_loop_get_loop(loop), nullptr, 0) : nullptr;
    if (!context || pw_thread_loop_start(loop) < 0) {
        ::close(fd);
        error = QStringLiteral("no PipeWire loop");
        stop();
        return false;
    }
    {
        PipeWireLoopLock lock(loop);
        core = pw_context_connect_fd(context, fd, pw_properties_new(PW_KEY_APP_NAME, "Orvanta", nullptr), 0);
        if (core) {
            pw_core_add_listener(core, &hooks->core, &coreEvents, this);
            registry = pw_core_get_registry(core, PW_VERSION_REGISTRY, 0);
            pw_registry_add_listener(registry, &hooks->registry, &registryEvents, this);
            connectStreams(nodes);
        }
    }
    if (!core) {
        error = QStringLiteral("cannot connect to the portal's PipeWire remote");
        stop();
        return false;
    }
    return true;
}

void PipeWireCapture::connectStreams(const QVector<uint32_t>& nodes)
{
    const spa_video_format formats[] = {SPA_VIDEO_FORMAT_BGRx, SPA_VIDEO_FORMAT_RGBx, SPA_VIDEO_FORMAT_xBGR,
                                        SPA_VIDEO_FORMAT_xRGB, SPA_VIDEO_FORMAT_BGRA, SPA_VIDEO_FORMAT_RGBA};
    const spa_rectangle least = SPA_RECTANGLE(1, 1);
    const spa_rectangle most = SPA_RECTANGLE(16384, 16384);
    const spa_rectangle usual = SPA_RECTANGLE(1920, 1080);
    const spa_fraction none = SPA_FRACTION(0, 1);
    const spa_fraction top = SPA_FRACTION(kFramesPerSecond, 1);
    for (uint32_t node : nodes) {
        auto stream = std::make_shared<Stream>();
        stream->owner = this;
        stream->node = node;
        stream->slot = std::make_shared<PortalFrameSlot>(node);
        stream->stream = pw_stream_new(core, "orvanta-screen",
                                       pw_properties_new(PW_KEY_MEDIA_TYPE, "Video", PW_KEY_MEDIA_CATEGORY,
                                                         "Capture", PW_KEY_MEDIA_ROLE, "Screen", nullptr));
        if (!stream->stream) {
            stream->slot->end();
            streams.insert(node, stream);
            continue;
        }
        pw_stream_add_listener(stream->stream, &stream->listener, &streamEvents, stream.get());
        uint8_t storage[1024];
        spa_pod_builder b = SPA_POD_BUILDER_INIT(storage, sizeof(storage));
        const spa_pod* params[1] = {static_cast<const spa_pod*>(spa_pod_builder_add_object(
            &b, SPA_TYPE_OBJECT_Format, SPA_PARAM_EnumFormat, SPA_FORMAT_mediaType,
            SPA_POD_Id(SPA_MEDIA_TYPE_video), SPA_FORMAT_mediaSubtype, SPA_POD_Id(SPA_MEDIA_SUBTYPE_raw),
            SPA_FORMAT_VIDEO_format,
            SPA_POD_CHOICE_ENUM_Id(7, formats[0], formats[0], formats[1], formats[2], formats[3], formats[4],
                                   formats[5]),
            SPA_FORMAT_VIDEO_size, SPA_POD_CHOICE_RANGE_Rectangle(&usual, &least, &most),
            SPA_FORMAT_VIDEO_framerate, SPA_POD_CHOICE_RANGE_Fraction(&none, &none, &top),
            SPA_FORMAT_VIDEO_maxFramerate, SPA_POD_CHOICE_RANGE_Fraction(&top, &none, &top)))};
        const auto flags = pw_stream_flags(PW_STREAM_FLAG_AUTOCONNECT | PW_STREAM_FLAG_MAP_BUFFERS |
                                           PW_STREAM_FLAG_DONT_RECONNECT);
        if (pw_stream_connect(stream->stream, PW_DIRECTION_INPUT, node, flags, params, 1) < 0) {
            qWarning().noquote() << kTag << "Cannot connect to stream" << node;
            stream->ended = true;
            stream->slot->end();
        }
        Stream* raw = stream.get();
        pw_thread_loop* theLoop = loop;
        stream->slot->setControl([this, raw, theLoop](bool on) {
            PipeWireLoopLock locked(theLoop);
            raw->listened = on;
            if (!raw->ended) {
                pw_stream_set_active(raw->stream, on);
            }
            if (events.listened) {
                events.listened(raw->node, on);
            }
        });
        streams.insert(node, stream);
    }
}

void PipeWireCapture::stop()
{
    // Detached first: a listener turning a stream takes the loop's lock, which we take next.
    for (const auto& stream : qAsConst(streams)) {
        stream->slot->setControl({});
    }
    if (loop) {
        pw_thread_loop_lock(loop);
        events = Events();
        for (const auto& stream : qAsConst(streams)) {
            if (stream->stream) {
                spa_hook_remove(&stream->listener);
                pw_stream_disconnect(stream->stream);
                pw_stream_destroy(stream->stream);
                stream->stream = nullptr;
            }
        }
        if (registry) {
            spa_hook_remove(&hooks->registry);
            pw_proxy_destroy(reinterpret_cast<pw_proxy*>(registry));
            registry = nullptr;
        }
        if (core) {
            spa_hook_remove(&hooks->core);
            pw_core_disconnect(core);
            core = nullptr;
        }
        pw_thread_loop_unlock(loop);
        pw_thread_loop_stop(loop);
    }
    if (context) {
        pw_context_destroy(context);
        context = nullptr;
    }
    if (loop) {
        pw_thread_loop_destroy(loop);
        loop = nullptr;
    }
    for (const auto& stream : qAsConst(streams)) {
        stream->slot->end();
    }
    streams.clear();
}

std::shared_ptr<PortalFrameSlot> PipeWireCapture::slot(uint32_t node) const
{
    const auto stream = streams.value(node);
    return stream ? stream->slot : nullptr;
}
