#include "service/screen/x11/DeskFrameGrabberX11.h"

#include <QtDebug>
#include <QtEndian>

#include <xcb/shm.h>

#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

namespace {

template <typename T> using Reply = std::unique_ptr<T, decltype(&std::free)>;

template <typename T> Reply<T> reply(T* r)
{
    return Reply<T>(r, &std::free);
}

xcb_render_fixed_t fixed(double v)
{
    return static_cast<xcb_render_fixed_t>(std::lround(v * 65536.0));
}

const xcb_screen_t* screenOf(xcb_connection_t* c, int screenNumber)
{
    xcb_screen_iterator_t it = xcb_setup_roots_iterator(xcb_get_setup(c));
    for (int i = 0; i < screenNumber && it.rem; ++i) {
        xcb_screen_next(&it);
    }
    return it.data;
}

int bitsPerPixel(xcb_connection_t* c, uint8_t depth, int* scanlinePad)
{
    const xcb_setup_t* setup = xcb_get_setup(c);
    for (auto it = xcb_setup_pixmap_formats_iterator(setup); it.rem; xcb_format_next(&it)) {
        if (it.data->depth == depth) {
            *scanlinePad = it.data->scanline_pad;
            return it.data->bits_per_pixel;
        }
    }
    *scanlinePad = 32;
    return 32;
}

bool serverSwaps(xcb_connection_t* c)
{
    const bool serverLsb = xcb_get_setup(c)->image_byte_order == XCB_IMAGE_ORDER_LSB_FIRST;
    return serverLsb != (Q_BYTE_ORDER == Q_LITTLE_ENDIAN);
}

struct Segment
{
    xcb_shm_seg_t id = 0;
    uint8_t* data = nullptr;
    size_t size = 0;
    int sysvId = -1;
};

// Makes a segment the server has attached; false (and nothing left behind) when it can't.
bool attachSegment(xcb_connection_t* c, bool useFd, size_t size, Segment* segment)
{
    segment->id = xcb_generate_id(c);
    xcb_void_cookie_t cookie;
    if (useFd) {
        const int fd = memfd_create("orvanta-capture", MFD_CLOEXEC);
        if (fd < 0) {
            return false;
        }
        if (ftruncate(fd, off_t(size)) != 0) {
            close(fd);
            return false;
        }
        void* data = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        if (data == MAP_FAILED) {
            close(fd);
            return false;
        }
        segment->data = static_cast<uint8_t*>(data);
        segment->size = size;
        cookie = xcb_shm_attach_fd_checked(c, segment->id, fd, 0); // xcb closes fd once sent
    } else {
        const int id = shmget(IPC_PRIVATE, size, IPC_CREAT | 0600);
        if (id < 0) {
            return false;
        }
        void* data = shmat(id, nullptr, 0);
        if (data == reinterpret_cast<void*>(-1)) {
            shmctl(id, IPC_RMID, nullptr);
            return false;
        }
        segment->data = static_cast<uint8_t*>(data);
        segment->size = size;
        segment->sysvId = id;
        cookie = xcb_shm_attach_checked(c, segment->id, uint32_t(id), 0);
    }
    xcb_generic_error_t* error = xcb_request_check(c, cookie);
    if (segment->sysvId >= 0) {
        shmctl(segment->sysvId, IPC_RMID, nullptr); // gone with the last detach
    }
    if (error || xcb_connection_has_error(c)) {
        std::free(error);
        if (useFd) {
            munmap(segment->data, segment->size);
        } else {
            shmdt(segment->data);
        }
        *segment = Segment();
        return false;
    }
    return true;
}

void detachSegment(xcb_connection_t* c, Segment* segment)
{
    if (!segment->data) {
        return;
    }
    xcb_shm_detach(c, segment->id);
    xcb_flush(c);
    if (segment->sysvId >= 0) {
        shmdt(segment->data);
    } else {
        munmap(segment->data, segment->size);
    }
    *segment = Segment();
}

// Reads a known colour through a segment on a throwaway connection: only then can we trust
// MIT-SHM (a remote server lists the extension but can't share memory, and a descriptor sent
// over TCP closes the connection).
bool probeKind(const QString& display, bool useFd)
{
    int screenNumber = 0;
    xcb_connection_t* c = xcb_connect(display.toLocal8Bit().constData(), &screenNumber);
    bool ok = false;
    if (!xcb_connection_has_error(c)) {
        const xcb_screen_t* screen = screenOf(c, screenNumber);
        Segment segment;
        if (attachSegment(c, useFd, 4096, &segment)) {
            const uint32_t depthMask =
                screen->root_depth >= 32 ? 0xffffffffu : (1u << screen->root_depth) - 1;
            const uint32_t colour = 0x5a3c1e7du & depthMask;
            const xcb_pixmap_t pixmap = xcb_generate_id(c);
            xcb_create_pixmap(c, screen->root_depth, pixmap, screen->root, 4, 4);
            const xcb_gcontext_t gc = xcb_generate_id(c);
            xcb_create_gc(c, gc, pixmap, XCB_GC_FOREGROUND, &colour);
            const xcb_rectangle_t all{0, 0, 4, 4};
            xcb_poly_fill_rectangle(c, pixmap, gc, 1, &all);
            std::memset(segment.data, 0, 64);
            auto image = reply(xcb_shm_get_image_reply(
                c, xcb_shm_get_image(c, pixmap, 0, 0, 4, 4, ~0u, XCB_IMAGE_FORMAT_Z_PIXMAP, segment.id, 0),
                nullptr));
            if (image && !xcb_connection_has_error(c)) {
                int pad = 32;
                const int bpp = bitsPerPixel(c, screen->root_depth, &pad);
                uint32_t value = 0;
                if (bpp == 32) {
                    std::memcpy(&value, segment.data, 4);
                    if (serverSwaps(c)) {
                        value = qbswap(value);
                    }
                } else if (bpp == 16) {
                    uint16_t v16 = 0;
                    std::memcpy(&v16, segment.data, 2);
                    value = serverSwaps(c) ? qbswap(v16) : v16;
                }
                ok = (value & depthMask) == colour;
            }
            xcb_free_gc(c, gc);
            xcb_free_pixmap(c, pixmap);
            detachSegment(c, &segment);
        }
    }
    xcb_disconnect(c);
    return ok;
}

} // namespace

