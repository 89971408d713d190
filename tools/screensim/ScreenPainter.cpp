#include "ScreenPainter.h"

#include <QElapsedTimer>
#include <QThread>

#include <xcb/randr.h>
#include <xcb/xcbext.h>

#include <sys/uio.h>

#include <cstdlib>
#include <memory>

namespace {

template <typename T> std::unique_ptr<T, decltype(&std::free)> reply(T* r)
{
    return std::unique_ptr<T, decltype(&std::free)>(r, &std::free);
}

} // namespace

ScreenPainter::~ScreenPainter()
{
    close();
}

bool ScreenPainter::open(const QString& display)
{
    close();
    int screenNumber = 0;
    // A server that has just started may refuse a moment longer than its first client saw.
    QElapsedTimer clock;
    clock.start();
    for (;;) {
        connection = xcb_connect(display.toLocal8Bit().constData(), &screenNumber);
        if (!xcb_connection_has_error(connection)) {
            break;
        }
        const int error = xcb_connection_has_error(connection);
        xcb_disconnect(connection);
        connection = nullptr;
        if (clock.elapsed() > 3000) {
            qWarning("ScreenPainter: cannot connect to %s (xcb error %d)", qPrintable(display), error);
            return false;
        }
        QThread::msleep(50);
    }
    auto it = xcb_setup_roots_iterator(xcb_get_setup(connection));
    for (int i = 0; i < screenNumber; ++i) {
        xcb_screen_next(&it);
    }
    screen = it.data;
    return true;
}

void ScreenPainter::close()
{
    if (connection) {
        xcb_disconnect(connection);
        connection = nullptr;
    }
    windows.clear();
}

uint32_t ScreenPainter::pixel(const QColor& c) const
{
    return uint32_t(c.red()) << 16 | uint32_t(c.green()) << 8 | uint32_t(c.blue()); // TrueColor 24
}

xcb_window_t ScreenPainter::windowFor(const QRect& area)
{
    for (const Window& w : qAsConst(windows)) {
        if (w.area == area) {
            return w.id;
        }
    }
    const xcb_window_t window = xcb_generate_id(connection);
    const uint32_t values[] = {screen->black_pixel, 1};
    xcb_create_window(connection, XCB_COPY_FROM_PARENT, window, screen->root, int16_t(area.x()),
                      int16_t(area.y()), uint16_t(area.width()), uint16_t(area.height()), 0,
                      XCB_WINDOW_CLASS_INPUT_OUTPUT, screen->root_visual,
                      XCB_CW_BACK_PIXEL | XCB_CW_OVERRIDE_REDIRECT, values);
    xcb_map_window(connection, window);
    windows.append({area, window});
    return window;
}

// The picture becomes the window's background (tiled), so the server redraws it by itself.
void ScreenPainter::setBackground(xcb_window_t window, xcb_pixmap_t pixmap)
{
    xcb_change_window_attributes(connection, window, XCB_CW_BACK_PIXMAP, &pixmap);
    xcb_clear_area(connection, 0, window, 0, 0, 0, 0);
    xcb_free_pixmap(connection, pixmap);
}

bool ScreenPainter::paint(const QRect& area, const QVector<Fill>& fills)
{
    if (!connection) {
        return false;
    }
    const xcb_window_t window = windowFor(area);
    const xcb_pixmap_t pixmap = xcb_generate_id(connection);
    xcb_create_pixmap(connection, screen->root_depth, pixmap, window, uint16_t(area.width()),
                      uint16_t(area.height()));
    const xcb_gcontext_t gc = xcb_generate_id(connection);
    xcb_create_gc(connection, gc, pixmap, 0, nullptr);
    for (const Fill& fill : fills) {
        const uint32_t colour = pixel(fill.second);
        xcb_change_gc(connection, gc, XCB_GC_FOREGROUND, &colour);
        const xcb_rectangle_t r{int16_t(fill.first.x()), int16_t(fill.first.y()),
                                uint16_t(fill.first.width()), uint16_t(fill.first.height())};
        xcb_poly_fill_rectangle(connection, pixmap, gc, 1, &r);
    }
    xcb_free_gc(connection, gc);
    setBackground(window, pixmap);
    return sync();
}

