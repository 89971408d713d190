#pragma once

#include <QJsonValue>
#include <QKeySequence>
#include <QString>

// Key combinations read from text: a binding's keys, and those stored per action in the global
// value "hotkeyBinding" (an object of action id to PortableText). Pure: no engine, no store.
namespace HotkeyBinding {

struct Parsed
{
    QKeySequence keys;
    QString problem; // empty when the keys are one usable combination
};

// Keys parsed as QKeySequence does; `problem` says when they are no single combination of a key
// and modifiers.
Parsed parseKeys(const QString& text, QKeySequence::SequenceFormat format);
// The keys stored for `id`. Absent, empty or not a text: the default keys, and a problem for what
// is malformed. A text that parses to no usable combination keeps what it parsed to, so that
// registering it fails as any unusable binding does.
Parsed storedKeys(const QJsonValue& binding, const QString& id, const QString& defaultKeys);

} // namespace HotkeyBinding
