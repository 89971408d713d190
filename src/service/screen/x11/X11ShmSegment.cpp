#include "service/screen/x11/X11ShmSegment.h"

#include "service/screen/x11/X11Setup.h"

#include <QtEndian>

#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cstring>

using X11Setup::reply;

namespace {

constexpr size_t kProbeBytes = 4096;
constexpr size_t kSizeStep = 0x10000; // segments grow in steps of 64 KiB

// Whether a segment of this kind carries a known colour from a pixmap of the server's.
bool readsBack(const QString& display, X11ShmSegment::Kind kind)
{
    int screenNumber = 0;
    xcb_connection_t* c = xcb_connect(display.toLocal8Bit().constData(), &screenNumber);
    bool ok = false;
    if (!xcb_connection_has_error(c)) {
        const xcb_screen_t* screen = X11Setup::screenOf(c, screenNumber);
        X11ShmSegment segment(c, kind);
        if (segment.reserve(kProbeBytes)) {
            const uint32_t depthMask =
                screen->root_depth >= 32 ? 0xffffffffu : (1u << screen->root_depth) - 1;
            const uint32_t colour = 0x5a3c1e7du & depthMask;
            const xcb_pixmap_t pixmap = xcb_generate_id(c);
            xcb_create_pixmap(c, screen->root_depth, pixmap, screen->root, 4, 4);
            const xcb_gcontext_t gc = xcb_generate_id(c);
            xcb_create_gc(c, gc, pixmap, XCB_GC_FOREGROUND, &colour);
            const xcb_rectangle_t all{0, 0, 4, 4};
            xcb_poly_fill_rectangle(c, pixmap, gc, 1, &all);
            std::memset(const_cast<uint8_t*>(segment.data()), 0, 64);
            auto image = reply(xcb_shm_get_image_reply(
                c, xcb_shm_get_image(c, pixmap, 0, 0, 4, 4, ~0u, XCB_IMAGE_FORMAT_Z_PIXMAP, segment.id(), 0),
                nullptr));
            if (image && !xcb_connection_has_error(c)) {
                const AreaAverager::PixelLayout layout = X11Setup::layoutOf(c, screen->root_depth);
                uint32_t value = 0;
                if (layout.bitsPerPixel == 32) {
                    std::memcpy(&value, segment.data(), 4);
                    value = layout.swapBytes ? qbswap(value) : value;
                } else if (layout.bitsPerPixel == 16) {
                    uint16_t v16 = 0;
                    std::memcpy(&v16, segment.data(), 2);
                    value = layout.swapBytes ? qbswap(v16) : v16;
                }
                ok = (value & depthMask) == colour;
            }
            xcb_free_gc(c, gc);
            xcb_free_pixmap(c, pixmap);
        }
    }
    xcb_disconnect(c); // after the segment above has detached
    return ok;
}

} // namespace

X11ShmSegment::Kind X11ShmSegment::probe(const QString& display)
{
    int screenNumber = 0;
    xcb_connection_t* c = xcb_connect(display.toLocal8Bit().constData(), &screenNumber);
    bool present = false;
    bool fdCapable = false;
    if (!xcb_connection_has_error(c)) {
        const xcb_query_extension_reply_t* ext = xcb_get_extension_data(c, &xcb_shm_id);
        if (ext && ext->present) {
            auto version = reply(xcb_shm_query_version_reply(c, xcb_shm_query_version(c), nullptr));
            present = version != nullptr;
            fdCapable = version && (version->major_version > 1 || version->minor_version >= 2);
        }
    }
    xcb_disconnect(c);
    if (!present) {
        return Kind::None;
    }
    if (fdCapable && readsBack(display, Kind::Fd)) {
        return Kind::Fd;
    }
    return readsBack(display, Kind::SysV) ? Kind::SysV : Kind::None;
}

X11ShmSegment::X11ShmSegment(xcb_connection_t* c, Kind kind)
    : connection(c)
    , type(kind)
{
}

X11ShmSegment::~X11ShmSegment()
{
    detach();
}

bool X11ShmSegment::reserve(size_t bytes)
{
    if (memory && size >= bytes) {
        return true;
    }
    detach();
    return type != Kind::None && attach((bytes + kSizeStep - 1) & ~(kSizeStep - 1));
}

bool X11ShmSegment::attach(size_t bytes)
{
    segment = xcb_generate_id(connection);
    xcb_void_cookie_t cookie;
    if (type == Kind::Fd) {
        const int fd = memfd_create("orvanta-capture", MFD_CLOEXEC);
        if (fd < 0) {
            return false;
        }
        if (ftruncate(fd, off_t(bytes)) != 0) {
            close(fd);
            return false;
        }
        void* data = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        if (data == MAP_FAILED) {
            close(fd);
            return false;
        }
        memory = static_cast<uint8_t*>(data);
        cookie = xcb_shm_attach_fd_checked(connection, segment, fd, 0); // xcb closes fd once sent
    } else {
        const int id = shmget(IPC_PRIVATE, bytes, IPC_CREAT | 0600);
        if (id < 0) {
            return false;
        }
        void* data = shmat(id, nullptr, 0);
        if (data == reinterpret_cast<void*>(-1)) {
            shmctl(id, IPC_RMID, nullptr);
            return false;
        }
        memory = static_cast<uint8_t*>(data);
        sysvId = id;
        cookie = xcb_shm_attach_checked(connection, segment, uint32_t(id), 0);
    }
    size = bytes;
    xcb_generic_error_t* error = xcb_request_check(connection, cookie);
    if (sysvId >= 0) {
        shmctl(sysvId, IPC_RMID, nullptr); // gone with the last detach
    }
    if (error || xcb_connection_has_error(connection)) {
        std::free(error);
        unmap(); // never attached: only our side to undo
        return false;
    }
    return true;
}

void X11ShmSegment::detach()
{
    if (!memory) {
        return;
    }
    xcb_shm_detach(connection, segment);
    xcb_flush(connection);
    unmap();
}

void X11ShmSegment::unmap()
{
    if (sysvId >= 0) {
        shmdt(memory);
    } else {
        munmap(memory, size);
    }
    memory = nullptr;
    size = 0;
    sysvId = -1;
}
