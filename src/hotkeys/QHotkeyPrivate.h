#pragma once

#include "hotkeys/QHotkey.h"

#include <QAbstractNativeEventFilter>
#include <QHash>
#include <QMultiHash>
#include <QObject>
#include <QPair>
#include <QString>

#include <memory>

// The engine all QHotkey objects share, one per process on the main thread: it counts the
// hotkeys on each native combination, registers a combination with the platform once, and turns
// the platform's key events back into the hotkeys' signals. A subclass per platform supplies the
// four native operations and the event filter.
class QHotkeyPrivate : public QObject, public QAbstractNativeEventFilter
{
    Q_OBJECT
public:
    ~QHotkeyPrivate() override;

    // Made on first use, parented to the application; null once it is gone at exit.
    static QHotkeyPrivate* instance();

    // A forced translation wins over the platform's.
    void addMapping(Qt::Key key, Qt::KeyboardModifiers modifiers, QHotkey::NativeShortcut nativeShortcut);
    QHotkey::NativeShortcut nativeShortcut(Qt::Key key, Qt::KeyboardModifiers modifiers);
    // Whether some hotkey of this process holds the combination.
    bool isInUse(QHotkey::NativeShortcut nativeShortcut) const { return shortcuts.contains(nativeShortcut); }
    virtual QHotkey::Availability availability() const { return QHotkey::Availability::Global; }

    // The bodies of the operations any thread may call; QHotkey marshals them here.
    Q_INVOKABLE void addMappingInvoked(Qt::Key key, Qt::KeyboardModifiers modifiers,
                                       QHotkey::NativeShortcut nativeShortcut);
    Q_INVOKABLE bool addShortcutInvoked(QHotkey* hotkey);
    Q_INVOKABLE bool removeShortcutInvoked(QHotkey* hotkey);
    Q_INVOKABLE QHotkey::NativeShortcut nativeShortcutInvoked(Qt::Key key, Qt::KeyboardModifiers modifiers);

protected:
    QHotkeyPrivate();

    virtual quint32 toNativeKey(Qt::Key key, bool* ok) = 0;
    virtual quint32 toNativeModifiers(Qt::KeyboardModifiers modifiers, bool* ok) = 0;
    // On failure `error` says why.
    virtual bool registerNative(QHotkey::NativeShortcut nativeShortcut) = 0;
    virtual bool unregisterNative(QHotkey::NativeShortcut nativeShortcut) = 0;

    // Queued to every hotkey on the combination, so a handler may change or delete its hotkey.
    void activateShortcut(QHotkey::NativeShortcut nativeShortcut);
    void releaseShortcut(QHotkey::NativeShortcut nativeShortcut);
    // After the platform's key map changed: every hotkey set by Qt key gets its native form anew,
    // and a combination whose form changed (every one with `all`) moves its registration. A
    // hotkey that no longer maps or registers is logged and left set but unregistered.
    void remapShortcuts(bool all);

    QString error;
    QMultiHash<QHotkey::NativeShortcut, QHotkey*> shortcuts;
    QHash<QPair<int, int>, QHotkey::NativeShortcut> mapping;

private:
    // The platform's engine: X11 on "xcb", otherwise one whose registrations all fail.
    static std::unique_ptr<QHotkeyPrivate> createEngine();
    static QString keyText(const QHotkey* hotkey);
    void loseShortcut(QHotkey* hotkey, QHotkey::NativeShortcut nativeShortcut, const QString& why);
};
