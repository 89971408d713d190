#include "hotkeys/editor/HotkeyInputLine.h"

#include <QGuiApplication>
#include <QX11Info>

#include <X11/Xlib.h>
#include <xcb/xcb.h>
#include <xcb/xcb_keysyms.h>

#include <memory>

namespace {

struct Disconnect
{
    void operator()(xcb_connection_t* c) const { xcb_disconnect(c); }
};

// Qt's connection on X11. On another platform plug-in an X display may still be there (Xwayland
// beside a Wayland session, whose key codes are the same), reached once on a connection of our own.
xcb_connection_t* keymapConnection()
{
    if (QX11Info::isPlatformX11()) {
        return QX11Info::connection();
    }
    static std::unique_ptr<xcb_connection_t, Disconnect> own =
        []() -> std::unique_ptr<xcb_connection_t, Disconnect> {
        if (qEnvironmentVariableIsEmpty("DISPLAY")) {
            return nullptr;
        }
        xcb_connection_t* c = xcb_connect(nullptr, nullptr);
        if (xcb_connection_has_error(c)) {
            xcb_disconnect(c);
            return nullptr;
        }
        return std::unique_ptr<xcb_connection_t, Disconnect>(c);
    }();
    return own.get();
}

} // namespace

QString HotkeyInputLine::platformKeyName(quint32 nativeScanCode)
{
    const QString hexadecimal = QStringLiteral("0x") + QString::number(nativeScanCode, 16);
    xcb_connection_t* connection = keymapConnection();
    if (!connection || nativeScanCode < 8 || nativeScanCode > 255) {
        return hexadecimal;
    }
    // Read afresh at each press, so the name follows the map as it is now.
    std::unique_ptr<xcb_key_symbols_t, decltype(&xcb_key_symbols_free)> symbols(
        xcb_key_symbols_alloc(connection), &xcb_key_symbols_free);
    const xcb_keysym_t keysym =
        symbols ? xcb_key_symbols_get_keysym(symbols.get(), xcb_keycode_t(nativeScanCode), 0) : 0;
    const char* name = keysym != XCB_NO_SYMBOL ? XKeysymToString(KeySym(keysym)) : nullptr;
    return name ? QString::fromLatin1(name) : hexadecimal;
}
