// Key-combination texts as the editor and a hand-edited file give them, and the stored
// "hotkeyBinding" value: whatever the bytes, a text without a problem is one combination of a key
// that is no modifier, and a malformed entry yields the default keys.
#include "hotkeys/HotkeyBinding.h"

#include <QGuiApplication>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <cstdint>
#include <cstdlib>

namespace {

const char* const kIds[] = {"com_orvanta_hotkey_turnOffOn", "com_orvanta_hotkey_nextEffect",
                            "com_orvanta_hotkey_increaseBrightness"};
const QString kDefaultKeys = QStringLiteral("ctrl+alt+shift+F10");

void require(bool promise)
{
    if (!promise) {
        std::abort();
    }
}

void checkCombination(const HotkeyBinding::Parsed& parsed)
{
    if (!parsed.problem.isEmpty()) {
        return;
    }
    require(parsed.keys.count() == 1);
    const int key = parsed.keys[0] & ~int(Qt::KeyboardModifierMask);
    require(key != 0 && key != Qt::Key_unknown && key != Qt::Key_Control && key != Qt::Key_Shift &&
            key != Qt::Key_Alt && key != Qt::Key_Meta);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    qputenv("QT_QPA_PLATFORM", "offscreen");
    static QGuiApplication app(*argc, *argv); // the native key names need one
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray bytes(reinterpret_cast<const char*>(data), int(size));
    const QString text = QString::fromUtf8(bytes);
    checkCombination(HotkeyBinding::parseKeys(text, QKeySequence::PortableText));
    checkCombination(HotkeyBinding::parseKeys(text, QKeySequence::NativeText));

    const QKeySequence defaults = QKeySequence::fromString(kDefaultKeys, QKeySequence::PortableText);
    const QJsonDocument document = QJsonDocument::fromJson(bytes);
    const QJsonValue binding = document.isObject()  ? QJsonValue(document.object())
                               : document.isArray() ? QJsonValue(document.array())
                                                    : QJsonValue(text);
    for (const char* id : kIds) {
        const HotkeyBinding::Parsed stored =
            HotkeyBinding::storedKeys(binding, QLatin1String(id), kDefaultKeys);
        const QJsonValue entry = binding.toObject().value(QLatin1String(id));
        if (!binding.isObject() || !entry.isString() || entry.toString().trimmed().isEmpty()) {
            require(stored.keys == defaults);
        } else {
            checkCombination(stored);
        }
    }
    return 0;
}
