#pragma once

#include "service/screen/AreaAverager.h"

#include <xcb/xcb.h>

#include <cstdlib>
#include <memory>

// What the X11 capture files read off a connection's setup, and the owner of an XCB reply.
namespace X11Setup {

template <typename T> using Reply = std::unique_ptr<T, decltype(&std::free)>;

template <typename T> Reply<T> reply(T* r)
{
    return Reply<T>(r, &std::free);
}

const xcb_screen_t* screenOf(xcb_connection_t* c, int screenNumber);
// Bits per pixel and scanline pad of pixmaps of this depth, in the server's byte order; the masks
// stay the caller's.
AreaAverager::PixelLayout layoutOf(xcb_connection_t* c, uint8_t depth);
// The server's image byte order differs from ours.
bool serverSwaps(xcb_connection_t* c);
// The server is Xwayland (RandR outputs named "XWAYLAND..."): its root shows only X11 windows,
// and it sees keys only while one of them has the focus.
bool isXwayland(xcb_connection_t* c, xcb_window_t root);

} // namespace X11Setup
