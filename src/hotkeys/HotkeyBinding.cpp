#include "hotkeys/HotkeyBinding.h"

#include <QJsonObject>

namespace HotkeyBinding {

Parsed parseKeys(const QString& text, QKeySequence::SequenceFormat format)
{
    Parsed parsed{QKeySequence::fromString(text, format), QString()};
    const int first = parsed.keys.isEmpty() ? 0 : parsed.keys[0];
    const int key = first & ~int(Qt::KeyboardModifierMask);
    if (parsed.keys.isEmpty()) {
        parsed.problem = QStringLiteral("no keys");
    } else if (key == Qt::Key_unknown || key == 0) {
        parsed.problem = QStringLiteral("\"%1\" names no key").arg(text);
    } else if (parsed.keys.count() > 1) {
        parsed.problem = QStringLiteral("\"%1\" is more than one combination").arg(text);
    } else if (key == Qt::Key_Control || key == Qt::Key_Shift || key == Qt::Key_Alt || key == Qt::Key_Meta) {
        parsed.problem = QStringLiteral("\"%1\" is a modifier alone").arg(text);
    }
    return parsed;
}

Parsed storedKeys(const QJsonValue& binding, const QString& id, const QString& defaultKeys)
{
    const QKeySequence defaults = QKeySequence::fromString(defaultKeys, QKeySequence::PortableText);
    if (binding.isUndefined() || binding.isNull()) {
        return {defaults, QString()};
    }
    if (!binding.isObject()) {
        return {defaults, QStringLiteral("\"hotkeyBinding\" is no object")};
    }
    const QJsonValue entry = binding.toObject().value(id);
    if (entry.isUndefined()) {
        return {defaults, QString()};
    }
    if (!entry.isString()) {
        return {defaults, QStringLiteral("the keys of %1 are no text").arg(id)};
    }
    if (entry.toString().trimmed().isEmpty()) {
        return {defaults, QStringLiteral("the keys of %1 are empty").arg(id)};
    }
    Parsed parsed = parseKeys(entry.toString(), QKeySequence::PortableText);
    if (!parsed.problem.isEmpty()) {
        parsed.problem = QStringLiteral("the keys of %1: %2").arg(id, parsed.problem);
    }
    return parsed;
}

} // namespace HotkeyBinding