DeskFrameGrabberX11* DeskFrameGrabberX11::open(const QString& display)
{
    int screenNumber = 0;
    xcb_connection_t* c = xcb_connect(display.toLocal8Bit().constData(), &screenNumber);
    if (xcb_connection_has_error(c)) {
        xcb_disconnect(c);
        return nullptr;
    }
    return new DeskFrameGrabberX11(c, screenNumber, display);
}

DeskFrameGrabberX11::DeskFrameGrabberX11(xcb_connection_t* c, int screenNumber, const QString& displayName)
    : display(displayName)
    , connection(c)
{
    const xcb_screen_t* screen = screenOf(c, screenNumber);
    root = screen->root;
    rootDepth = screen->root_depth;
    rootLayout.bitsPerPixel = bitsPerPixel(c, rootDepth, &rootLayout.scanlinePad);
    rootLayout.swapBytes = serverSwaps(c);
    for (auto depths = xcb_screen_allowed_depths_iterator(screen); depths.rem; xcb_depth_next(&depths)) {
        for (auto visuals = xcb_depth_visuals_iterator(depths.data); visuals.rem;
             xcb_visualtype_next(&visuals)) {
            if (visuals.data->visual_id == screen->root_visual) {
                rootLayout.masks[0] = visuals.data->red_mask;
                rootLayout.masks[1] = visuals.data->green_mask;
                rootLayout.masks[2] = visuals.data->blue_mask;
            }
        }
    }
    probeRender();
    if (render) {
        probeDamage();
    }
    shm = probeShm(display);
}

DeskFrameGrabberX11::~DeskFrameGrabberX11()
{
    releaseStages();
    dropDamage();
    if (rootPicture) {
        xcb_render_free_picture(connection, rootPicture);
    }
    releaseSegment();
    std::free(replyData);
    xcb_disconnect(connection);
}

