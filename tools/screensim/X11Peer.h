#pragma once

#include <QHash>
#include <QObject>
#include <QPoint>
#include <QString>
#include <QVector>

#include <xcb/xcb.h>

struct _XDisplay;
class QSocketNotifier;

// Another program on the X display, on connections of its own: a window that holds the keyboard
// focus and counts the key presses that reach it; key presses and clicks through XTest, as a
// user makes them; grabs of a combination on the root, as a program that holds a hotkey; and key
// symbols moved to other key codes, as a keyboard layout change does. Main thread.
class X11Peer : public QObject
{
    Q_OBJECT
public:
    explicit X11Peer(QObject* parent = nullptr);
    ~X11Peer() override; // restores the key map it changed

    bool open(const QString& display);
    QString errorString() const { return error; }

    // Gives the peer's window the input focus; true once the server says it has it.
    bool takeFocus();
    bool hasFocus();

    // The first key code that carries the symbol now (0: none), and the modifier bit a symbol's key
    // sets (Alt_L gives Mod1's on most maps; 0: none).
    quint8 keyCode(quint32 keysym);
    quint16 modifierMask(quint32 keysym);

    // XTest input, each call synced with the server before it returns.
    void keyDown(quint8 code);
    void keyUp(quint8 code);
    // The keys down in order, then up in reverse: modifiers first, the key last.
    void tap(const QVector<quint32>& keysyms);
    void click(const QPoint& rootPosition);
    // Presses its key until the lock (Caps_Lock, Num_Lock) is as asked.
    void setLock(quint32 lockKeysym, bool on);

    // Key presses the window received for a key code, and all of them.
    int presses(quint8 code);
    int allPresses();
    void clearPresses();

    // Grabs or releases the combination on the root; the X error's name ("BadAccess"), or empty.
    QString grab(quint16 modifiers, quint32 keysym);
    void ungrab(quint16 modifiers, quint32 keysym);

    // Puts the symbol on `code` alone (the key of its first code keeps nothing); returns the code
    // that carried it, 0 if none did. A key code with no symbols, for that purpose.
    quint8 moveKeysym(quint32 keysym, quint8 code);
    quint8 freeKeyCode();
    void restoreKeymap();

private:
    void readEvents();
    QVector<xcb_keysym_t> keymapRow(quint8 code, int* perKeycode);
    void setKeymapRow(quint8 code, const QVector<xcb_keysym_t>& row);

    xcb_connection_t* connection = nullptr;
    _XDisplay* xlib = nullptr;
    xcb_window_t root = 0;
    xcb_window_t window = 0;
    QSocketNotifier* notifier = nullptr;
    QHash<quint8, int> pressCounts;
    // The rows as they were before the first change of each.
    QHash<quint8, QVector<xcb_keysym_t>> originalRows;
    QString error;
};
