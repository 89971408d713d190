#pragma once

#include "hotkeys/HotKeyCombine.h"

#include <QKeySequence>
#include <QMap>
#include <QObject>
#include <QString>

// Maps action ids to live global hotkeys and reports their presses by id. Main thread.
class HotKeyManager : public QObject
{
    Q_OBJECT
public:
    explicit HotKeyManager(QObject* parent = nullptr);
    ~HotKeyManager() override;

    // Binds `keys` to `id`; the new keys are registered before the old ones go, so a failure
    // leaves the old binding live.
    bool setHotKey(const QString& id, const QKeySequence& keys);
    // The bound keys; empty for an unknown id.
    QKeySequence hotKey(const QString& id) const;
    // Whether the keys can be registered now: they map to a key, no action of this program holds
    // them, and no other program does (the combination is taken and released to find out).
    bool isAvailable(const QKeySequence& keys) const;
    // The id has a hotkey that is registered now.
    bool isLive(const QString& id) const;
    QHotkey::Availability availability() const { return QHotkey::availability(); }

signals:
    void hotkeyActived(QString id);

public slots:
    void onActivated(const QString& id);

private:
    QMap<QString, HotKeyCombine> combines;
};