void DeskFrameGrabberX11::probeRender()
{
    const xcb_query_extension_reply_t* ext = xcb_get_extension_data(connection, &xcb_render_id);
    if (!ext || !ext->present) {
        return;
    }
    auto version = reply(
        xcb_render_query_version_reply(connection, xcb_render_query_version(connection, 0, 11), nullptr));
    auto formats = reply(
        xcb_render_query_pict_formats_reply(connection, xcb_render_query_pict_formats(connection), nullptr));
    if (!version || !formats) {
        return;
    }
    const xcb_screen_t* screen = screenOf(connection, 0);
    xcb_visualid_t rootVisual = 0;
    for (auto it = xcb_setup_roots_iterator(xcb_get_setup(connection)); it.rem; xcb_screen_next(&it)) {
        if (it.data->root == root) {
            screen = it.data;
            rootVisual = it.data->root_visual;
        }
    }
    Q_UNUSED(screen)
    for (auto screens = xcb_render_query_pict_formats_screens_iterator(formats.get()); screens.rem;
         xcb_render_pictscreen_next(&screens)) {
        for (auto depths = xcb_render_pictscreen_depths_iterator(screens.data); depths.rem;
             xcb_render_pictdepth_next(&depths)) {
            for (auto visuals = xcb_render_pictdepth_visuals_iterator(depths.data); visuals.rem;
                 xcb_render_pictvisual_next(&visuals)) {
                if (visuals.data->visual == rootVisual) {
                    rootFormat = visuals.data->format;
                }
            }
        }
    }
    if (!rootFormat) {
        return;
    }
    // A format with red in the low byte lets the small frame be copied as it stands.
    for (auto it = xcb_render_query_pict_formats_formats_iterator(formats.get()); it.rem;
         xcb_render_pictforminfo_next(&it)) {
        const xcb_render_pictforminfo_t& f = *it.data;
        if (f.type == XCB_RENDER_PICT_TYPE_DIRECT && (f.depth == 24 || f.depth == 32) &&
            f.direct.red_shift == 0 && f.direct.red_mask == 0xff && f.direct.green_shift == 8 &&
            f.direct.green_mask == 0xff && f.direct.blue_shift == 16 && f.direct.blue_mask == 0xff &&
            (!smallFormat || f.depth == 24)) {
            smallFormat = f.id;
            smallDepth = f.depth;
        }
    }
    if (smallFormat) {
        smallLayout.bitsPerPixel = bitsPerPixel(connection, smallDepth, &smallLayout.scanlinePad);
        smallLayout.swapBytes = rootLayout.swapBytes;
        smallLayout.masks[0] = 0xff;
        smallLayout.masks[1] = 0xff00;
        smallLayout.masks[2] = 0xff0000;
        smallRedLow = smallLayout.bitsPerPixel == 32 && !smallLayout.swapBytes;
    } else {
        smallFormat = rootFormat;
        smallDepth = rootDepth;
        smallLayout = rootLayout;
    }
    rootPicture = xcb_generate_id(connection);
    // Without IncludeInferiors the picture shows the root's background, not the windows.
    const uint32_t values[] = {XCB_RENDER_REPEAT_PAD, XCB_SUBWINDOW_MODE_INCLUDE_INFERIORS};
    xcb_render_create_picture(connection, rootPicture, root, rootFormat,
                              XCB_RENDER_CP_REPEAT | XCB_RENDER_CP_SUBWINDOW_MODE, values);
    static const char bilinear[] = "bilinear";
    xcb_render_set_picture_filter(connection, rootPicture, sizeof(bilinear) - 1, bilinear, 0, nullptr);
    render = true;
}

