#pragma once

#include "service/screen/AreaAverager.h"
#include "service/screen/DeskFrameGrabber.h"

#include <QImage>
#include <QRect>
#include <QString>
#include <QVector>

#include <xcb/damage.h>
#include <xcb/render.h>
#include <xcb/xcb.h>

#include <memory>

// Mode 0's scaling on the X server: a RENDER picture of the root (with its inferiors) scaled down
// in passes, each 2:1 bilinear step an exact 2 x 2 mean, plus on each axis at most one step of a
// ratio between 0.75 and 1.5 where its size doesn't halve down to the target. With DAMAGE, the
// passes redo only what was drawn since the last frame; a full pass about once a second checks
// that the server reports all drawing (a screen changed behind its back turns the reports off).
class X11RenderScaler
{
public:
    // Null when the server has no usable RENDER.
    static std::unique_ptr<X11RenderScaler> create(xcb_connection_t* connection, const xcb_screen_t* screen,
                                                   const AreaAverager::PixelLayout& rootLayout,
                                                   const QString& display);
    ~X11RenderScaler();
    X11RenderScaler(const X11RenderScaler&) = delete;
    X11RenderScaler& operator=(const X11RenderScaler&) = delete;

    // One pass along one axis: the size it makes and the ratio it scales by.
    struct Step
    {
        int size;
        double scale;
    };
    // The passes that take one axis from `from` pixels down to `to`, none losing a row.
    static QVector<Step> axisSteps(int from, int to);

    // Scales area (root coordinates) down to size into target(): all passes, or only what was
    // drawn. Sets unchanged, and leaves target() alone, when nothing was drawn: lastFrame() stands.
    DeskFrameGrabber::Result scale(const QRect& area, const QSize& size, bool* unchanged);
    // The pixmap of the last pass, and how its pixels are read.
    xcb_pixmap_t target() const { return stages.constLast().pixmap; }
    const AreaAverager::PixelLayout& targetLayout() const { return smallLayout; }
    // Memory order red, green, blue, x: a frame is copied as it stands.
    bool targetIsRgbx() const { return smallRedLow; }
    // The frame read off target() after scale(); after a full pass, checks it against what was
    // reported drawn meanwhile.
    DeskFrameGrabber::Result finish(const QImage& frame);
    // The read after scale() failed: the next frame takes the full pass.
    void readFailed() { stagesValid = false; }
    const QImage& lastFrame() const { return lastScaled; }

private:
    struct Stage
    {
        xcb_pixmap_t pixmap = 0;
        xcb_render_picture_t picture = 0;
        QSize size;
    };

    X11RenderScaler(xcb_connection_t* connection, const QString& display);
    bool probe(const xcb_screen_t* screen, const AreaAverager::PixelLayout& rootLayout);
    void probeDamage();
    void dropDamage();
    // Takes what was drawn since the last call, in the staged monitor's coordinates and clipped
    // to it; false when that failed.
    bool takeDamage(QVector<QRect>* rects);
    bool buildStages(const QRect& area, const QSize& size);
    void releaseStages();
    void composite(const QVector<QRect>& dirty);

    xcb_connection_t* connection;
    QString display;
    xcb_window_t root = 0;
    uint8_t rootDepth = 24;
    xcb_render_pictformat_t rootFormat = 0;
    xcb_render_pictformat_t smallFormat = 0;
    uint8_t smallDepth = 0;
    AreaAverager::PixelLayout smallLayout;
    bool smallRedLow = false;
    xcb_render_picture_t rootPicture = 0;
    QVector<Stage> stages;
    QRect stagedArea;
    QSize stagedSize;
    bool stagesValid = false; // with DAMAGE: the passes and lastScaled hold the picture as of the last take
    bool fullPass = false;    // the last scale() redid everything

    xcb_damage_damage_t damage = 0;
    xcb_xfixes_region_t damageRegion = 0;
    QVector<QRect> pendingDamage; // taken after a full pass, still to be redone
    QImage lastScaled;
    int framesSinceFull = 0;
};
