#pragma once

#include "hotkeys/editor/HotkeyRow.h"

#include <QKeySequence>
#include <QList>
#include <QMap>
#include <QScopedPointer>
#include <QSet>
#include <QStandardItemModel>
#include <QString>
#include <QWidget>

#include <functional>

class HotkeyEditDelegate;
class QStandardItem;

namespace Ui {
class HotKeyEditWidget;
}

// The table of hotkey actions: keys in the first column, edited with HotkeyInputLine, the
// action's description in the second. A committed edit goes to the binding handler the caller
// gives; refused, the cell goes back to the old keys. It knows nothing of the hotkeys themselves.
class HotKeyEditWidget : public QWidget
{
    Q_OBJECT
public:
    // What the session lets global hotkeys do, as the caller reports it.
    enum class Session
    {
        Global,
        WhileX11Focused, // Xwayland: only while an X11 window has the focus
        None,            // no X11 session: the table is read-only
    };

    explicit HotKeyEditWidget(QWidget* parent = nullptr);
    ~HotKeyEditWidget() override;

    void setHotkeys(QList<HotkeyRow> rows);
    // Merged in: an existing id takes the new text.
    void setDescriptions(QMap<QString, QString> descriptions);
    void setBindingHandler(std::function<bool(QKeySequence, QString)> handler);
    // The actions (by id) whose keys have no live hotkey, marked as held by another program, and
    // the session, which may make the table read-only under a note.
    void setHotkeyState(const QSet<QString>& notLive, Session session);

signals:
    // Declared and never emitted: a binding goes through the handler.
    void hotKeyBindingChanged(QKeySequence keySequence, QString action);

protected:
    void changeEvent(QEvent* event) override;

private slots:
    void onAddBtnClicked();
    void onRmBtnClicked();
    void onTableItemChanged(QStandardItem* item);

private:
    void fillTable();
    void showState();

    QScopedPointer<Ui::HotKeyEditWidget> ui;
    HotkeyEditDelegate* delegate;
    QStandardItemModel model;
    QList<HotkeyRow> rows;
    QMap<QString, QString> descriptions;
    std::function<bool(QKeySequence, QString)> bindingHandler;
    QSet<QString> notLive;
    Session session = Session::Global;
};