void DeskFrameGrabberX11::probeDamage()
{
    const xcb_query_extension_reply_t* damageExt = xcb_get_extension_data(connection, &xcb_damage_id);
    const xcb_query_extension_reply_t* fixesExt = xcb_get_extension_data(connection, &xcb_xfixes_id);
    if (!damageExt || !damageExt->present || !fixesExt || !fixesExt->present) {
        return;
    }
    // Both want our version first; regions came with XFIXES 2.
    auto fixes = reply(
        xcb_xfixes_query_version_reply(connection, xcb_xfixes_query_version(connection, 5, 0), nullptr));
    auto version = reply(
        xcb_damage_query_version_reply(connection, xcb_damage_query_version(connection, 1, 1), nullptr));
    if (!fixes || fixes->major_version < 2 || !version) {
        return;
    }
    damageRegion = xcb_generate_id(connection);
    xcb_xfixes_create_region(connection, damageRegion, 0, nullptr);
    damage = xcb_generate_id(connection);
    // One notice when the damage stops being empty: the region, not the notices, says where.
    xcb_damage_create(connection, damage, root, XCB_DAMAGE_REPORT_LEVEL_NON_EMPTY);
}

void DeskFrameGrabberX11::dropDamage()
{
    if (damage) {
        xcb_damage_destroy(connection, damage);
        xcb_xfixes_destroy_region(connection, damageRegion);
    }
    damage = 0;
    damageRegion = 0;
}

bool DeskFrameGrabberX11::takeDamage(QVector<QRect>* rects)
{
    xcb_damage_subtract(connection, damage, XCB_NONE, damageRegion);
    auto fetched = reply(xcb_xfixes_fetch_region_reply(
        connection, xcb_xfixes_fetch_region(connection, damageRegion), nullptr));
    while (xcb_generic_event_t* event = xcb_poll_for_event(connection)) {
        std::free(event);
    }
    if (!fetched) {
        return false;
    }
    const int count = xcb_xfixes_fetch_region_rectangles_length(fetched.get());
    const xcb_rectangle_t* r = xcb_xfixes_fetch_region_rectangles(fetched.get());
    if (count > 16) { // many small changes: one pass over their extent is cheaper
        const xcb_rectangle_t& e = fetched->extents;
        rects->append(QRect(e.x, e.y, e.width, e.height));
        return true;
    }
    for (int i = 0; i < count; ++i) {
        rects->append(QRect(r[i].x, r[i].y, r[i].width, r[i].height));
    }
    return true;
}

DeskFrameGrabberX11::ShmKind DeskFrameGrabberX11::probeShm(const QString& display)
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
        return ShmKind::None;
    }
    if (fdCapable && probeKind(display, true)) {
        return ShmKind::Fd;
    }
    return probeKind(display, false) ? ShmKind::SysV : ShmKind::None;
}

bool DeskFrameGrabberX11::ensureSegment(size_t bytes)
{
    if (segmentData && segmentSize >= bytes) {
        return true;
    }
    releaseSegment();
    const size_t size = (bytes + 0xffff) & ~size_t(0xffff);
    Segment s;
    if (!attachSegment(connection, shm == ShmKind::Fd, size, &s)) {
        if (xcb_connection_has_error(connection)) {
            return false;
        }
        qWarning().noquote() << "[DeskDuplManager]: MIT-SHM segment refused on" << display
                             << "- reading with GetImage";
        shm = ShmKind::None;
        return false;
    }
    segment = s.id;
    segmentData = s.data;
    segmentSize = s.size;
    sysvId = s.sysvId;
    return true;
}

void DeskFrameGrabberX11::releaseSegment()
{
    Segment s;
    s.id = segment;
    s.data = segmentData;
    s.size = segmentSize;
    s.sysvId = sysvId;
    detachSegment(connection, &s);
    segment = 0;
    segmentData = nullptr;
    segmentSize = 0;
    sysvId = -1;
}

void DeskFrameGrabberX11::releaseStages()
{
    for (const Stage& stage : qAsConst(stages)) {
        xcb_render_free_picture(connection, stage.picture);
        xcb_free_pixmap(connection, stage.pixmap);
    }
    stages.clear();
    stagedArea = QRect();
    stagedSize = QSize();
    stagesValid = false;
    pendingDamage.clear();
}

