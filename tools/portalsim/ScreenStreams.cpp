#include "ScreenStreams.h"
#include "service/screen/portal/PipeWireLoopLock.h"

#include <QFile>
#include <QPainter>
#include <QThread>

#include <pipewire/pipewire.h>
#include <spa/param/video/format-utils.h>
#include <spa/pod/builder.h>

#include <algorithm>
#include <chrono>
#include <mutex>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr int kFramesPerSecond = 30;

spa_video_format spaFormat(PixelOrder order)
{
    switch (order) {
    case PixelOrder::BGRx:
        return SPA_VIDEO_FORMAT_BGRx;
    case PixelOrder::RGBx:
        return SPA_VIDEO_FORMAT_RGBx;
    case PixelOrder::xBGR:
        return SPA_VIDEO_FORMAT_xBGR;
    case PixelOrder::xRGB:
        return SPA_VIDEO_FORMAT_xRGB;
    case PixelOrder::BGRA:
        return SPA_VIDEO_FORMAT_BGRA;
    case PixelOrder::RGBA:
        return SPA_VIDEO_FORMAT_RGBA;
    }
    return SPA_VIDEO_FORMAT_BGRx;
}

// A Unix socket connected to path, or -1.
int connectTo(const QString& path)
{
    const QByteArray name = QFile::encodeName(path);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (size_t(name.size()) >= sizeof(address.sun_path)) {
        return -1;
    }
    memcpy(address.sun_path, name.constData(), size_t(name.size()));
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd >= 0 && ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

} // namespace

struct ScreenStreams::Stream
{
    pw_stream* stream = nullptr;
    spa_hook listener{};
    QSize size;
    PixelOrder order = PixelOrder::BGRx;
    ScreenContent content;
    QSize negotiated;
    QByteArray base; // the still content packed at the negotiated size
    bool baseStale = true;
    bool dirty = true;
    int barX = 0;
    int brokenPending = -1;
    quint64 frames = 0;
    qint64 contentQueuedNs = 0;
    pw_stream_state streamState = PW_STREAM_STATE_UNCONNECTED;

    const spa_pod* formatParam(spa_pod_builder* b) const
    {
        const spa_rectangle rect = SPA_RECTANGLE(uint32_t(size.width()), uint32_t(size.height()));
        const spa_fraction still = SPA_FRACTION(0, 1);
        const spa_fraction top = SPA_FRACTION(kFramesPerSecond, 1);
        const spa_fraction least = SPA_FRACTION(1, 1);
        // Variable rate (0/1) up to 30 frames a second, as compositors announce screen casts.
        return static_cast<const spa_pod*>(spa_pod_builder_add_object(
            b, SPA_TYPE_OBJECT_Format, SPA_PARAM_EnumFormat, SPA_FORMAT_mediaType,
            SPA_POD_Id(SPA_MEDIA_TYPE_video), SPA_FORMAT_mediaSubtype, SPA_POD_Id(SPA_MEDIA_SUBTYPE_raw),
            SPA_FORMAT_VIDEO_format, SPA_POD_Id(spaFormat(order)), SPA_FORMAT_VIDEO_size,
            SPA_POD_Rectangle(&rect), SPA_FORMAT_VIDEO_framerate, SPA_POD_Fraction(&still),
            SPA_FORMAT_VIDEO_maxFramerate, SPA_POD_CHOICE_RANGE_Fraction(&top, &least, &top)));
    }

    void packBase()
    {
        QImage image(negotiated, QImage::Format_RGB32);
        if (content.kind == ScreenContent::Kind::Picture && !content.picture.isNull()) {
            image = content.picture.scaled(negotiated, Qt::IgnoreAspectRatio, Qt::SmoothTransformation);
        } else {
            image.fill(content.colour);
        }
        base = PixelOrders::pack(image, order);
        baseStale = false;
    }

