#include "hotkeys/QHotkeyPrivateX11.h"

#include "hotkeys/QHotkeyPrivateUnsupported.h"
#include "hotkeys/X11KeySymbols.h"
#include "service/screen/x11/X11Setup.h"

#include <QGuiApplication>
#include <QSet>
#include <QX11Info>

// The XKB header names a field "explicit", a C++ keyword.
#define explicit explicit_
#include <xcb/xkb.h>
#undef explicit

#define XK_MISCELLANY
#include <X11/keysym.h>

#include <cstdlib>

// Logs in the "QHotkey" category, which names the engine; the texts carry no tag of their own.

std::unique_ptr<QHotkeyPrivate> QHotkeyPrivate::createEngine()
{
    const QString platform = QGuiApplication::platformName();
    if (platform == QLatin1String("xcb") && QX11Info::connection()) {
        return std::make_unique<QHotkeyPrivateX11>();
    }
    return std::make_unique<QHotkeyPrivateUnsupported>(platform.isEmpty() ? QStringLiteral("none")
                                                                          : platform);
}

QHotkeyPrivateX11::QHotkeyPrivateX11()
    : connection(QX11Info::connection())
    , root(QX11Info::appRootWindow())
{
    // Qt selects the XKB map notices on its connection; its event numbers tell them apart.
    const xcb_query_extension_reply_t* xkb = xcb_get_extension_data(connection, &xcb_xkb_id);
    if (xkb && xkb->present) {
        xkbEventBase = xkb->first_event;
    }
    readKeymap();
    xwayland = X11Setup::isXwayland(connection, root);
    if (xwayland) {
        qCWarning(logQHotkey) << "The X display is Xwayland: global hotkeys work only while one of its "
                                 "X11 windows has the focus";
    }
    releaseTimer.setSingleShot(true);
    releaseTimer.setInterval(releaseHoldMs);
    connect(&releaseTimer, &QTimer::timeout, this, &QHotkeyPrivateX11::deliverHeldRelease);
    // A map change comes as several notices; the grabs move once, after the last of a batch.
    keymapTimer.setSingleShot(true);
    keymapTimer.setInterval(0);
    connect(&keymapTimer, &QTimer::timeout, this, &QHotkeyPrivateX11::onKeymapChanged);
}

QHotkeyPrivateX11::~QHotkeyPrivateX11() = default;

QHotkey::Availability QHotkeyPrivateX11::availability() const
{
    return xwayland ? QHotkey::Availability::WhileX11Focused : QHotkey::Availability::Global;
}

QString QHotkeyPrivateX11::errorName(uint8_t code)
{
    static const char* const names[] = {
        "Success",   "BadRequest", "BadValue",    "BadWindow",   "BadPixmap", "BadAtom",
        "BadCursor", "BadFont",    "BadMatch",    "BadDrawable", "BadAccess", "BadAlloc",
        "BadColor",  "BadGC",      "BadIDChoice", "BadName",     "BadLength", "BadImplementation",
    };
    if (code < sizeof names / sizeof names[0]) {
        return QString::fromLatin1(names[code]);
    }
    return QStringLiteral("X error %1").arg(code);
}

void QHotkeyPrivateX11::readKeymap()
{
    symbols.reset(xcb_key_symbols_alloc(connection));
    altMask = metaMask = numLockMask = scrollLockMask = 0;
    auto modifiers = X11Setup::reply(
        xcb_get_modifier_mapping_reply(connection, xcb_get_modifier_mapping(connection), nullptr));
    if (!modifiers || !symbols) {
        return;
    }
    const xcb_keycode_t* codes = xcb_get_modifier_mapping_keycodes(modifiers.get());
    const int perModifier = modifiers->keycodes_per_modifier;
    const struct
    {
        xcb_keysym_t keysym;
        quint16* mask;
    } wanted[] = {{XK_Alt_L, &altMask},
                  {XK_Super_L, &metaMask},
                  {XK_Num_Lock, &numLockMask},
                  {XK_Scroll_Lock, &scrollLockMask}};
    // Shift, Lock and Control are fixed; Mod1 to Mod5 hold what the map puts there.
    for (int mod = 3; mod < 8; ++mod) {
        for (int k = 0; k < perModifier; ++k) {
            const xcb_keycode_t code = codes[mod * perModifier + k];
            for (int column = 0; code != 0 && column < 4; ++column) {
                const xcb_keysym_t keysym = xcb_key_symbols_get_keysym(symbols.get(), code, column);
                for (const auto& entry : wanted) {
                    if (keysym == entry.keysym && *entry.mask == 0) {
                        *entry.mask = quint16(1u << mod);
                    }
                }
            }
        }
    }
}