bool ScreenPainter::paintCheckerboard(const QRect& area, int phase)
{
    if (!connection) {
        return false;
    }
    const xcb_window_t window = windowFor(area);
    const xcb_pixmap_t tile = xcb_generate_id(connection);
    xcb_create_pixmap(connection, screen->root_depth, tile, window, 2, 2);
    const xcb_gcontext_t gc = xcb_generate_id(connection);
    xcb_create_gc(connection, gc, tile, 0, nullptr);
    for (int y = 0; y < 2; ++y) {
        for (int x = 0; x < 2; ++x) {
            const uint32_t colour = ((x + y + phase) % 2) ? 0xffffffu : 0u;
            xcb_change_gc(connection, gc, XCB_GC_FOREGROUND, &colour);
            const xcb_point_t point{int16_t(x), int16_t(y)};
            xcb_poly_point(connection, XCB_COORD_MODE_ORIGIN, tile, gc, 1, &point);
        }
    }
    xcb_free_gc(connection, gc);
    setBackground(window, tile);
    return sync();
}

QVector<ScreenPainter::Fill> ScreenPainter::pictureA(const QSize& s)
{
    const int w = s.width();
    const int h = s.height();
    return {
        {QRect(0, 0, w, h), Qt::black},
        {QRect(0, 0, w / 4, h), Qt::green},
        {QRect(w - w / 4, 0, w / 4, h), Qt::blue},
        {QRect(0, 0, w, h / 4), Qt::red},
        {QRect(0, h - h / 4, w, h / 4), Qt::white},
    };
}

QVector<ScreenPainter::Fill> ScreenPainter::pictureB(const QSize& s)
{
    const QRect inner(s.width() / 10, s.height() / 10, s.width() * 8 / 10, s.height() * 8 / 10);
    QVector<Fill> fills{{QRect(QPoint(), s), Qt::magenta}};
    for (Fill fill : pictureA(inner.size())) {
        fill.first.translate(inner.topLeft());
        fills.append(fill);
    }
    return fills;
}

QColor ScreenPainter::colourA(const QSize& s, int x, int y)
{
    const int w = s.width();
    const int h = s.height();
    if (y < h / 4) {
        return Qt::red;
    }
    if (y >= h - h / 4) {
        return Qt::white;
    }
    if (x < w / 4) {
        return Qt::green;
    }
    if (x >= w - w / 4) {
        return Qt::blue;
    }
    return Qt::black;
}

bool ScreenPainter::nearEdgeA(const QSize& s, int x, int y, int margin)
{
    const QColor here = colourA(s, x, y);
    for (int dy = -margin; dy <= margin; ++dy) {
        for (int dx = -margin; dx <= margin; ++dx) {
            const int nx = qBound(0, x + dx, s.width() - 1);
            const int ny = qBound(0, y + dy, s.height() - 1);
            if (colourA(s, nx, ny) != here) {
                return true;
            }
        }
    }
    return false;
}

xcb_atom_t ScreenPainter::atom(const QString& name)
{
    const QByteArray n = name.toUtf8();
    auto r = reply(xcb_intern_atom_reply(
        connection, xcb_intern_atom(connection, 0, uint16_t(n.size()), n.constData()), nullptr));
    return r ? r->atom : xcb_atom_t(XCB_ATOM_NONE);
}

bool ScreenPainter::addMonitor(const QString& name, const QRect& g)
{
    // Sent by hand: the generated xcb_randr_set_monitor sizes its variable part wrongly at times
    // and the connection closes with a request-length error.
    const xcb_query_extension_reply_t* ext = xcb_get_extension_data(connection, &xcb_randr_id);
    if (!ext || !ext->present) {
        return false;
    }
    struct
    {
        uint8_t major;
        uint8_t minor;
        uint16_t length;
        xcb_window_t window;
        xcb_randr_monitor_info_t info;
    } request{};
    static_assert(sizeof(request) == 32, "SetMonitor without outputs is 8 words");
    request.major = ext->major_opcode;
    request.minor = XCB_RANDR_SET_MONITOR;
    request.length = sizeof(request) / 4;
    request.window = screen->root;
    request.info.name = atom(name);
    request.info.x = int16_t(g.x());
    request.info.y = int16_t(g.y());
    request.info.width = uint16_t(g.width());
    request.info.height = uint16_t(g.height());
    request.info.width_in_millimeters = uint32_t(g.width() / 4);
    request.info.height_in_millimeters = uint32_t(g.height() / 4);
    struct iovec parts[3];
    parts[2].iov_base = &request;
    parts[2].iov_len = sizeof(request);
    xcb_protocol_request_t protocol{};
    protocol.count = 1;
    protocol.isvoid = 1;
    const xcb_void_cookie_t cookie{
        xcb_send_request(connection, XCB_REQUEST_CHECKED | XCB_REQUEST_RAW, parts + 2, &protocol)};
    xcb_generic_error_t* error = xcb_request_check(connection, cookie);
    std::free(error);
    return !error && !xcb_connection_has_error(connection);
}