QVector<DeskFrameGrabberX11::Step> DeskFrameGrabberX11::axisSteps(int from, int to)
{
    // Exact halvings (2 x 2 means) while the size is even and at least twice the target.
    QVector<Step> steps;
    int size = from;
    while (size % 2 == 0 && size >= 2 * to) {
        size /= 2;
        steps.append({size, 2.0});
    }
    if (size == to) {
        return steps;
    }
    // Then one bilinear step to the target times a power of two, at a ratio between 0.75 and 1.5
    // so that every row weighs at least half as much as its neighbours, and exact halvings down
    // to the target. Halving an odd size instead dropped its last row: the bottom 8 rows of 1080
    // never reached 67.
    int halvings = 0;
    while ((to << (halvings + 1)) <= size) {
        ++halvings;
    }
    if (double(size) / (to << halvings) > 1.5) {
        ++halvings;
    }
    const int next = to << halvings;
    if (next != size) {
        steps.append({next, double(size) / next});
    }
    for (int i = halvings - 1; i >= 0; --i) {
        steps.append({to << i, 2.0});
    }
    return steps;
}

bool DeskFrameGrabberX11::buildStages(const QRect& area, const QSize& size)
{
    releaseStages();
    static const char bilinear[] = "bilinear";
    const QVector<Step> xs = axisSteps(area.width(), size.width());
    const QVector<Step> ys = axisSteps(area.height(), size.height());
    // The shorter axis keeps its size (a bilinear copy at 1:1) once it is done; one pass at least,
    // which converts the picture to the format read.
    const int passes = std::max({xs.size(), ys.size(), 1});
    xcb_render_picture_t source = rootPicture;
    QPoint offset = area.topLeft();
    for (int i = 0; i < passes; ++i) {
        const Step x = i < xs.size() ? xs[i] : Step{size.width(), 1.0};
        const Step y = i < ys.size() ? ys[i] : Step{size.height(), 1.0};
        const QSize next(x.size, y.size);
        const xcb_render_transform_t transform{
            fixed(x.scale), 0, fixed(offset.x()), 0, fixed(y.scale), fixed(offset.y()), 0, 0, fixed(1.0)};
        xcb_render_set_picture_transform(connection, source, transform);

        // Passes keep the root's format, which the server scales on its fast path; only the
        // small last one converts to the format the frame is read in.
        const bool last = i == passes - 1;
        Stage stage;
        stage.size = next;
        stage.pixmap = xcb_generate_id(connection);
        xcb_create_pixmap(connection, last ? smallDepth : rootDepth, stage.pixmap, root,
                          uint16_t(next.width()), uint16_t(next.height()));
        stage.picture = xcb_generate_id(connection);
        const uint32_t repeat = XCB_RENDER_REPEAT_PAD;
        xcb_render_create_picture(connection, stage.picture, stage.pixmap, last ? smallFormat : rootFormat,
                                  XCB_RENDER_CP_REPEAT, &repeat);
        xcb_render_set_picture_filter(connection, stage.picture, sizeof(bilinear) - 1, bilinear, 0, nullptr);
        stages.append(stage);
        source = stage.picture;
        offset = QPoint();
    }
    stagedArea = area;
    stagedSize = size;
    return !xcb_connection_has_error(connection);
}

int DeskFrameGrabberX11::strideOf(int width, const PixelLayout& layout) const
{
    const int pad = layout.scanlinePad > 0 ? layout.scanlinePad : 32;
    return ((width * layout.bitsPerPixel + pad - 1) / pad) * pad / 8;
}

DeskFrameGrabber::Result DeskFrameGrabberX11::readPixels(xcb_drawable_t drawable, int x, int y, int w, int h,
                                                         const uint8_t** data)
{
    const size_t bytes = size_t(strideOf(w, drawable == root ? rootLayout : smallLayout)) * size_t(h);
    if (shm != ShmKind::None && ensureSegment(bytes)) {
        xcb_generic_error_t* error = nullptr;
        auto image = reply(xcb_shm_get_image_reply(
            connection,
            xcb_shm_get_image(connection, drawable, int16_t(x), int16_t(y), uint16_t(w), uint16_t(h), ~0u,
                              XCB_IMAGE_FORMAT_Z_PIXMAP, segment, 0),
            &error));
        std::free(error);
        if (xcb_connection_has_error(connection)) {
            return Result::Lost;
        }
        if (!image) {
            return Result::Skip;
        }
        *data = segmentData;
        return Result::Frame;
    }
    if (xcb_connection_has_error(connection)) {
        return Result::Lost;
    }
    xcb_generic_error_t* error = nullptr;
    xcb_get_image_reply_t* image =
        xcb_get_image_reply(connection,
                            xcb_get_image(connection, XCB_IMAGE_FORMAT_Z_PIXMAP, drawable, int16_t(x),
                                          int16_t(y), uint16_t(w), uint16_t(h), ~0u),
                            &error);
    std::free(error);
    if (xcb_connection_has_error(connection)) {
        std::free(image);
        return Result::Lost;
    }
    if (!image || size_t(xcb_get_image_data_length(image)) < bytes) {
        std::free(image);
        return Result::Skip;
    }
    std::free(replyData);
    replyData = reinterpret_cast<uint8_t*>(image);
    *data = xcb_get_image_data(image);
    return Result::Frame;
}

