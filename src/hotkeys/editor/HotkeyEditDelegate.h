#pragma once

#include <QItemDelegate>

// Edits the keys column with a HotkeyInputLine; the descriptions get no editor.
class HotkeyEditDelegate : public QItemDelegate
{
    Q_OBJECT
public:
    explicit HotkeyEditDelegate(QObject* parent = nullptr);

    QWidget* createEditor(QWidget* parent, const QStyleOptionViewItem& option,
                          const QModelIndex& index) const override;
};
