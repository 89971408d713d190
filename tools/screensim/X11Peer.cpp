#include "X11Peer.h"

#include <QSocketNotifier>

#include <X11/Xlib.h>
#include <X11/extensions/XTest.h>
#include <xcb/xcb_keysyms.h>

#include <algorithm>
#include <cstdlib>
#include <memory>

namespace {

template <typename T> std::unique_ptr<T, decltype(&std::free)> reply(T* r)
{
    return std::unique_ptr<T, decltype(&std::free)>(r, &std::free);
}

QString errorName(uint8_t code)
{
    switch (code) {
    case 10:
        return QStringLiteral("BadAccess");
    case 2:
        return QStringLiteral("BadValue");
    case 3:
        return QStringLiteral("BadWindow");
    default:
        return QStringLiteral("X error %1").arg(code);
    }
}

} // namespace

X11Peer::X11Peer(QObject* parent)
    : QObject(parent)
{
}

X11Peer::~X11Peer()
{
    if (connection) {
        restoreKeymap();
        xcb_disconnect(connection);
    }
    if (xlib) {
        XCloseDisplay(xlib);
    }
}

bool X11Peer::open(const QString& display)
{
    const QByteArray name = display.toLocal8Bit();
    int screenNumber = 0;
    connection = xcb_connect(name.constData(), &screenNumber);
    if (xcb_connection_has_error(connection)) {
        error = QStringLiteral("cannot connect to %1").arg(display);
        xcb_disconnect(connection);
        connection = nullptr;
        return false;
    }
    int eventBase = 0, errorBase = 0, major = 0, minor = 0;
    xlib = XOpenDisplay(name.constData());
    if (!xlib || !XTestQueryExtension(xlib, &eventBase, &errorBase, &major, &minor)) {
        error = QStringLiteral("no XTest on %1").arg(display);
        return false;
    }
    auto it = xcb_setup_roots_iterator(xcb_get_setup(connection));
    for (int i = 0; i < screenNumber; ++i) {
        xcb_screen_next(&it);
    }
    root = it.data->root;
    window = xcb_generate_id(connection);
    const uint32_t values[] = {it.data->black_pixel, XCB_EVENT_MASK_KEY_PRESS | XCB_EVENT_MASK_FOCUS_CHANGE};
    xcb_create_window(connection, XCB_COPY_FROM_PARENT, window, root, 0, 0, 160, 90, 0,
                      XCB_WINDOW_CLASS_INPUT_OUTPUT, it.data->root_visual,
                      XCB_CW_BACK_PIXEL | XCB_CW_EVENT_MASK, values);
    const char title[] = "X11Peer";
    xcb_change_property(connection, XCB_PROP_MODE_REPLACE, window, XCB_ATOM_WM_NAME, XCB_ATOM_STRING, 8,
                        sizeof title - 1, title);
    xcb_map_window(connection, window);
    free(xcb_get_input_focus_reply(connection, xcb_get_input_focus(connection), nullptr)); // mapped by now
    notifier = new QSocketNotifier(xcb_get_file_descriptor(connection), QSocketNotifier::Read, this);
    connect(notifier, &QSocketNotifier::activated, this, &X11Peer::readEvents);
    return takeFocus();
}

bool X11Peer::takeFocus()
{
    xcb_set_input_focus(connection, XCB_INPUT_FOCUS_POINTER_ROOT, window, XCB_CURRENT_TIME);
    return hasFocus();
}

bool X11Peer::hasFocus()
{
    auto focus = reply(xcb_get_input_focus_reply(connection, xcb_get_input_focus(connection), nullptr));
    readEvents();
    return focus && focus->focus == window;
}

quint8 X11Peer::keyCode(quint32 keysym)
{
    std::unique_ptr<xcb_key_symbols_t, decltype(&xcb_key_symbols_free)> symbols(
        xcb_key_symbols_alloc(connection), &xcb_key_symbols_free);
    std::unique_ptr<xcb_keycode_t, decltype(&std::free)> codes(
        xcb_key_symbols_get_keycode(symbols.get(), keysym), &std::free);
    return codes ? codes.get()[0] : 0;
}

quint16 X11Peer::modifierMask(quint32 keysym)
{
    const quint8 code = keyCode(keysym);
    auto map =
        reply(xcb_get_modifier_mapping_reply(connection, xcb_get_modifier_mapping(connection), nullptr));
    if (!map || code == 0) {
        return 0;
    }
    const xcb_keycode_t* codes = xcb_get_modifier_mapping_keycodes(map.get());
    for (int mod = 0; mod < 8; ++mod) {
        for (int k = 0; k < map->keycodes_per_modifier; ++k) {
            if (codes[mod * map->keycodes_per_modifier + k] == code) {
                return quint16(1u << mod);
            }
        }
    }
    return 0;
}

void X11Peer::keyDown(quint8 code)
{
    XTestFakeKeyEvent(xlib, code, True, CurrentTime);
    XSync(xlib, False);
}

void X11Peer::keyUp(quint8 code)
{
    XTestFakeKeyEvent(xlib, code, False, CurrentTime);
    XSync(xlib, False);
}