DeskFrameGrabber::Result DeskFrameGrabberX11::grab(const QRect& area, const QSize& size, int mode,
                                                   QImage* frame)
{
    if (xcb_connection_has_error(connection)) {
        return Result::Lost;
    }
    if (area.isEmpty() || size.isEmpty()) {
        return Result::Skip;
    }
    return mode == 0 && render ? grabScaled(area, size, frame) : grabFull(area, size, frame);
}

void DeskFrameGrabberX11::composite(const QVector<QRect>& dirty)
{
    xcb_render_picture_t source = rootPicture;
    QVector<QRect> rects = dirty;
    QSize input = stagedArea.size();
    for (const Stage& stage : qAsConst(stages)) {
        const QRect bounds(QPoint(), stage.size);
        if (dirty.isEmpty()) {
            xcb_render_composite(connection, XCB_RENDER_PICT_OP_SRC, source, XCB_NONE, stage.picture, 0, 0, 0,
                                 0, 0, 0, uint16_t(stage.size.width()), uint16_t(stage.size.height()));
        } else {
            // A pixel of this pass reads its input around (i + 0.5) * scale: one pixel of margin
            // on each side covers the bilinear neighbours of any ratio up to 2.
            const double sx = double(input.width()) / stage.size.width();
            const double sy = double(input.height()) / stage.size.height();
            for (QRect& r : rects) {
                const int x0 = int(std::floor(r.left() / sx)) - 1;
                const int y0 = int(std::floor(r.top() / sy)) - 1;
                const int x1 = int(std::floor(r.right() / sx)) + 1;
                const int y1 = int(std::floor(r.bottom() / sy)) + 1;
                r = QRect(QPoint(x0, y0), QPoint(x1, y1)) & bounds;
                if (!r.isEmpty()) {
                    xcb_render_composite(connection, XCB_RENDER_PICT_OP_SRC, source, XCB_NONE, stage.picture,
                                         int16_t(r.x()), int16_t(r.y()), 0, 0, int16_t(r.x()), int16_t(r.y()),
                                         uint16_t(r.width()), uint16_t(r.height()));
                }
            }
        }
        source = stage.picture;
        input = stage.size;
    }
}

