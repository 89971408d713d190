#include "hotkeys/QHotkey.h"

#include "hotkeys/QHotkeyPrivate.h"

#include <QThread>

Q_LOGGING_CATEGORY(logQHotkey, "QHotkey")

QHotkey::QHotkey(QObject* parent)
    : QObject(parent)
{
}

QHotkey::QHotkey(const QKeySequence& shortcut, bool autoRegister, QObject* parent)
    : QHotkey(parent)
{
    setShortcut(shortcut, autoRegister);
}

QHotkey::QHotkey(Qt::Key key, Qt::KeyboardModifiers modifiers, bool autoRegister, QObject* parent)
    : QHotkey(parent)
{
    setShortcut(key, modifiers, autoRegister);
}

QHotkey::QHotkey(NativeShortcut shortcut, bool autoRegister, QObject* parent)
    : QHotkey(parent)
{
    setNativeShortcut(shortcut, autoRegister);
}

QHotkey::~QHotkey()
{
    if (registered) {
        unregisterNow();
    }
}

QKeySequence QHotkey::shortcut() const
{
    if (keyCode == Qt::Key_unknown) {
        return QKeySequence();
    }
    return QKeySequence(int(keyCode) | int(modifiers));
}

QHotkey::Availability QHotkey::availability()
{
    QHotkeyPrivate* engine = QHotkeyPrivate::instance();
    return engine ? engine->availability() : Availability::None;
}

bool QHotkey::setRegistered(bool on)
{
    if (on && !registered && nativeShortcut.valid) {
        return registerNow();
    }
    if (!on && registered) {
        return unregisterNow();
    }
    return false;
}

bool QHotkey::setShortcut(const QKeySequence& shortcut, bool autoRegister)
{
    if (shortcut.isEmpty()) {
        return resetShortcut();
    }
    if (shortcut.count() > 1) {
        qCWarning(logQHotkey, "Keysequences with multiple shortcuts are not allowed! "
                              "Only the first shortcut will be used!");
    }
    const int combination = shortcut[0];
    return setShortcut(Qt::Key(combination & ~int(Qt::KeyboardModifierMask)),
                       Qt::KeyboardModifiers(combination & int(Qt::KeyboardModifierMask)), autoRegister);
}

bool QHotkey::setShortcut(Qt::Key key, Qt::KeyboardModifiers newModifiers, bool autoRegister)
{
    if (!prepareChange(autoRegister)) {
        return false;
    }
    if (key == Qt::Key_unknown) {
        keyCode = Qt::Key_unknown;
        modifiers = Qt::NoModifier;
        nativeShortcut = NativeShortcut();
        return true;
    }
    keyCode = key;
    modifiers = newModifiers;
    QHotkeyPrivate* engine = QHotkeyPrivate::instance();
    nativeShortcut = engine ? engine->nativeShortcut(key, newModifiers) : NativeShortcut();
    if (!nativeShortcut.valid) {
        qCWarning(logQHotkey) << "Unable to map shortcut to native keys. Key:" << key
                              << "Modifiers:" << newModifiers;
        keyCode = Qt::Key_unknown;
        modifiers = Qt::NoModifier;
        nativeShortcut = NativeShortcut();
        return false;
    }
    return autoRegister ? registerNow() : true;
}

bool QHotkey::resetShortcut()
{
    if (registered && !unregisterNow()) {
        return false;
    }
    keyCode = Qt::Key_unknown;
    modifiers = Qt::NoModifier;
    nativeShortcut = NativeShortcut();
    return true;
}

bool QHotkey::setNativeShortcut(NativeShortcut shortcut, bool autoRegister)
{
    if (!prepareChange(autoRegister)) {
        return false;
    }
    keyCode = Qt::Key_unknown;
    modifiers = Qt::NoModifier;
    if (!shortcut.valid) {
        nativeShortcut = NativeShortcut();
        return true;
    }
    nativeShortcut = shortcut;
    return autoRegister ? registerNow() : true;
}

bool QHotkey::prepareChange(bool autoRegister)
{
    if (!registered) {
        return true;
    }
    return autoRegister && unregisterNow();
}

bool QHotkey::registerNow()
{
    QHotkeyPrivate* engine = QHotkeyPrivate::instance();
    if (registered || !engine) {
        return false;
    }
    bool ok = false;
    const Qt::ConnectionType connection =
        engine->thread() == QThread::currentThread() ? Qt::DirectConnection : Qt::BlockingQueuedConnection;
    QMetaObject::invokeMethod(
        engine, [&] { ok = engine->addShortcutInvoked(this); }, connection);
    if (ok) {
        emit registeredChanged(true);
    }
    return ok;
}

bool QHotkey::unregisterNow()
{
    QHotkeyPrivate* engine = QHotkeyPrivate::instance();
    if (!registered) {
        return false;
    }
    if (!engine) { // gone at exit: its grabs went with its connection
        registered = false;
        return true;
    }
    bool ok = false;
    const Qt::ConnectionType connection =
        engine->thread() == QThread::currentThread() ? Qt::DirectConnection : Qt::BlockingQueuedConnection;
    QMetaObject::invokeMethod(
        engine, [&] { ok = engine->removeShortcutInvoked(this); }, connection);
    if (ok) {
        emit registeredChanged(false);
    }
    return ok;
}

uint qHash(QHotkey::NativeShortcut key, uint seed)
{
    return qHash(quint64(key.key) << 32 | key.modifier, seed) ^ uint(key.valid);
}
