#pragma once

#include "service/screen/AreaAverager.h"
#include "service/screen/DeskFrameGrabber.h"

#include <xcb/xcb.h>

#include <cstdint>
#include <memory>

class X11RenderScaler;
class X11ShmSegment;

// X11 grabbing on a connection of its own. Mode 0 lets the server scale the monitor down
// (X11RenderScaler) and reads only the small result. Mode 1, and mode 0 without RENDER, read the
// monitor full size (clipped to the root) and average areas on the CPU (AreaAverager). Reads go
// through a MIT-SHM segment (X11ShmSegment) when a probe proved that the server can share memory
// with us, else through GetImage.
class DeskFrameGrabberX11 : public DeskFrameGrabber
{
public:
    // Null when the display can't be reached.
    static std::unique_ptr<DeskFrameGrabberX11> open(const QString& display);
    ~DeskFrameGrabberX11() override;

    Result grab(const QRect& area, const QSize& size, int mode, QImage* frame) override;
    QString technique(int mode) const override;

private:
    DeskFrameGrabberX11(xcb_connection_t* connection, int screenNumber, const QString& display);

    // Reads w x h at (x, y) of drawable; data points at the pixels, valid until the next read.
    Result readPixels(xcb_drawable_t drawable, int x, int y, int w, int h,
                      const AreaAverager::PixelLayout& layout, const uint8_t** data);
    Result grabScaled(const QRect& area, const QSize& size, QImage* frame);
    Result grabFull(const QRect& area, const QSize& size, QImage* frame);
    QRect rootRect();

    QString display;
    xcb_connection_t* connection;
    xcb_window_t root = 0;
    AreaAverager::PixelLayout rootLayout;
    std::unique_ptr<X11RenderScaler> scaler; // null without RENDER
    std::unique_ptr<X11ShmSegment> shm;      // null without MIT-SHM, or once the server refused it
    // The last GetImage reply, freed at the next read.
    std::unique_ptr<xcb_get_image_reply_t, decltype(&std::free)> lastReply{nullptr, &std::free};

    // Mode 1 reads the part of a monitor that lies on the root; each area is logged once when
    // clipped and once when it can't be read.
    QRect fullArea;
    QRect rootBounds;
    bool clipLogged = false;
    bool unreadableLogged = false;
};
