#include "hotkeys/QHotkeyPrivate.h"

#include <QAbstractEventDispatcher>
#include <QCoreApplication>
#include <QMetaMethod>
#include <QMutex>
#include <QPointer>
#include <QSet>
#include <QThread>

QHotkeyPrivate::QHotkeyPrivate()
{
    qRegisterMetaType<QHotkey::NativeShortcut>("QHotkey::NativeShortcut");
    if (QAbstractEventDispatcher* dispatcher = QAbstractEventDispatcher::instance()) {
        dispatcher->installNativeEventFilter(this);
    }
}

QHotkeyPrivate::~QHotkeyPrivate()
{
    if (!shortcuts.isEmpty()) {
        qCWarning(logQHotkey) << "QHotkeyPrivate destroyed with registered shortcuts!";
    }
    if (QCoreApplication::instance()) {
        if (QAbstractEventDispatcher* dispatcher = QAbstractEventDispatcher::instance()) {
            dispatcher->removeNativeEventFilter(this);
        }
    }
}

QHotkeyPrivate* QHotkeyPrivate::instance()
{
    static QMutex mutex;
    static QPointer<QHotkeyPrivate> engine;
    static bool made = false;
    QMutexLocker locker(&mutex);
    QCoreApplication* app = QCoreApplication::instance();
    if (made || !app) {
        return engine;
    }
    made = true;
    // Made on the main thread, so that its filter sees the main thread's events.
    const auto make = [] {
        QHotkeyPrivate* made = createEngine().release();
        made->setParent(QCoreApplication::instance());
        return made;
    };
    if (app->thread() == QThread::currentThread()) {
        engine = make();
    } else {
        QHotkeyPrivate* made = nullptr;
        QMetaObject::invokeMethod(
            app, [&] { made = make(); }, Qt::BlockingQueuedConnection);
        engine = made;
    }
    return engine;
}

void QHotkeyPrivate::addMapping(Qt::Key key, Qt::KeyboardModifiers modifiers,
                                QHotkey::NativeShortcut nativeShortcut)
{
    const Qt::ConnectionType connection =
        thread() == QThread::currentThread() ? Qt::DirectConnection : Qt::BlockingQueuedConnection;
    QMetaObject::invokeMethod(
        this, [&] { addMappingInvoked(key, modifiers, nativeShortcut); }, connection);
}

QHotkey::NativeShortcut QHotkeyPrivate::nativeShortcut(Qt::Key key, Qt::KeyboardModifiers modifiers)
{
    QHotkey::NativeShortcut result;
    const Qt::ConnectionType connection =
        thread() == QThread::currentThread() ? Qt::DirectConnection : Qt::BlockingQueuedConnection;
    QMetaObject::invokeMethod(
        this, [&] { result = nativeShortcutInvoked(key, modifiers); }, connection);
    return result;
}

void QHotkeyPrivate::addMappingInvoked(Qt::Key key, Qt::KeyboardModifiers modifiers,
                                       QHotkey::NativeShortcut nativeShortcut)
{
    mapping.insert({int(key), int(modifiers)}, nativeShortcut);
}

QHotkey::NativeShortcut QHotkeyPrivate::nativeShortcutInvoked(Qt::Key key, Qt::KeyboardModifiers modifiers)
{
    const auto forced = mapping.constFind({int(key), int(modifiers)});
    if (forced != mapping.constEnd()) {
        return *forced;
    }
    bool keyOk = false;
    bool modifiersOk = false;
    const quint32 nativeKey = toNativeKey(key, &keyOk);
    const quint32 nativeModifiers = toNativeModifiers(modifiers, &modifiersOk);
    if (keyOk && modifiersOk) {
        return QHotkey::NativeShortcut(nativeKey, nativeModifiers);
    }
    return QHotkey::NativeShortcut();
}

bool QHotkeyPrivate::addShortcutInvoked(QHotkey* hotkey)
{
    const QHotkey::NativeShortcut native = hotkey->nativeShortcut;
    if (!shortcuts.contains(native) && !registerNative(native)) {
        qCWarning(logQHotkey).noquote()
            << QStringLiteral("Failed to register %1. Error: %2").arg(keyText(hotkey), error);
        return false;
    }
    shortcuts.insert(native, hotkey);
    hotkey->registered = true;
    return true;
}