void QHotkeyPrivateX11::onKeymapChanged()
{
    const quint16 oldNumLock = numLockMask;
    const quint16 oldScrollLock = scrollLockMask;
    readKeymap();
    // Moved lock bits change every combination's variants.
    remapShortcuts(oldNumLock != numLockMask || oldScrollLock != scrollLockMask);
}

quint32 QHotkeyPrivateX11::toNativeKey(Qt::Key key, bool* ok)
{
    *ok = false;
    const quint32 keysym = X11KeySymbols::keysymOf(int(key));
    if (keysym == 0 || !symbols) {
        return 0;
    }
    xcb_keycode_t* codes = xcb_key_symbols_get_keycode(symbols.get(), keysym);
    quint32 code = 0;
    if (codes && codes[0] != XCB_NO_SYMBOL) {
        code = codes[0];
        *ok = true;
    }
    std::free(codes);
    return code;
}

quint32 QHotkeyPrivateX11::toNativeModifiers(Qt::KeyboardModifiers modifiers, bool* ok)
{
    quint32 mask = 0;
    *ok = true;
    if (modifiers & Qt::ShiftModifier) {
        mask |= XCB_MOD_MASK_SHIFT;
    }
    if (modifiers & Qt::ControlModifier) {
        mask |= XCB_MOD_MASK_CONTROL;
    }
    if (modifiers & Qt::AltModifier) {
        *ok = *ok && altMask != 0;
        mask |= altMask;
    }
    if (modifiers & Qt::MetaModifier) {
        *ok = *ok && metaMask != 0;
        mask |= metaMask;
    }
    return mask;
}

QVector<quint16> QHotkeyPrivateX11::lockVariants(quint16 modifier) const
{
    QVector<quint16> locks;
    for (quint16 mask : {quint16(XCB_MOD_MASK_LOCK), numLockMask, scrollLockMask}) {
        if (mask != 0 && !(modifier & mask) && !locks.contains(mask)) {
            locks.append(mask);
        }
    }
    QVector<quint16> variants;
    for (int subset = 0; subset < (1 << locks.size()); ++subset) {
        quint16 variant = modifier;
        for (int i = 0; i < locks.size(); ++i) {
            if (subset & (1 << i)) {
                variant |= locks[i];
            }
        }
        variants.append(variant);
    }
    return variants;
}

bool QHotkeyPrivateX11::registerNative(QHotkey::NativeShortcut nativeShortcut)
{
    if (nativeShortcut.key > 255 || nativeShortcut.modifier > 0xff) {
        error = QStringLiteral("no X key code %1 with modifiers %2")
                    .arg(nativeShortcut.key)
                    .arg(nativeShortcut.modifier);
        return false;
    }
    const auto key = xcb_keycode_t(nativeShortcut.key);
    const QVector<quint16> variants = lockVariants(quint16(nativeShortcut.modifier));
    QVector<xcb_void_cookie_t> cookies;
    for (quint16 variant : variants) {
        // Both modes asynchronous: the grab holds nobody's keyboard or pointer.
        cookies.append(xcb_grab_key_checked(connection, 0, root, variant, key, XCB_GRAB_MODE_ASYNC,
                                            XCB_GRAB_MODE_ASYNC));
    }
    QVector<quint16> taken;
    QString failure;
    for (int i = 0; i < cookies.size(); ++i) {
        if (xcb_generic_error_t* e = xcb_request_check(connection, cookies[i])) {
            if (failure.isEmpty()) {
                failure = errorName(e->error_code);
            }
            std::free(e);
        } else {
            taken.append(variants[i]);
        }
    }
    if (!failure.isEmpty()) {
        for (quint16 variant : taken) {
            xcb_ungrab_key(connection, key, root, variant);
        }
        xcb_flush(connection);
        error = failure;
        return false;
    }
    grabs.insert(nativeShortcut, variants);
    return true;
}