    void process()
    {
        pw_buffer* buffer = pw_stream_dequeue_buffer(stream);
        if (!buffer) {
            return; // the consumer holds them all
        }
        spa_buffer* buf = buffer->buffer;
        spa_data& data = buf->datas[0];
        const int stride = negotiated.width() * 4;
        const uint32_t bytes = uint32_t(stride * negotiated.height());
        auto* header = static_cast<spa_meta_header*>(
            spa_buffer_find_meta_data(buf, SPA_META_Header, sizeof(spa_meta_header)));
        if (header) {
            header->flags = 0;
            header->seq = frames;
            header->pts = int64_t(frames) * SPA_NSEC_PER_SEC / kFramesPerSecond;
            header->dts_offset = 0;
        }
        data.chunk->offset = 0;
        data.chunk->stride = stride;
        data.chunk->flags = SPA_CHUNK_FLAG_NONE;
        if (data.type != SPA_DATA_MemFd || !data.data || data.maxsize < bytes || negotiated.isEmpty()) {
            data.chunk->size = 0;
        } else if (brokenPending >= 0) {
            if (brokenPending == int(Broken::EmptyChunk)) {
                data.chunk->size = 0;
            } else {
                memset(data.data, 0xff, bytes);
                data.chunk->size = bytes;
                data.chunk->flags = SPA_CHUNK_FLAG_CORRUPTED;
                if (header) {
                    header->flags = SPA_META_HEADER_FLAG_CORRUPTED;
                }
            }
            brokenPending = -1;
        } else {
            if (baseStale || base.size() != int(bytes)) {
                packBase();
            }
            auto* out = static_cast<uchar*>(data.data);
            if (content.kind == ScreenContent::Kind::Changing) {
                uchar pixel[4];
                PixelOrders::packPixel(pixel, QColor::fromHsv(int(frames * 37 % 360), 255, 255).rgb(), order);
                quint32 word;
                memcpy(&word, pixel, 4);
                std::fill_n(reinterpret_cast<quint32*>(out), bytes / 4, word);
            } else {
                memcpy(out, base.constData(), bytes);
            }
            if (content.kind == ScreenContent::Kind::MovingBar) {
                uchar pixel[4];
                PixelOrders::packPixel(pixel, content.bar.rgb(), order);
                const int width = qBound(1, content.barWidth, negotiated.width());
                const int height = content.barHeight > 0 ? qMin(content.barHeight, negotiated.height())
                                                         : negotiated.height();
                const int top = (negotiated.height() - height) / 2;
                barX = barX % negotiated.width();
                for (int y = top; y < top + height; ++y) {
                    uchar* line = out + y * stride;
                    for (int x = barX; x < barX + width; ++x) {
                        memcpy(line + (x % negotiated.width()) * 4, pixel, 4);
                    }
                }
                barX += qMax(1, negotiated.width() / 64);
            }
            data.chunk->size = bytes;
            dirty = false;
            if (contentQueuedNs == 0) {
                contentQueuedNs = std::chrono::duration_cast<std::chrono::nanoseconds>(
                                      std::chrono::steady_clock::now().time_since_epoch())
                                      .count();
            }
        }
        ++frames;
        pw_stream_queue_buffer(stream, buffer);
    }

    void paramChanged(uint32_t id, const spa_pod* param)
    {
        if (id != SPA_PARAM_Format || !param) {
            return;
        }
        spa_video_info_raw info{};
        if (spa_format_video_raw_parse(param, &info) < 0) {
            return;
        }
        negotiated = QSize(int(info.size.width), int(info.size.height));
        baseStale = true;
        dirty = true;
        const int stride = negotiated.width() * 4;
        uint8_t storage[1024];
        spa_pod_builder b = SPA_POD_BUILDER_INIT(storage, sizeof(storage));
        const spa_pod* params[2];
        params[0] = static_cast<const spa_pod*>(spa_pod_builder_add_object(
            &b, SPA_TYPE_OBJECT_ParamBuffers, SPA_PARAM_Buffers, SPA_PARAM_BUFFERS_buffers,
            SPA_POD_CHOICE_RANGE_Int(4, 2, 8), SPA_PARAM_BUFFERS_blocks, SPA_POD_Int(1),
            SPA_PARAM_BUFFERS_size, SPA_POD_Int(stride * negotiated.height()), SPA_PARAM_BUFFERS_stride,
            SPA_POD_Int(stride), SPA_PARAM_BUFFERS_dataType, SPA_POD_CHOICE_FLAGS_Int(1 << SPA_DATA_MemFd)));
        params[1] = static_cast<const spa_pod*>(spa_pod_builder_add_object(
            &b, SPA_TYPE_OBJECT_ParamMeta, SPA_PARAM_Meta, SPA_PARAM_META_type, SPA_POD_Id(SPA_META_Header),
            SPA_PARAM_META_size, SPA_POD_Int(sizeof(spa_meta_header))));
        pw_stream_update_params(stream, params, 2);
    }
};

