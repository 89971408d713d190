#include "service/screen/x11/X11Setup.h"

#include <QtGlobal>

namespace X11Setup {

const xcb_screen_t* screenOf(xcb_connection_t* c, int screenNumber)
{
    xcb_screen_iterator_t it = xcb_setup_roots_iterator(xcb_get_setup(c));
    for (int i = 0; i < screenNumber && it.rem; ++i) {
        xcb_screen_next(&it);
    }
    return it.data;
}

AreaAverager::PixelLayout layoutOf(xcb_connection_t* c, uint8_t depth)
{
    AreaAverager::PixelLayout layout;
    const xcb_setup_t* setup = xcb_get_setup(c);
    for (auto it = xcb_setup_pixmap_formats_iterator(setup); it.rem; xcb_format_next(&it)) {
        if (it.data->depth == depth) {
            layout.bitsPerPixel = it.data->bits_per_pixel;
            layout.scanlinePad = it.data->scanline_pad;
            break;
        }
    }
    layout.swapBytes = serverSwaps(c);
    return layout;
}

bool serverSwaps(xcb_connection_t* c)
{
    const bool serverLsb = xcb_get_setup(c)->image_byte_order == XCB_IMAGE_ORDER_LSB_FIRST;
    return serverLsb != (Q_BYTE_ORDER == Q_LITTLE_ENDIAN);
}

} // namespace X11Setup
