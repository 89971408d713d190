#pragma once

#include "service/screen/DeskFrameGrabber.h"

#include <QVector>

#include <xcb/damage.h>
#include <xcb/render.h>
#include <xcb/shm.h>
#include <xcb/xcb.h>

#include <cstdint>

// X11 grabbing on a connection of its own. Mode 0 lets the server scale a RENDER picture of the
// root (with its inferiors) down in halving passes, each 2:1 bilinear step an exact 2 x 2 mean,
// plus on each axis at most one step of a ratio between 0.75 and 1.5 where its size doesn't halve
// down to the target, and reads only the small result; with DAMAGE the passes redo only what
// changed since the last frame. Mode 1, and mode 0 without RENDER, read the monitor full size
// (clipped to the root) and average areas on the CPU. Reads go through a MIT-SHM segment when a
// probe proved that the server can share memory with us, else through GetImage.
class DeskFrameGrabberX11 : public DeskFrameGrabber
{
public:
    // Null when the display can't be reached.
    static DeskFrameGrabberX11* open(const QString& display);
    ~DeskFrameGrabberX11() override;

    Result grab(const QRect& area, const QSize& size, int mode, QImage* frame) override;
    QString technique(int mode) const override;

    // How pixels of a drawable are laid out in a reply.
    struct PixelLayout
    {
        int bitsPerPixel = 32;
        int scanlinePad = 32;
        bool swapBytes = false;
        uint32_t masks[3] = {0xff0000, 0xff00, 0xff}; // red, green, blue
    };

    // Averages every output pixel over its source rectangle (integer box sums) into out.
    static void averageAreas(const uint8_t* src, int width, int height, int stride, const PixelLayout& layout,
                             QImage* out);

    // One pass of mode 0's scaling along one axis: the size it makes and the ratio it scales by.
    struct Step
    {
        int size;
        double scale;
    };
    // The passes that take one axis from `from` pixels down to `to`, none losing a row.
    static QVector<Step> axisSteps(int from, int to);

private:
    enum class ShmKind
    {
        None,
        SysV,
        Fd,
    };

    struct Stage
    {
        xcb_pixmap_t pixmap = 0;
        xcb_render_picture_t picture = 0;
        QSize size;
    };

    explicit DeskFrameGrabberX11(xcb_connection_t* connection, int screenNumber, const QString& display);

    void probeRender();
    void probeDamage();
    void dropDamage();
    // Takes what was drawn since the last call, in root coordinates; false when DAMAGE is off.
    bool takeDamage(QVector<QRect>* rects);
    void composite(const QVector<QRect>& dirty);
    static ShmKind probeShm(const QString& display);
    bool ensureSegment(size_t bytes);
    void releaseSegment();
    void releaseStages();
    bool buildStages(const QRect& area, const QSize& size);
    // Reads w x h at (x, y) of drawable; data points at the pixels, valid until the next read.
    Result readPixels(xcb_drawable_t drawable, int x, int y, int w, int h, const uint8_t** data);
    Result grabScaled(const QRect& area, const QSize& size, QImage* frame);
    Result grabFull(const QRect& area, const QSize& size, QImage* frame);
    int strideOf(int width, const PixelLayout& layout) const;
    QRect rootRect();

    QString display;
    xcb_connection_t* connection;
    xcb_window_t root = 0;
    uint8_t rootDepth = 24;
    PixelLayout rootLayout;

    bool render = false;
    xcb_render_pictformat_t rootFormat = 0;
    xcb_render_pictformat_t smallFormat = 0;
    uint8_t smallDepth = 0;
    PixelLayout smallLayout;
    bool smallRedLow = false; // memory order red, green, blue, x: copied as it stands
    xcb_render_picture_t rootPicture = 0;
    QVector<Stage> stages;
    QRect stagedArea;
    QSize stagedSize;
    bool stagesValid = false; // with DAMAGE: the passes and lastScaled hold the picture as of the last take

    // Mode 0 repaints only where the root was drawn on. A full pass every second checks that the
    // server reports all drawing (a screen changed behind its back turns the reports off).
    xcb_damage_damage_t damage = 0;
    xcb_xfixes_region_t damageRegion = 0;
    QVector<QRect> pendingDamage; // taken after a full pass, still to be redone
    QImage lastScaled;
    int framesSinceFull = 0;
    static constexpr int kFramesBetweenChecks = 29; // a full pass about once a second at 30 fps

    ShmKind shm = ShmKind::None;
    xcb_shm_seg_t segment = 0;
    uint8_t* segmentData = nullptr;
    size_t segmentSize = 0;
    int sysvId = -1;
    uint8_t* replyData = nullptr; // the last GetImage reply, freed at the next read

    // Mode 1 reads the part of a monitor that lies on the root; each area is logged once when
    // clipped and once when it can't be read.
    QRect fullArea;
    QRect rootBounds;
    bool clipLogged = false;
    bool unreadableLogged = false;
};