namespace {

void onProcess(void* data)
{
    static_cast<ScreenStreams::Stream*>(data)->process();
}

void onParamChanged(void* data, uint32_t id, const spa_pod* param)
{
    static_cast<ScreenStreams::Stream*>(data)->paramChanged(id, param);
}

// Each buffer is a sealed memfd of our own, as compositors share screens in memory.
void onAddBuffer(void* userdata, pw_buffer* buffer)
{
    const QSize size = static_cast<ScreenStreams::Stream*>(userdata)->negotiated;
    spa_data& data = buffer->buffer->datas[0];
    if (!(data.type & (1u << SPA_DATA_MemFd)) || size.isEmpty()) {
        return; // no memfd allowed: the stream has no memory and sends empty chunks
    }
    data.maxsize = uint32_t(size.width() * 4 * size.height());
    const int fd = memfd_create("portalsim-screen", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    if (fd < 0 || ftruncate(fd, data.maxsize) < 0) {
        if (fd >= 0) {
            ::close(fd);
        }
        return;
    }
    fcntl(fd, F_ADD_SEALS, F_SEAL_GROW | F_SEAL_SHRINK | F_SEAL_SEAL);
    void* mapped = mmap(nullptr, data.maxsize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (mapped == MAP_FAILED) {
        ::close(fd);
        return;
    }
    data.type = SPA_DATA_MemFd;
    data.flags = SPA_DATA_FLAG_READWRITE;
    data.fd = fd;
    data.mapoffset = 0;
    data.data = mapped;
}

void onRemoveBuffer(void*, pw_buffer* buffer)
{
    spa_data& data = buffer->buffer->datas[0];
    if (data.type == SPA_DATA_MemFd && data.data) {
        munmap(data.data, data.maxsize);
        ::close(int(data.fd));
        data.data = nullptr;
    }
}

void onStateChanged(void* data, pw_stream_state, pw_stream_state state, const char*)
{
    auto* stream = static_cast<ScreenStreams::Stream*>(data);
    stream->streamState = state;
    if (state == PW_STREAM_STATE_STREAMING) {
        stream->dirty = true; // a consumer (again): it needs a picture
    }
}

const pw_stream_events streamEvents = [] {
    pw_stream_events events{};
    events.version = PW_VERSION_STREAM_EVENTS;
    events.state_changed = onStateChanged;
    events.param_changed = onParamChanged;
    events.process = onProcess;
    events.add_buffer = onAddBuffer;
    events.remove_buffer = onRemoveBuffer;
    return events;
}();

} // namespace

ScreenStreams::ScreenStreams()
{
    static std::once_flag initialised;
    std::call_once(initialised, [] { pw_init(nullptr, nullptr); });
}

ScreenStreams::~ScreenStreams()
{
    stop();
}

bool ScreenStreams::start(const QString& socketPath)
{
    if (core) {
        return true;
    }
    const int fd = connectTo(socketPath);
    if (fd < 0) {
        error = QStringLiteral("nothing listens on ") + socketPath;
        return false;
    }
    loop = pw_thread_loop_new("portalsim-video", nullptr);
    context = pw_context_new(pw_thread_loop_get_loop(loop), nullptr, 0);
    if (!context) {
        ::close(fd);
        error = QStringLiteral("no PipeWire context");
        stop();
        return false;
    }
    if (pw_thread_loop_start(loop) < 0) {
        ::close(fd);
        error = QStringLiteral("no PipeWire thread");
        stop();
        return false;
    }
    PipeWireLoopLock lock(loop);
    core = pw_context_connect_fd(
        context, fd,
        pw_properties_new(PW_KEY_APP_NAME, "portalsim", PW_KEY_REMOTE_NAME, "portalsim", nullptr), 0);
    if (!core) {
        error = QStringLiteral("cannot connect to PipeWire at ") + socketPath;
        return false;
    }
    timer = pw_loop_add_timer(pw_thread_loop_get_loop(loop), &ScreenStreams::onTimer, this);
    timespec period{0, 1000000000L / kFramesPerSecond};
    pw_loop_update_timer(pw_thread_loop_get_loop(loop), timer, &period, &period, false);
    return true;
}

void ScreenStreams::stop()
{
    if (loop) {
        pw_thread_loop_lock(loop);
        for (const std::shared_ptr<Stream>& stream : qAsConst(streams)) {
            spa_hook_remove(&stream->listener);
            pw_stream_destroy(stream->stream);
        }
        streams.clear();
        if (timer) {
            pw_loop_destroy_source(pw_thread_loop_get_loop(loop), timer);
            timer = nullptr;
        }
        if (core) {
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
}

void ScreenStreams::onTimer(void* data, uint64_t)
{
    auto* self = static_cast<ScreenStreams*>(data);
    for (const std::shared_ptr<Stream>& stream : qAsConst(self->streams)) {
        const bool moving = stream->content.kind == ScreenContent::Kind::MovingBar ||
                            stream->content.kind == ScreenContent::Kind::Changing;
        if (stream->streamState == PW_STREAM_STATE_STREAMING &&
            (stream->dirty || moving || stream->brokenPending >= 0) && pw_stream_is_driving(stream->stream)) {
            pw_stream_trigger_process(stream->stream);
        }
    }
}

int ScreenStreams::add(const QString& name, QSize size, PixelOrder order, const ScreenContent& content)
{
    if (!core) {
        return 0;
    }
    auto stream = std::make_shared<Stream>();
    stream->size = size;
    stream->order = order;
    stream->content = content;
    int handle = 0;
    {
        PipeWireLoopLock lock(loop);
        const QByteArray nodeName = name.toUtf8();
        stream->stream = pw_stream_new(core, "portalsim",
                                       pw_properties_new(PW_KEY_MEDIA_CLASS, "Video/Source", PW_KEY_NODE_NAME,
                                                         nodeName.constData(), PW_KEY_NODE_DESCRIPTION,
                                                         nodeName.constData(), nullptr));
        if (!stream->stream) {
            return 0;
        }
        pw_stream_add_listener(stream->stream, &stream->listener, &streamEvents, stream.get());
        uint8_t storage[1024];
        spa_pod_builder b = SPA_POD_BUILDER_INIT(storage, sizeof(storage));
        const spa_pod* params[1] = {stream->formatParam(&b)};
        const auto flags = pw_stream_flags(PW_STREAM_FLAG_DRIVER | PW_STREAM_FLAG_ALLOC_BUFFERS);
        if (pw_stream_connect(stream->stream, PW_DIRECTION_OUTPUT, PW_ID_ANY, flags, params, 1) < 0) {
            spa_hook_remove(&stream->listener);
            pw_stream_destroy(stream->stream);
            return 0;
        }
        handle = ++lastHandle;
        streams.insert(handle, stream);
    }
    // The node id comes with the server's answer.
    for (int waited = 0; waited < 5000; waited += 5) {
        if (nodeId(handle) != SPA_ID_INVALID) {
            return handle;
        }
        QThread::msleep(5);
    }
    remove(handle);
    return 0;
}

void ScreenStreams::remove(int handle)
{
    PipeWireLoopLock lock(loop);
    const std::shared_ptr<Stream> stream = streams.take(handle);
    if (stream) {
        spa_hook_remove(&stream->listener);
        pw_stream_destroy(stream->stream);
    }
}

void ScreenStreams::resize(int handle, QSize size)
{
    PipeWireLoopLock lock(loop);
    const std::shared_ptr<Stream> stream = streams.value(handle);
    if (stream) {
        stream->size = size;
        uint8_t storage[1024];
        spa_pod_builder b = SPA_POD_BUILDER_INIT(storage, sizeof(storage));
        const spa_pod* params[1] = {stream->formatParam(&b)};
        pw_stream_update_params(stream->stream, params, 1);
    }
}

void ScreenStreams::setContent(int handle, const ScreenContent& content)
{
    PipeWireLoopLock lock(loop);
    const std::shared_ptr<Stream> stream = streams.value(handle);
    if (stream) {
        stream->content = content;
        stream->baseStale = true;
        stream->dirty = true;
        stream->contentQueuedNs = 0;
    }
}

void ScreenStreams::sendBroken(int handle, Broken kind)
{
    PipeWireLoopLock lock(loop);
    const std::shared_ptr<Stream> stream = streams.value(handle);
    if (stream) {
        stream->brokenPending = int(kind);
    }
}

quint32 ScreenStreams::nodeId(int handle) const
{
    PipeWireLoopLock lock(loop);
    const std::shared_ptr<Stream> stream = streams.value(handle);
    return stream ? pw_stream_get_node_id(stream->stream) : SPA_ID_INVALID;
}

QString ScreenStreams::state(int handle) const
{
    PipeWireLoopLock lock(loop);
    const std::shared_ptr<Stream> stream = streams.value(handle);
    return QString::fromLatin1(
        pw_stream_state_as_string(stream ? stream->streamState : PW_STREAM_STATE_UNCONNECTED));
}

quint64 ScreenStreams::framesSent(int handle) const
{
    PipeWireLoopLock lock(loop);
    const std::shared_ptr<Stream> stream = streams.value(handle);
    return stream ? stream->frames : 0;
}

qint64 ScreenStreams::contentQueuedNs(int handle) const
{
    PipeWireLoopLock lock(loop);
    const std::shared_ptr<Stream> stream = streams.value(handle);
    return stream ? stream->contentQueuedNs : 0;
}

QSize ScreenStreams::negotiatedSize(int handle) const
{
    PipeWireLoopLock lock(loop);
    const std::shared_ptr<Stream> stream = streams.value(handle);
    return stream ? stream->negotiated : QSize();
}
