#pragma once

#include "hotkeys/QHotkeyPrivate.h"

#include <QHash>
#include <QTimer>
#include <QVector>

#include <xcb/xcb.h>
#include <xcb/xcb_keysyms.h>

#include <memory>

// The engine on an X11 display: grabs each combination on the root window over Qt's own
// connection (with its CapsLock, NumLock and ScrollLock variants) and reads the key events from
// Qt's native event filter, on the main thread. Follows the server's keyboard map as it changes.
class QHotkeyPrivateX11 : public QHotkeyPrivate
{
    Q_OBJECT
public:
    QHotkeyPrivateX11();
    ~QHotkeyPrivateX11() override;

    bool nativeEventFilter(const QByteArray& eventType, void* message, long* result) override;
    QHotkey::Availability availability() const override;

    // A held release waits this long for the press of an auto-repeat at the same server time.
    static constexpr int releaseHoldMs = 20;
    // The name of an X core error code ("BadAccess").
    static QString errorName(uint8_t code);

protected:
    quint32 toNativeKey(Qt::Key key, bool* ok) override;
    quint32 toNativeModifiers(Qt::KeyboardModifiers modifiers, bool* ok) override;
    bool registerNative(QHotkey::NativeShortcut nativeShortcut) override;
    bool unregisterNative(QHotkey::NativeShortcut nativeShortcut) override;

private:
    struct KeySymbolsDeleter
    {
        void operator()(xcb_key_symbols_t* symbols) const { xcb_key_symbols_free(symbols); }
    };
    struct HeldRelease
    {
        quint32 keyCode = 0;
        xcb_timestamp_t time = 0;
        bool pending = false;
    };

    // Key symbols and the Mod bits that hold Alt_L, Super_L, Num_Lock and Scroll_Lock.
    void readKeymap();
    void onKeymapChanged();
    void onKeyPress(quint32 keyCode, quint16 state, xcb_timestamp_t time);
    void onKeyRelease(quint32 keyCode, xcb_timestamp_t time);
    void deliverHeldRelease();
    // The modifier variants a combination is grabbed with: every mix of the lock masks.
    QVector<quint16> lockVariants(quint16 modifier) const;

    xcb_connection_t* connection = nullptr;
    xcb_window_t root = 0;
    uint8_t xkbEventBase = 0;
    bool xwayland = false;
    std::unique_ptr<xcb_key_symbols_t, KeySymbolsDeleter> symbols;
    quint16 altMask = 0;
    quint16 metaMask = 0;
    quint16 numLockMask = 0;
    quint16 scrollLockMask = 0;
    // The exact modifier masks each combination was grabbed with, so it is released in full
    // whatever the lock masks are now.
    QHash<QHotkey::NativeShortcut, QVector<quint16>> grabs;
    // Key codes down that activated a combination, with that combination.
    QHash<quint32, QHotkey::NativeShortcut> down;
    HeldRelease held;
    QTimer releaseTimer;
    QTimer keymapTimer;
};
