#include "service/screen/x11/DeskFrameGrabberX11.h"

#include "service/screen/x11/X11RenderScaler.h"
#include "service/screen/x11/X11Setup.h"
#include "service/screen/x11/X11ShmSegment.h"

#include <QtDebug>

#include <xcb/shm.h>

#include <cstring>

using X11Setup::reply;

// Logs under the registry's name, as all screen capture does.
constexpr char kTag[] = "[DeskDuplManager]:";

std::unique_ptr<DeskFrameGrabberX11> DeskFrameGrabberX11::open(const QString& display)
{
    int screenNumber = 0;
    xcb_connection_t* c = xcb_connect(display.toLocal8Bit().constData(), &screenNumber);
    if (xcb_connection_has_error(c)) {
        xcb_disconnect(c);
        return nullptr;
    }
    return std::unique_ptr<DeskFrameGrabberX11>(new DeskFrameGrabberX11(c, screenNumber, display));
}

DeskFrameGrabberX11::DeskFrameGrabberX11(xcb_connection_t* c, int screenNumber, const QString& displayName)
    : display(displayName)
    , connection(c)
{
    const xcb_screen_t* screen = X11Setup::screenOf(c, screenNumber);
    root = screen->root;
    rootLayout = X11Setup::layoutOf(c, screen->root_depth);
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
    scaler = X11RenderScaler::create(c, screen, rootLayout, display);
    const X11ShmSegment::Kind kind = X11ShmSegment::probe(display);
    if (kind != X11ShmSegment::Kind::None) {
        shm = std::make_unique<X11ShmSegment>(c, kind);
    }
}

DeskFrameGrabberX11::~DeskFrameGrabberX11()
{
    // Both free server resources on the connection: before it closes.
    scaler.reset();
    shm.reset();
    xcb_disconnect(connection);
}

DeskFrameGrabber::Result DeskFrameGrabberX11::readPixels(xcb_drawable_t drawable, int x, int y, int w, int h,
                                                         const AreaAverager::PixelLayout& layout,
                                                         const uint8_t** data)
{
    const size_t bytes = size_t(AreaAverager::strideOf(w, layout)) * size_t(h);
    if (shm && !shm->reserve(bytes) && !xcb_connection_has_error(connection)) {
        qWarning().noquote() << kTag << "MIT-SHM segment refused on" << display << "- reading with GetImage";
        shm.reset();
    }
    if (xcb_connection_has_error(connection)) {
        return Result::Lost;
    }
    xcb_generic_error_t* error = nullptr;
    if (shm) {
        auto image = reply(xcb_shm_get_image_reply(
            connection,
            xcb_shm_get_image(connection, drawable, int16_t(x), int16_t(y), uint16_t(w), uint16_t(h), ~0u,
                              XCB_IMAGE_FORMAT_Z_PIXMAP, shm->id(), 0),
            &error));
        std::free(error);
        if (xcb_connection_has_error(connection)) {
            return Result::Lost;
        }
        if (!image) {
            return Result::Skip;
        }
        *data = shm->data();
        return Result::Frame;
    }
    auto image =
        reply(xcb_get_image_reply(connection,
                                  xcb_get_image(connection, XCB_IMAGE_FORMAT_Z_PIXMAP, drawable, int16_t(x),
                                                int16_t(y), uint16_t(w), uint16_t(h), ~0u),
                                  &error));
    std::free(error);
    if (xcb_connection_has_error(connection)) {
        return Result::Lost;
    }
    if (!image || size_t(xcb_get_image_data_length(image.get())) < bytes) {
        return Result::Skip;
    }
    lastReply = std::move(image);
    *data = xcb_get_image_data(lastReply.get());
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
    return mode == 0 && scaler ? grabScaled(area, size, frame) : grabFull(area, size, frame);
}

DeskFrameGrabber::Result DeskFrameGrabberX11::grabScaled(const QRect& area, const QSize& size, QImage* frame)
{
    bool unchanged = false;
    Result result = scaler->scale(area, size, &unchanged);
    if (result != Result::Frame) {
        return result;
    }
    if (unchanged) {
        *frame = scaler->lastFrame();
        return Result::Frame;
    }
    const AreaAverager::PixelLayout& layout = scaler->targetLayout();
    const uint8_t* data = nullptr;
    result = readPixels(scaler->target(), 0, 0, size.width(), size.height(), layout, &data);
    if (result != Result::Frame) {
        scaler->readFailed();
        return result;
    }
    QImage out(size, QImage::Format_RGBA8888);
    const int stride = AreaAverager::strideOf(size.width(), layout);
    if (scaler->targetIsRgbx()) {
        for (int y = 0; y < size.height(); ++y) {
            uint8_t* line = out.scanLine(y);
            std::memcpy(line, data + size_t(y) * size_t(stride), size_t(size.width()) * 4);
            for (int x = 0; x < size.width(); ++x) {
                line[x * 4 + 3] = 255;
            }
        }
    } else {
        AreaAverager::average(data, size.width(), size.height(), stride, layout, &out);
    }
    result = scaler->finish(out);
    if (result == Result::Frame) {
        *frame = out;
    }
    return result;
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
        return visible.isEmpty() ? Result::Skip
                                 : readPixels(root, visible.x(), visible.y(), visible.width(),
                                              visible.height(), rootLayout, &data);
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
        qWarning().noquote() << kTag << "Cannot read" << area << "of" << display << "- the screen is"
                             << rootBounds.size() << "- its frames are skipped";
    }
    if (result != Result::Frame) {
        return result;
    }
    if (visible != area && !clipLogged) {
        clipLogged = true;
        qInfo().noquote() << kTag << "The monitor" << area << "reaches beyond the screen" << rootBounds.size()
                          << "of" << display << "- mode 1 reads only" << visible;
    }
    QImage out(size, QImage::Format_RGBA8888);
    AreaAverager::average(data, visible.width(), visible.height(),
                          AreaAverager::strideOf(visible.width(), rootLayout), rootLayout, &out);
    *frame = out;
    return Result::Frame;
}

QString DeskFrameGrabberX11::technique(int mode) const
{
    const X11ShmSegment::Kind kind = shm ? shm->kind() : X11ShmSegment::Kind::None;
    const QString reader = kind == X11ShmSegment::Kind::Fd     ? QStringLiteral("MIT-SHM (memfd)")
                           : kind == X11ShmSegment::Kind::SysV ? QStringLiteral("MIT-SHM (SysV)")
                                                               : QStringLiteral("GetImage");
    if (mode == 0 && scaler) {
        return QStringLiteral("RENDER scaling on the server in halving passes, the small frame read by ") +
               reader;
    }
    return QStringLiteral("the full area read by ") + reader + QStringLiteral(", averaged on the CPU") +
           (mode == 0 ? QStringLiteral(" (no RENDER)") : QString());
}
