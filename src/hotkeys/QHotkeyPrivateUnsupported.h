#pragma once

#include "hotkeys/QHotkeyPrivate.h"

// The engine where the platform has no global keys (Wayland, offscreen): combinations translate,
// so that the warnings name them, and every registration fails saying why.
class QHotkeyPrivateUnsupported : public QHotkeyPrivate
{
    Q_OBJECT
public:
    explicit QHotkeyPrivateUnsupported(const QString& platformName);

    bool nativeEventFilter(const QByteArray& eventType, void* message, long* result) override;
    QHotkey::Availability availability() const override { return QHotkey::Availability::None; }

protected:
    quint32 toNativeKey(Qt::Key key, bool* ok) override;
    quint32 toNativeModifiers(Qt::KeyboardModifiers modifiers, bool* ok) override;
    bool registerNative(QHotkey::NativeShortcut nativeShortcut) override;
    bool unregisterNative(QHotkey::NativeShortcut nativeShortcut) override;

private:
    QString reason;
};