bool QHotkeyPrivate::removeShortcutInvoked(QHotkey* hotkey)
{
    const QHotkey::NativeShortcut native = hotkey->nativeShortcut;
    if (!shortcuts.remove(native, hotkey)) {
        return false;
    }
    hotkey->registered = false;
    // Kept as it has always been: the registration's signal fires once more, with true, before the
    // caller's false.
    emit hotkey->registeredChanged(true);
    if (shortcuts.contains(native)) {
        return true;
    }
    if (!unregisterNative(native)) {
        qCWarning(logQHotkey).noquote()
            << QStringLiteral("Failed to unregister %1. Error: %2").arg(keyText(hotkey), error);
        return false;
    }
    return true;
}

void QHotkeyPrivate::activateShortcut(QHotkey::NativeShortcut nativeShortcut)
{
    const QMetaMethod signal = QMetaMethod::fromSignal(&QHotkey::activated);
    const QList<QHotkey*> hotkeys = shortcuts.values(nativeShortcut);
    for (QHotkey* hotkey : hotkeys) {
        signal.invoke(hotkey, Qt::QueuedConnection);
    }
}

void QHotkeyPrivate::releaseShortcut(QHotkey::NativeShortcut nativeShortcut)
{
    const QMetaMethod signal = QMetaMethod::fromSignal(&QHotkey::released);
    const QList<QHotkey*> hotkeys = shortcuts.values(nativeShortcut);
    for (QHotkey* hotkey : hotkeys) {
        signal.invoke(hotkey, Qt::QueuedConnection);
    }
}

void QHotkeyPrivate::remapShortcuts(bool all)
{
    const QList<QHotkey::NativeShortcut> natives = shortcuts.uniqueKeys();
    for (const QHotkey::NativeShortcut& old : natives) {
        QHash<QHotkey::NativeShortcut, QList<QHotkey*>> targets;
        for (QHotkey* hotkey : shortcuts.values(old)) {
            const bool byQtKey = hotkey->keyCode != Qt::Key_unknown;
            targets[byQtKey ? nativeShortcutInvoked(hotkey->keyCode, hotkey->modifiers) : old].append(hotkey);
        }
        if (!all && targets.size() == 1 && targets.contains(old)) {
            continue;
        }
        shortcuts.remove(old);
        if (!unregisterNative(old)) {
            qCWarning(logQHotkey).noquote()
                << "Keyboard map changed: releasing key code" << old.key << "failed:" << error;
        }
        for (auto it = targets.begin(); it != targets.end(); ++it) {
            const QHotkey::NativeShortcut target = it.key();
            if (!target.valid) {
                for (QHotkey* hotkey : it.value()) {
                    loseShortcut(hotkey, target, QStringLiteral("it no longer maps to a key"));
                }
                continue;
            }
            if (!shortcuts.contains(target) && !registerNative(target)) {
                for (QHotkey* hotkey : it.value()) {
                    loseShortcut(hotkey, target, error);
                }
                continue;
            }
            for (QHotkey* hotkey : it.value()) {
                hotkey->nativeShortcut = target;
                shortcuts.insert(target, hotkey);
                if (target != old) {
                    qCInfo(logQHotkey).noquote()
                        << QStringLiteral("Keyboard map changed: %1 moved from key code %2 to %3")
                               .arg(keyText(hotkey))
                               .arg(old.key)
                               .arg(target.key);
                }
            }
        }
    }
}

void QHotkeyPrivate::loseShortcut(QHotkey* hotkey, QHotkey::NativeShortcut nativeShortcut, const QString& why)
{
    qCWarning(logQHotkey).noquote()
        << QStringLiteral("Keyboard map changed: %1 is no longer registered: %2").arg(keyText(hotkey), why);
    hotkey->nativeShortcut = nativeShortcut;
    hotkey->registered = false;
    QMetaObject::invokeMethod(
        hotkey, [hotkey] { emit hotkey->registeredChanged(false); }, Qt::QueuedConnection);
}

QString QHotkeyPrivate::keyText(const QHotkey* hotkey)
{
    if (hotkey->keyCode != Qt::Key_unknown) {
        return hotkey->shortcut().toString(QKeySequence::PortableText);
    }
    return QStringLiteral("native key %1 with modifiers %2")
        .arg(hotkey->nativeShortcut.key)
        .arg(hotkey->nativeShortcut.modifier);
}