DeskFrameGrabber::Result DeskFrameGrabberX11::grabScaled(const QRect& area, const QSize& size, QImage* frame)
{
    if ((stagedArea != area || stagedSize != size) && !buildStages(area, size)) {
        return Result::Lost;
    }
    // Into the monitor's coordinates, clipped to it.
    auto onMonitor = [&area](const QVector<QRect>& drawn, QVector<QRect>* out) {
        for (const QRect& r : drawn) {
            const QRect clipped = r & area;
            if (!clipped.isEmpty()) {
                out->append(clipped.translated(-area.topLeft()));
            }
        }
    };
    const bool fullPass = !damage || !stagesValid || framesSinceFull >= kFramesBetweenChecks;
    if (fullPass) {
        composite({});
    } else {
        QVector<QRect> drawn;
        if (!takeDamage(&drawn)) {
            return xcb_connection_has_error(connection) ? Result::Lost : Result::Skip;
        }
        QVector<QRect> dirty = pendingDamage;
        pendingDamage.clear();
        onMonitor(drawn, &dirty);
        ++framesSinceFull;
        if (dirty.isEmpty()) {
            *frame = lastScaled; // never written: a frame is not touched after it was sent
            return Result::Frame;
        }
        composite(dirty);
    }
    const Stage& last = stages.constLast();
    const uint8_t* data = nullptr;
    const Result result = readPixels(last.pixmap, 0, 0, size.width(), size.height(), &data);
    if (result != Result::Frame) {
        stagesValid = false;
        return result;
    }
    QImage out(size, QImage::Format_RGBA8888);
    if (smallRedLow) {
        const int stride = strideOf(size.width(), smallLayout);
        for (int y = 0; y < size.height(); ++y) {
            uint8_t* line = out.scanLine(y);
            std::memcpy(line, data + size_t(y) * size_t(stride), size_t(size.width()) * 4);
            for (int x = 0; x < size.width(); ++x) {
                line[x * 4 + 3] = 255;
            }
        }
    } else {
        averageAreas(data, size.width(), size.height(), strideOf(size.width(), smallLayout), smallLayout,
                     &out);
    }
    if (damage && fullPass) {
        // What was drawn from the last take until now is redone next frame: some of it may have
        // come after the pass. Nothing drawn, yet a different picture: the server draws without
        // telling (it happens with some drivers), so every frame takes the full pass again.
        const bool checkable = stagesValid && pendingDamage.isEmpty();
        QVector<QRect> drawn;
        if (!takeDamage(&drawn)) {
            return xcb_connection_has_error(connection) ? Result::Lost : Result::Skip;
        }
        pendingDamage.clear();
        onMonitor(drawn, &pendingDamage);
        if (checkable && pendingDamage.isEmpty() && out != lastScaled) {
            qWarning().noquote() << "[DeskDuplManager]:" << display
                                 << "changed without reporting damage - scaling the whole screen every frame";
            dropDamage();
        }
        stagesValid = true;
        framesSinceFull = 0;
    }
    lastScaled = out;
    *frame = out;
    return Result::Frame;
}

QRect DeskFrameGrabberX11::rootRect()
{
    auto geometry = reply(xcb_get_geometry_reply(connection, xcb_get_geometry(connection, root), nullptr));
    return geometry ? QRect(0, 0, geometry->width, geometry->height) : QRect();
}

DeskFrameGrabber::Result DeskFrameGrabberX11::grabFull(const QRect& area, const QSize& size, QImage* frame)
{
    if (area != fullArea) {
        fullArea = area;
        rootBounds = rootRect();
        clipLogged = false;
        unreadableLogged = false;
    }
    // A read that reaches beyond the root fails as a whole: read the part on the screen.
    QRect visible;
    const uint8_t* data = nullptr;
    auto read = [&] {
        visible = area & rootBounds;
        return visible.isEmpty()
                   ? Result::Skip
                   : readPixels(root, visible.x(), visible.y(), visible.width(), visible.height(), &data);
    };
    Result result = read();
    if (result == Result::Skip) {
        const QRect fresh = rootRect(); // the screen may have been resized
        if (fresh != rootBounds) {
            rootBounds = fresh;
            result = read();
        }
    }
    if (result == Result::Skip && !unreadableLogged) {
        unreadableLogged = true;
        qWarning().noquote() << "[DeskDuplManager]: Cannot read" << area << "of" << display
                             << "- the screen is" << rootBounds.size() << "- its frames are skipped";
    }
    if (result != Result::Frame) {
        return result;
    }
    if (visible != area && !clipLogged) {
        clipLogged = true;
        qInfo().noquote() << "[DeskDuplManager]: The monitor" << area << "reaches beyond the screen"
                          << rootBounds.size() << "of" << display << "- mode 1 reads only" << visible;
    }
    QImage out(size, QImage::Format_RGBA8888);
    averageAreas(data, visible.width(), visible.height(), strideOf(visible.width(), rootLayout), rootLayout,
                 &out);
    *frame = out;
    return Result::Frame;
}

