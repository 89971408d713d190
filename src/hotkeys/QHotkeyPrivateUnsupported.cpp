#include "hotkeys/QHotkeyPrivateUnsupported.h"

QHotkeyPrivateUnsupported::QHotkeyPrivateUnsupported(const QString& platformName)
    : reason(QStringLiteral("global hotkeys need an X11 session (platform: %1)").arg(platformName))
{
}

bool QHotkeyPrivateUnsupported::nativeEventFilter(const QByteArray& eventType, void* message, long* result)
{
    Q_UNUSED(eventType)
    Q_UNUSED(message)
    Q_UNUSED(result)
    return false;
}

quint32 QHotkeyPrivateUnsupported::toNativeKey(Qt::Key key, bool* ok)
{
    *ok = true;
    return quint32(key);
}

quint32 QHotkeyPrivateUnsupported::toNativeModifiers(Qt::KeyboardModifiers modifiers, bool* ok)
{
    *ok = true;
    return quint32(modifiers);
}

bool QHotkeyPrivateUnsupported::registerNative(QHotkey::NativeShortcut nativeShortcut)
{
    Q_UNUSED(nativeShortcut)
    error = reason;
    return false;
}

bool QHotkeyPrivateUnsupported::unregisterNative(QHotkey::NativeShortcut nativeShortcut)
{
    Q_UNUSED(nativeShortcut)
    error = reason;
    return false;
}
