#include "hotkeys/editor/HotkeyEditDelegate.h"

#include "hotkeys/editor/HotkeyInputLine.h"

HotkeyEditDelegate::HotkeyEditDelegate(QObject* parent)
    : QItemDelegate(parent)
{
}

QWidget* HotkeyEditDelegate::createEditor(QWidget* parent, const QStyleOptionViewItem& option,
                                          const QModelIndex& index) const
{
    Q_UNUSED(option)
    if (index.column() != 0) {
        return nullptr;
    }
    auto* line = new HotkeyInputLine(parent);
    line->setText(index.data(Qt::DisplayRole).toString());
    return line;
}