void DeskFrameGrabberX11::averageAreas(const uint8_t* src, int width, int height, int stride,
                                       const PixelLayout& layout, QImage* out)
{
    const int w = out->width();
    const int h = out->height();
    int shift[3];
    uint64_t maxValue[3];
    for (int c = 0; c < 3; ++c) {
        const uint32_t mask = layout.masks[c];
        shift[c] = mask ? __builtin_ctz(mask) : 0;
        maxValue[c] = mask ? (mask >> shift[c]) : 1;
    }
    const int bytesPerPixel = layout.bitsPerPixel / 8;
    auto load = [&](const uint8_t* p) -> uint32_t {
        if (bytesPerPixel == 4) {
            uint32_t v;
            std::memcpy(&v, p, 4);
            return layout.swapBytes ? qbswap(v) : v;
        }
        if (bytesPerPixel == 2) {
            uint16_t v;
            std::memcpy(&v, p, 2);
            return layout.swapBytes ? qbswap(v) : v;
        }
        // 24 bits packed, in the server's byte order.
        return layout.swapBytes ? (uint32_t(p[0]) << 16 | uint32_t(p[1]) << 8 | p[2])
                                : (uint32_t(p[2]) << 16 | uint32_t(p[1]) << 8 | p[0]);
    };
    std::vector<int> xs(size_t(w) + 1);
    for (int ox = 0; ox <= w; ++ox) {
        xs[size_t(ox)] = int(int64_t(ox) * width / w);
    }
    std::vector<uint64_t> acc(size_t(w) * 3);
    const bool plain8 = maxValue[0] == 255 && maxValue[1] == 255 && maxValue[2] == 255;
    for (int oy = 0; oy < h; ++oy) {
        const int y0 = int(int64_t(oy) * height / h);
        const int y1 = std::max(int(int64_t(oy + 1) * height / h), y0 + 1);
        std::fill(acc.begin(), acc.end(), 0);
        for (int y = y0; y < y1 && y < height; ++y) {
            const uint8_t* row = src + size_t(y) * size_t(stride);
            for (int ox = 0; ox < w; ++ox) {
                const int x0 = xs[size_t(ox)];
                const int x1 = std::min(std::max(xs[size_t(ox) + 1], x0 + 1), width);
                uint64_t r = 0, g = 0, b = 0;
                for (int x = x0; x < x1; ++x) {
                    const uint32_t p = load(row + x * bytesPerPixel);
                    r += (p & layout.masks[0]) >> shift[0];
                    g += (p & layout.masks[1]) >> shift[1];
                    b += (p & layout.masks[2]) >> shift[2];
                }
                acc[size_t(ox) * 3] += r;
                acc[size_t(ox) * 3 + 1] += g;
                acc[size_t(ox) * 3 + 2] += b;
            }
        }
        uint8_t* line = out->scanLine(oy);
        const int rows = std::min(y1, height) - y0;
        for (int ox = 0; ox < w; ++ox) {
            const int x0 = xs[size_t(ox)];
            const int x1 = std::min(std::max(xs[size_t(ox) + 1], x0 + 1), width);
            const uint64_t count = uint64_t(std::max(rows, 1)) * uint64_t(std::max(x1 - x0, 1));
            for (int c = 0; c < 3; ++c) {
                const uint64_t sum = acc[size_t(ox) * 3 + size_t(c)];
                line[ox * 4 + c] =
                    plain8 ? uint8_t((sum + count / 2) / count)
                           : uint8_t((sum * 255 + count * maxValue[c] / 2) / (count * maxValue[c]));
            }
            line[ox * 4 + 3] = 255;
        }
    }
}

QString DeskFrameGrabberX11::technique(int mode) const
{
    const QString reader = shm == ShmKind::Fd     ? QStringLiteral("MIT-SHM (memfd)")
                           : shm == ShmKind::SysV ? QStringLiteral("MIT-SHM (SysV)")
                                                  : QStringLiteral("GetImage");
    if (mode == 0 && render) {
        return QStringLiteral("RENDER scaling on the server in halving passes, the small frame read by ") +
               reader;
    }
    return QStringLiteral("the full area read by ") + reader + QStringLiteral(", averaged on the CPU") +
           (mode == 0 ? QStringLiteral(" (no RENDER)") : QString());
}
