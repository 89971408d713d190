#include "service/screen/x11/X11Setup.h"

#include <QByteArray>
#include <QtGlobal>

#include <xcb/randr.h>

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

bool isXwayland(xcb_connection_t* c, xcb_window_t root)
{
    const xcb_query_extension_reply_t* ext = xcb_get_extension_data(c, &xcb_randr_id);
    if (!ext || !ext->present) {
        return false;
    }
    auto resources = reply(xcb_randr_get_screen_resources_current_reply(
        c, xcb_randr_get_screen_resources_current(c, root), nullptr));
    if (!resources) {
        return false;
    }
    const xcb_randr_output_t* outputs = xcb_randr_get_screen_resources_current_outputs(resources.get());
    const int count = xcb_randr_get_screen_resources_current_outputs_length(resources.get());
    for (int i = 0; i < count; ++i) {
        auto info = reply(xcb_randr_get_output_info_reply(
            c, xcb_randr_get_output_info(c, outputs[i], resources->config_timestamp), nullptr));
        if (!info) {
            continue;
        }
        const QByteArray name(reinterpret_cast<const char*>(xcb_randr_get_output_info_name(info.get())),
                              xcb_randr_get_output_info_name_length(info.get()));
        if (name.startsWith("XWAYLAND")) {
            return true;
        }
    }
    return false;
}

} // namespace X11Setup
