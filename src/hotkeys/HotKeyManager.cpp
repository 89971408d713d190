#include "hotkeys/HotKeyManager.h"

#include "hotkeys/QHotkeyPrivate.h"

#include <QtDebug>

// The log texts of this class are fixed under the name "HotkeyManager".
constexpr char kTag[] = "[HotkeyManager]:";

HotKeyManager::HotKeyManager(QObject* parent)
    : QObject(parent)
{
    qRegisterMetaType<HotKeyCombine>("HotKeyCombine");
}

HotKeyManager::~HotKeyManager() = default;

bool HotKeyManager::setHotKey(const QString& id, const QKeySequence& keys)
{
    const auto existing = combines.constFind(id);
    if (existing != combines.constEnd()) {
        if (existing->keys == keys) {
            return true;
        }
        qInfo().noquote() << kTag
                          << "The hotkey action has been added, this will cause the action to be changed"
                          << id;
    }
    auto hotkey = std::make_shared<QHotkey>();
    hotkey->setShortcut(keys, true);
    if (!hotkey->isRegistered()) {
        qWarning().noquote() << kTag << "The hotkey combine has been registered" << id;
        return false;
    }
    combines.remove(id);
    connect(hotkey.get(), &QHotkey::activated, this, [this, id] { onActivated(id); });
    combines.insert(id, HotKeyCombine{keys, QString(), hotkey});
    return true;
}

QKeySequence HotKeyManager::hotKey(const QString& id) const
{
    return combines.value(id).keys;
}

bool HotKeyManager::isAvailable(const QKeySequence& keys) const
{
    QHotkey probe;
    if (!probe.setShortcut(keys, false)) {
        return false;
    }
    // Shared registrations are for direct use; an action's keys are its own.
    QHotkeyPrivate* engine = QHotkeyPrivate::instance();
    if (!probe.currentNativeShortcut().valid || (engine && engine->isInUse(probe.currentNativeShortcut()))) {
        return false;
    }
    return probe.setRegistered(true);
}

bool HotKeyManager::isLive(const QString& id) const
{
    const auto combine = combines.constFind(id);
    return combine != combines.constEnd() && combine->hotkey && combine->hotkey->isRegistered();
}

void HotKeyManager::onActivated(const QString& id)
{
    const auto combine = combines.constFind(id);
    if (combine == combines.constEnd()) {
        qWarning().noquote() << kTag << "Not such hotKey combination";
        return;
    }
    const QKeySequence keys = combine->keys; // the handler may rebind
    emit hotkeyActived(id);
    qInfo().noquote() << kTag << "The hotkey combine has been actived"
                      << keys.toString(QKeySequence::PortableText);
}
