#include "hotkeys/editor/HotKeyEditWidget.h"

#include "hotkeys/editor/HotkeyEditDelegate.h"
#include "ui_HotKeyEditWidget.h"

#include <QCoreApplication>
#include <QEvent>
#include <QHeaderView>
#include <QSignalBlocker>

namespace {

const QColor kHeldColor(231, 150, 26);

QString translatedDescription(const QString& description)
{
    return QCoreApplication::translate("HotkeyDescription", description.toUtf8().constData());
}

} // namespace

HotKeyEditWidget::HotKeyEditWidget(QWidget* parent)
    : QWidget(parent)
    , ui(new Ui::HotKeyEditWidget)
    , delegate(new HotkeyEditDelegate(this))
{
    ui->setupUi(this);
    connect(&model, &QStandardItemModel::itemChanged, this, &HotKeyEditWidget::onTableItemChanged);
    model.setColumnCount(2);
    ui->tableView->setModel(&model);
    ui->tableView->setSelectionBehavior(QAbstractItemView::SelectRows);
    ui->tableView->setSelectionMode(QAbstractItemView::SingleSelection);
    ui->tableView->setItemDelegate(delegate);
    ui->tableView->horizontalHeader()->hide();
    ui->tableView->verticalHeader()->hide();
    ui->tableView->horizontalHeader()->setSectionResizeMode(QHeaderView::Stretch);
}

HotKeyEditWidget::~HotKeyEditWidget() = default;

void HotKeyEditWidget::setHotkeys(QList<HotkeyRow> newRows)
{
    rows = newRows;
    fillTable();
}

void HotKeyEditWidget::setDescriptions(QMap<QString, QString> newDescriptions)
{
    for (auto it = newDescriptions.cbegin(); it != newDescriptions.cend(); ++it) {
        descriptions.insert(it.key(), it.value());
    }
    showState();
}

void HotKeyEditWidget::setBindingHandler(std::function<bool(QKeySequence, QString)> handler)
{
    bindingHandler = handler;
}

void HotKeyEditWidget::setHotkeyState(const QSet<QString>& ids, Session newSession)
{
    notLive = ids;
    session = newSession;
    showState();
}

void HotKeyEditWidget::fillTable()
{
    {
        const QSignalBlocker blocker(&model);
        model.clear();
        model.setColumnCount(2);
        model.setRowCount(rows.size());
        for (int i = 0; i < rows.size(); ++i) {
            model.setItem(i, 0, new QStandardItem(rows[i].keys.toString(QKeySequence::PortableText)));
            model.setItem(i, 1, new QStandardItem(translatedDescription(rows[i].description)));
        }
    }
    showState();
}

void HotKeyEditWidget::showState()
{
    QSet<QString> held;
    for (const QString& id : qAsConst(notLive)) {
        held.insert(descriptions.value(id));
    }
    {
        const QSignalBlocker blocker(&model);
        for (int i = 0; i < rows.size(); ++i) {
            QStandardItem* keys = model.item(i, 0);
            const bool isHeld = held.contains(rows[i].description);
            keys->setData(isHeld ? QVariant(kHeldColor) : QVariant(), Qt::ForegroundRole);
            keys->setToolTip(isHeld ? tr("此组合键已被其他程序占用") : QString());
        }
    }
    // The view repaints only for the model's signals, which the blocker held back.
    ui->tableView->viewport()->update();
    ui->noteLabel->setVisible(session != Session::Global);
    if (session == Session::None) {
        ui->noteLabel->setText(tr("此会话中全局快捷键不可用（需要 X11 会话）。"));
    } else if (session == Session::WhileX11Focused) {
        ui->noteLabel->setText(tr("全局快捷键仅在 X11 窗口获得焦点时生效。"));
    }
    ui->tableView->setEditTriggers(session == Session::None ? QAbstractItemView::NoEditTriggers
                                                            : QAbstractItemView::DoubleClicked |
                                                                  QAbstractItemView::EditKeyPressed |
                                                                  QAbstractItemView::AnyKeyPressed);
}

void HotKeyEditWidget::onAddBtnClicked() {}

void HotKeyEditWidget::onRmBtnClicked() {}

void HotKeyEditWidget::onTableItemChanged(QStandardItem* item)
{
    if (item->column() != 0) {
        return;
    }
    const int row = item->row();
    const QStandardItem* description = model.item(row, 1);
    const QString shown = description ? description->text() : QString();
    QString id;
    for (auto it = descriptions.cbegin(); it != descriptions.cend(); ++it) {
        if (translatedDescription(it.value()) == shown) {
            id = it.key();
            break;
        }
    }
    const QKeySequence keys(item->text(), QKeySequence::NativeText);
    const bool bound = bindingHandler ? bindingHandler(keys, id) : false;
    if (bound && row < rows.size()) {
        rows[row].keys = keys;
        notLive.remove(id);
        showState();
        return;
    }
    const QSignalBlocker blocker(&model);
    item->setText(row < rows.size() ? rows[row].keys.toString(QKeySequence::PortableText) : QString());
}

void HotKeyEditWidget::changeEvent(QEvent* event)
{
    if (event->type() == QEvent::LanguageChange) {
        ui->retranslateUi(this);
        showState();
    }
    {
        const QSignalBlocker blocker(&model);
        for (int i = 0; i < rows.size(); ++i) {
            if (QStandardItem* description = model.item(i, 1)) {
                description->setText(translatedDescription(rows[i].description));
            }
        }
    }
    QWidget::changeEvent(event);
}