bool QHotkeyPrivateX11::unregisterNative(QHotkey::NativeShortcut nativeShortcut)
{
    const QVector<quint16> variants = grabs.contains(nativeShortcut)
                                          ? grabs.take(nativeShortcut)
                                          : lockVariants(quint16(nativeShortcut.modifier));
    QVector<xcb_void_cookie_t> cookies;
    for (quint16 variant : variants) {
        cookies.append(xcb_ungrab_key_checked(connection, xcb_keycode_t(nativeShortcut.key), root, variant));
    }
    QString failure;
    for (const xcb_void_cookie_t& cookie : cookies) {
        if (xcb_generic_error_t* e = xcb_request_check(connection, cookie)) {
            failure = errorName(e->error_code);
            std::free(e);
        }
    }
    if (!failure.isEmpty()) {
        error = failure;
        return false;
    }
    return true;
}

bool QHotkeyPrivateX11::nativeEventFilter(const QByteArray& eventType, void* message, long* result)
{
    Q_UNUSED(result)
    if (eventType != "xcb_generic_event_t") {
        return false;
    }
    const auto* event = static_cast<const xcb_generic_event_t*>(message);
    const uint8_t type = event->response_type & 0x7f;
    if (type == XCB_KEY_PRESS || type == XCB_KEY_RELEASE) {
        // A grab reports its keys on the root, whichever window has the focus.
        const auto* key = reinterpret_cast<const xcb_key_press_event_t*>(event);
        if (key->event == root && type == XCB_KEY_PRESS) {
            onKeyPress(key->detail, key->state, key->time);
        } else if (key->event == root) {
            onKeyRelease(key->detail, key->time);
        }
    } else if (type == XCB_MAPPING_NOTIFY) {
        if (reinterpret_cast<const xcb_mapping_notify_event_t*>(event)->request != XCB_MAPPING_POINTER) {
            keymapTimer.start();
        }
    } else if (xkbEventBase != 0 && type == xkbEventBase) {
        const uint8_t xkbType = reinterpret_cast<const xcb_xkb_map_notify_event_t*>(event)->xkbType;
        if (xkbType == XCB_XKB_NEW_KEYBOARD_NOTIFY || xkbType == XCB_XKB_MAP_NOTIFY) {
            keymapTimer.start();
        }
    }
    return false;
}

void QHotkeyPrivateX11::onKeyPress(quint32 keyCode, quint16 state, xcb_timestamp_t time)
{
    // The server's auto-repeat without XKB's detectable repeat: a release and a press at one time.
    if (held.pending && held.keyCode == keyCode && held.time == time) {
        held.pending = false;
        releaseTimer.stop();
        return;
    }
    deliverHeldRelease();
    if (down.contains(keyCode)) {
        return; // repeated while down
    }
    // The eight core modifier bits only (XKB puts the group above them), the locks left out.
    const quint16 modifiers = state & 0xff & ~(XCB_MOD_MASK_LOCK | numLockMask | scrollLockMask);
    const QHotkey::NativeShortcut pressed(keyCode, modifiers);
    if (!shortcuts.contains(pressed)) {
        return;
    }
    down.insert(keyCode, pressed);
    activateShortcut(pressed);
}

void QHotkeyPrivateX11::onKeyRelease(quint32 keyCode, xcb_timestamp_t time)
{
    // Only the main key releases: a modifier let go first is no key of a combination.
    if (!down.contains(keyCode)) {
        return;
    }
    deliverHeldRelease();
    held = HeldRelease{keyCode, time, true};
    releaseTimer.start();
}

void QHotkeyPrivateX11::deliverHeldRelease()
{
    if (!held.pending) {
        return;
    }
    held.pending = false;
    releaseTimer.stop();
    releaseShortcut(down.take(held.keyCode));
}
