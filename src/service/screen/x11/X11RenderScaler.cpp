#include "service/screen/x11/X11RenderScaler.h"

#include "service/screen/x11/X11Setup.h"

#include <QtDebug>

#include <xcb/xfixes.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>

using X11Setup::reply;

namespace {

// Logs under the registry's name, as all screen capture does.
constexpr char kTag[] = "[DeskDuplManager]:";
constexpr int kFramesBetweenChecks = 29; // a full pass about once a second at 30 fps
constexpr int kMostDamageRects = 16;     // more small changes: one pass over their extent is cheaper
constexpr char kBilinear[] = "bilinear";

xcb_render_fixed_t fixed(double v)
{
    return static_cast<xcb_render_fixed_t>(std::lround(v * 65536.0));
}

} // namespace

std::unique_ptr<X11RenderScaler> X11RenderScaler::create(xcb_connection_t* connection,
                                                         const xcb_screen_t* screen,
                                                         const AreaAverager::PixelLayout& rootLayout,
                                                         const QString& display)
{
    std::unique_ptr<X11RenderScaler> scaler(new X11RenderScaler(connection, display));
    if (!scaler->probe(screen, rootLayout)) {
        return nullptr;
    }
    scaler->probeDamage();
    return scaler;
}

X11RenderScaler::X11RenderScaler(xcb_connection_t* c, const QString& displayName)
    : connection(c)
    , display(displayName)
{
}

X11RenderScaler::~X11RenderScaler()
{
    releaseStages();
    dropDamage();
    if (rootPicture) {
        xcb_render_free_picture(connection, rootPicture);
    }
}

bool X11RenderScaler::probe(const xcb_screen_t* screen, const AreaAverager::PixelLayout& rootLayout)
{
    root = screen->root;
    rootDepth = screen->root_depth;
    const xcb_query_extension_reply_t* ext = xcb_get_extension_data(connection, &xcb_render_id);
    if (!ext || !ext->present) {
        return false;
    }
    auto version = reply(
        xcb_render_query_version_reply(connection, xcb_render_query_version(connection, 0, 11), nullptr));
    auto formats = reply(
        xcb_render_query_pict_formats_reply(connection, xcb_render_query_pict_formats(connection), nullptr));
    if (!version || !formats) {
        return false;
    }
    for (auto screens = xcb_render_query_pict_formats_screens_iterator(formats.get()); screens.rem;
         xcb_render_pictscreen_next(&screens)) {
        for (auto depths = xcb_render_pictscreen_depths_iterator(screens.data); depths.rem;
             xcb_render_pictdepth_next(&depths)) {
            for (auto visuals = xcb_render_pictdepth_visuals_iterator(depths.data); visuals.rem;
                 xcb_render_pictvisual_next(&visuals)) {
                if (visuals.data->visual == screen->root_visual) {
                    rootFormat = visuals.data->format;
                }
            }
        }
    }
    if (!rootFormat) {
        return false;
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
        smallLayout = X11Setup::layoutOf(connection, smallDepth);
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
    xcb_render_set_picture_filter(connection, rootPicture, sizeof(kBilinear) - 1, kBilinear, 0, nullptr);
    return true;
}

void X11RenderScaler::probeDamage()
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
void X11RenderScaler::dropDamage()
{
    if (damage) {
        xcb_damage_destroy(connection, damage);
        xcb_xfixes_destroy_region(connection, damageRegion);
    }
    damage = 0;
    damageRegion = 0;
}

bool X11RenderScaler::takeDamage(QVector<QRect>* rects)
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
    QVector<QRect> drawn;
    const int count = xcb_xfixes_fetch_region_rectangles_length(fetched.get());
    const xcb_rectangle_t* r = xcb_xfixes_fetch_region_rectangles(fetched.get());
    if (count > kMostDamageRects) {
        const xcb_rectangle_t& e = fetched->extents;
        drawn.append(QRect(e.x, e.y, e.width, e.height));
    } else {
        for (int i = 0; i < count; ++i) {
            drawn.append(QRect(r[i].x, r[i].y, r[i].width, r[i].height));
        }
    }
    // Into the monitor's coordinates, clipped to it.
    for (const QRect& rect : qAsConst(drawn)) {
        const QRect clipped = rect & stagedArea;
        if (!clipped.isEmpty()) {
            rects->append(clipped.translated(-stagedArea.topLeft()));
        }
    }
    return true;
}

void X11RenderScaler::releaseStages()
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

QVector<X11RenderScaler::Step> X11RenderScaler::axisSteps(int from, int to)
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

bool X11RenderScaler::buildStages(const QRect& area, const QSize& size)
{
    releaseStages();
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
        xcb_render_set_picture_filter(connection, stage.picture, sizeof(kBilinear) - 1, kBilinear, 0,
                                      nullptr);
        stages.append(stage);
        source = stage.picture;
        offset = QPoint();
    }
    stagedArea = area;
    stagedSize = size;
    return !xcb_connection_has_error(connection);
}

void X11RenderScaler::composite(const QVector<QRect>& dirty)
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

DeskFrameGrabber::Result X11RenderScaler::scale(const QRect& area, const QSize& size, bool* unchanged)
{
    using Result = DeskFrameGrabber::Result;
    *unchanged = false;
    if ((stagedArea != area || stagedSize != size) && !buildStages(area, size)) {
        return Result::Lost;
    }
    fullPass = !damage || !stagesValid || framesSinceFull >= kFramesBetweenChecks;
    if (fullPass) {
        composite({});
        return Result::Frame;
    }
    QVector<QRect> drawn;
    if (!takeDamage(&drawn)) {
        return xcb_connection_has_error(connection) ? Result::Lost : Result::Skip;
    }
    const QVector<QRect> dirty = pendingDamage + drawn;
    pendingDamage.clear();
    ++framesSinceFull;
    if (dirty.isEmpty()) {
        *unchanged = true;
        return Result::Frame;
    }
    composite(dirty);
    return Result::Frame;
}

DeskFrameGrabber::Result X11RenderScaler::finish(const QImage& frame)
{
    using Result = DeskFrameGrabber::Result;
    if (damage && fullPass) {
        // What was drawn from the last take until now is redone next frame: some of it may have
        // come after the pass. Nothing drawn, yet a different picture: the server draws without
        // telling (it happens with some drivers), so every frame takes the full pass again.
        const bool checkable = stagesValid && pendingDamage.isEmpty();
        QVector<QRect> drawn;
        if (!takeDamage(&drawn)) {
            return xcb_connection_has_error(connection) ? Result::Lost : Result::Skip;
        }
        pendingDamage = drawn;
        if (checkable && pendingDamage.isEmpty() && frame != lastScaled) {
            qWarning().noquote() << kTag << display
                                 << "changed without reporting damage - scaling the whole screen every frame";
            dropDamage();
        }
        stagesValid = true;
        framesSinceFull = 0;
    }
    lastScaled = frame; // never written: a frame is not touched after it was sent
    return Result::Frame;
}