void X11Peer::tap(const QVector<quint32>& keysyms)
{
    QVector<quint8> codes;
    for (quint32 keysym : keysyms) {
        codes.append(keyCode(keysym));
        keyDown(codes.last());
    }
    for (int i = codes.size() - 1; i >= 0; --i) {
        keyUp(codes[i]);
    }
}

void X11Peer::click(const QPoint& rootPosition)
{
    XTestFakeMotionEvent(xlib, -1, rootPosition.x(), rootPosition.y(), CurrentTime);
    XTestFakeButtonEvent(xlib, 1, True, CurrentTime);
    XTestFakeButtonEvent(xlib, 1, False, CurrentTime);
    XSync(xlib, False);
}

void X11Peer::setLock(quint32 lockKeysym, bool on)
{
    const quint16 mask = modifierMask(lockKeysym);
    auto pointer = reply(xcb_query_pointer_reply(connection, xcb_query_pointer(connection, root), nullptr));
    if (mask != 0 && pointer && bool(pointer->mask & mask) != on) {
        tap({lockKeysym});
    }
}

void X11Peer::readEvents()
{
    while (xcb_generic_event_t* event = xcb_poll_for_event(connection)) {
        if ((event->response_type & 0x7f) == XCB_KEY_PRESS) {
            pressCounts[reinterpret_cast<xcb_key_press_event_t*>(event)->detail] += 1;
        }
        std::free(event);
    }
}

int X11Peer::presses(quint8 code)
{
    free(xcb_get_input_focus_reply(connection, xcb_get_input_focus(connection), nullptr)); // all sent is in
    readEvents();
    return pressCounts.value(code);
}

int X11Peer::allPresses()
{
    presses(0);
    int all = 0;
    for (int count : qAsConst(pressCounts)) {
        all += count;
    }
    return all;
}

void X11Peer::clearPresses()
{
    presses(0);
    pressCounts.clear();
}

QString X11Peer::grab(quint16 modifiers, quint32 keysym)
{
    const xcb_void_cookie_t cookie = xcb_grab_key_checked(connection, 1, root, modifiers, keyCode(keysym),
                                                          XCB_GRAB_MODE_ASYNC, XCB_GRAB_MODE_ASYNC);
    std::unique_ptr<xcb_generic_error_t, decltype(&std::free)> failed(xcb_request_check(connection, cookie),
                                                                      &std::free);
    return failed ? errorName(failed->error_code) : QString();
}

void X11Peer::ungrab(quint16 modifiers, quint32 keysym)
{
    xcb_ungrab_key(connection, keyCode(keysym), root, modifiers);
    free(xcb_get_input_focus_reply(connection, xcb_get_input_focus(connection), nullptr));
}

QVector<xcb_keysym_t> X11Peer::keymapRow(quint8 code, int* perKeycode)
{
    auto map = reply(
        xcb_get_keyboard_mapping_reply(connection, xcb_get_keyboard_mapping(connection, code, 1), nullptr));
    *perKeycode = map ? map->keysyms_per_keycode : 0;
    if (!map) {
        return {};
    }
    const xcb_keysym_t* syms = xcb_get_keyboard_mapping_keysyms(map.get());
    return QVector<xcb_keysym_t>(syms, syms + map->keysyms_per_keycode);
}

void X11Peer::setKeymapRow(quint8 code, const QVector<xcb_keysym_t>& row)
{
    int perKeycode = 0;
    const QVector<xcb_keysym_t> before = keymapRow(code, &perKeycode);
    if (!originalRows.contains(code)) {
        originalRows.insert(code, before);
    }
    QVector<xcb_keysym_t> padded = row;
    padded.resize(perKeycode);
    xcb_change_keyboard_mapping(connection, 1, code, uint8_t(perKeycode), padded.constData());
    free(xcb_get_input_focus_reply(connection, xcb_get_input_focus(connection), nullptr));
}

quint8 X11Peer::moveKeysym(quint32 keysym, quint8 code)
{
    const quint8 from = keyCode(keysym);
    if (from != 0) {
        setKeymapRow(from, {});
    }
    setKeymapRow(code, {keysym, keysym});
    return from;
}

quint8 X11Peer::freeKeyCode()
{
    const xcb_setup_t* setup = xcb_get_setup(connection);
    for (int code = setup->max_keycode; code >= setup->min_keycode; --code) {
        int perKeycode = 0;
        const QVector<xcb_keysym_t> row = keymapRow(quint8(code), &perKeycode);
        if (std::all_of(row.begin(), row.end(), [](xcb_keysym_t s) { return s == XCB_NO_SYMBOL; })) {
            return quint8(code);
        }
    }
    return 0;
}

void X11Peer::restoreKeymap()
{
    for (auto it = originalRows.cbegin(); it != originalRows.cend(); ++it) {
        xcb_change_keyboard_mapping(connection, 1, it.key(), uint8_t(it.value().size()),
                                    it.value().constData());
    }
    originalRows.clear();
    free(xcb_get_input_focus_reply(connection, xcb_get_input_focus(connection), nullptr));
}