bool ScreenPainter::deleteMonitor(const QString& name)
{
    xcb_generic_error_t* error =
        xcb_request_check(connection, xcb_randr_delete_monitor_checked(connection, screen->root, atom(name)));
    std::free(error);
    return !error;
}

QSize ScreenPainter::screenSize()
{
    auto g = reply(xcb_get_geometry_reply(connection, xcb_get_geometry(connection, screen->root), nullptr));
    return g ? QSize(g->width, g->height) : QSize();
}

bool ScreenPainter::resizeScreen(const QSize& size)
{
    auto resources = reply(xcb_randr_get_screen_resources_reply(
        connection, xcb_randr_get_screen_resources(connection, screen->root), nullptr));
    if (!resources) {
        return false;
    }
    const xcb_randr_output_t* outputs = xcb_randr_get_screen_resources_outputs(resources.get());
    xcb_randr_output_t output = 0;
    xcb_randr_crtc_t crtc = 0;
    for (int i = 0; i < xcb_randr_get_screen_resources_outputs_length(resources.get()); ++i) {
        auto info = reply(xcb_randr_get_output_info_reply(
            connection, xcb_randr_get_output_info(connection, outputs[i], resources->config_timestamp),
            nullptr));
        if (info && QByteArray(reinterpret_cast<const char*>(xcb_randr_get_output_info_name(info.get())),
                               xcb_randr_get_output_info_name_length(info.get())) == "screen") {
            output = outputs[i];
            crtc = info->crtc;
        }
    }
    if (!output || !crtc) {
        return false;
    }
    // A mode of that size, made if the server has none.
    xcb_randr_mode_t mode = 0;
    const xcb_randr_mode_info_t* modes = xcb_randr_get_screen_resources_modes(resources.get());
    for (int i = 0; i < xcb_randr_get_screen_resources_modes_length(resources.get()); ++i) {
        if (modes[i].width == size.width() && modes[i].height == size.height()) {
            mode = modes[i].id;
        }
    }
    if (!mode) {
        const QByteArray name = QStringLiteral("%1x%2").arg(size.width()).arg(size.height()).toLatin1();
        xcb_randr_mode_info_t info{};
        info.width = uint16_t(size.width());
        info.height = uint16_t(size.height());
        info.htotal = info.width;
        info.vtotal = info.height;
        info.dot_clock = uint32_t(size.width()) * uint32_t(size.height()) * 60u;
        info.name_len = uint16_t(name.size());
        auto created = reply(xcb_randr_create_mode_reply(
            connection,
            xcb_randr_create_mode(connection, screen->root, info, uint32_t(name.size()), name.constData()),
            nullptr));
        if (!created) {
            return false;
        }
        mode = created->mode;
        xcb_randr_add_output_mode(connection, output, mode);
    }
    const QSize current = screenSize();
    const uint32_t mmW = uint32_t(size.width()) * 254u / 960u;
    const uint32_t mmH = uint32_t(size.height()) * 254u / 960u;
    // Grow the screen before the CRTC, shrink it after.
    if (size.width() > current.width() || size.height() > current.height()) {
        xcb_randr_set_screen_size(connection, screen->root, uint16_t(size.width()), uint16_t(size.height()),
                                  mmW, mmH);
    }
    auto set = reply(xcb_randr_set_crtc_config_reply(
        connection,
        xcb_randr_set_crtc_config(connection, crtc, XCB_CURRENT_TIME, resources->config_timestamp, 0, 0, mode,
                                  XCB_RANDR_ROTATION_ROTATE_0, 1, &output),
        nullptr));
    if (!set) {
        return false;
    }
    if (size.width() < current.width() || size.height() < current.height()) {
        xcb_randr_set_screen_size(connection, screen->root, uint16_t(size.width()), uint16_t(size.height()),
                                  mmW, mmH);
    }
    return sync() && screenSize() == size;
}

bool ScreenPainter::sync()
{
    if (!connection) {
        return false;
    }
    auto r = reply(xcb_get_input_focus_reply(connection, xcb_get_input_focus(connection), nullptr));
    return r != nullptr;
}
