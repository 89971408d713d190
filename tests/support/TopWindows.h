#pragma once

#include <QByteArray>
#include <QList>
#include <QString>
#include <QVector>

#include <cstdlib>
#include <xcb/xcb.h>

// A top-level window of an X server as a user sees it.
struct TopWindow
{
    quint32 pid = 0;           // _NET_WM_PID, 0 when not set
    QList<QByteArray> wmClass; // instance, class
    QString title;
    bool viewable = false;
    int width = 0;
    int height = 0;
    QByteArray pixels; // 32-bit RGB rows of a viewable window of the class `topWindows` was asked for
};

// The top-level windows on `display` (empty: DISPLAY's), with the pictures of those of the WM_CLASS
// `picturesOf`; none when it cannot be reached.
inline QVector<TopWindow> topWindows(const QString& display = {}, const QByteArray& picturesOf = {})
{
    QVector<TopWindow> out;
    xcb_connection_t* c =
        xcb_connect(display.isEmpty() ? nullptr : display.toLocal8Bit().constData(), nullptr);
    if (xcb_connection_has_error(c)) {
        xcb_disconnect(c);
        return out;
    }
    const xcb_window_t root = xcb_setup_roots_iterator(xcb_get_setup(c)).data->root;
    xcb_intern_atom_reply_t* pidAtom =
        xcb_intern_atom_reply(c, xcb_intern_atom(c, 0, 11, "_NET_WM_PID"), nullptr);
    xcb_query_tree_reply_t* tree = xcb_query_tree_reply(c, xcb_query_tree(c, root), nullptr);
    const auto property = [c](xcb_window_t w, xcb_atom_t atom) {
        xcb_get_property_reply_t* r = xcb_get_property_reply(
            c, xcb_get_property(c, 0, w, atom, XCB_GET_PROPERTY_TYPE_ANY, 0, 1024), nullptr);
        const QByteArray value = r ? QByteArray(static_cast<const char*>(xcb_get_property_value(r)),
                                                xcb_get_property_value_length(r))
                                   : QByteArray();
        free(r);
        return value;
    };
    for (int i = 0; tree && i < xcb_query_tree_children_length(tree); ++i) {
        const xcb_window_t w = xcb_query_tree_children(tree)[i];
        TopWindow window;
        const QByteArray pid = pidAtom ? property(w, pidAtom->atom) : QByteArray();
        window.pid = pid.size() == 4 ? *reinterpret_cast<const quint32*>(pid.constData()) : 0;
        window.wmClass = property(w, XCB_ATOM_WM_CLASS).split('\0');
        window.title = QString::fromUtf8(property(w, XCB_ATOM_WM_NAME));
        xcb_get_window_attributes_reply_t* attributes =
            xcb_get_window_attributes_reply(c, xcb_get_window_attributes(c, w), nullptr);
        window.viewable = attributes && attributes->map_state == XCB_MAP_STATE_VIEWABLE;
        free(attributes);
        const bool picture = !picturesOf.isEmpty() && window.viewable && window.wmClass.contains(picturesOf);
        xcb_get_geometry_reply_t* g =
            picture ? xcb_get_geometry_reply(c, xcb_get_geometry(c, w), nullptr) : nullptr;
        xcb_get_image_reply_t* image =
            g ? xcb_get_image_reply(
                    c, xcb_get_image(c, XCB_IMAGE_FORMAT_Z_PIXMAP, w, 0, 0, g->width, g->height, ~0u),
                    nullptr)
              : nullptr;
        if (image && xcb_get_image_data_length(image) == g->width * g->height * 4) {
            window.width = g->width;
            window.height = g->height;
            window.pixels = QByteArray(reinterpret_cast<const char*>(xcb_get_image_data(image)),
                                       xcb_get_image_data_length(image));
        }
        free(image);
        free(g);
        out << window;
    }
    free(tree);
    free(pidAtom);
    xcb_disconnect(c);
    return out;
}
