#include "ui/dialogs/ControllerConfigDialog.h"

#include "ui_ControllerConfigDialog.h"

#include <QEvent>
#include <QKeyEvent>
#include <QLabel>
#include <QMetaType>
#include <QSpinBox>

ControllerConfigDialog::ControllerConfigDialog(QWidget* parent)
    : BaseDialog(parent)
    , ui(new Ui::ControllerConfigDialog)
{
    // The header's close picture lives in the program's resources, which a static library only
    // links in when asked.
    Q_INIT_RESOURCE(ui);
    qRegisterMetaType<QVector<uint32_t>>("QVector<uint32_t>");
    ui->setupUi(this);
    ui->addBtn->setProperty("class", QStringLiteral("Button1"));
    ui->removeBtn->setProperty("class", QStringLiteral("Button1"));

    connect(ui->toolButton, &QToolButton::clicked, this, &QDialog::reject);
    connect(ui->addBtn, &QPushButton::clicked, this, &ControllerConfigDialog::addLine);
    connect(ui->removeBtn, &QPushButton::clicked, this, &ControllerConfigDialog::removeLine);
    connect(ui->pushButton, &QPushButton::clicked, this, &QDialog::accept);
    connect(ui->pushButton_2, &QPushButton::clicked, this, &QDialog::reject);
}

ControllerConfigDialog::~ControllerConfigDialog() = default;

void ControllerConfigDialog::addLine()
{
    const int n = rows.size();
    auto* label = new QLabel(tr("line %1").arg(n + 1), ui->scrollAreaWidgetContents);
    auto* spinBox = new QSpinBox(ui->scrollAreaWidgetContents);
    spinBox->setMinimum(0);
    spinBox->setMaximum(limit - total);
    spinBox->setValue(0);
    spinBox->installEventFilter(this);
    ui->linesLayout->addWidget(label, n, 0, Qt::AlignRight);
    ui->linesLayout->addWidget(spinBox, n, 1);
    connect(spinBox, QOverload<int>::of(&QSpinBox::valueChanged), this,
            [this, n](int value) { onValueChanged(n, value); });
    rows.append(Row{label, spinBox, n});
    lines.append(0);
    // A new row belongs in view and has the user's attention.
    ui->scrollArea->ensureWidgetVisible(spinBox);
    spinBox->setFocus();
}

void ControllerConfigDialog::onValueChanged(int index, int value)
{
    if (index >= lines.size()) {
        return;
    }
    total -= int(lines[index]);
    lines[index] = uint32_t(value);
    total += value;
    showTotal();
    updateMaxima();
    emit linesChanged(total, lines);
}

// Removal reaches the caller with the next value change or with accept, so nothing is emitted.
void ControllerConfigDialog::removeLine()
{
    if (rows.isEmpty()) {
        return;
    }
    const Row row = rows.takeLast();
    total -= int(lines.takeLast());
    showTotal();
    delete row.spinBox;
    delete row.label;
    updateMaxima();
}

void ControllerConfigDialog::setLimit(int maxTotal)
{
    limit = maxTotal;
    updateMaxima();
}

// Each box may take what the others leave of the limit, so the total never passes it.
void ControllerConfigDialog::updateMaxima()
{
    for (const Row& row : qAsConst(rows)) {
        const int own = int(lines[row.index]);
        row.spinBox->setMaximum(qMax(own, limit - (total - own)));
    }
}

bool ControllerConfigDialog::eventFilter(QObject* watched, QEvent* event)
{
    if (event->type() == QEvent::KeyPress) {
        const int key = static_cast<QKeyEvent*>(event)->key();
        for (int i = 0; (key == Qt::Key_Return || key == Qt::Key_Enter) && i < rows.size(); ++i) {
            if (rows[i].spinBox != watched) {
                continue;
            }
            rows[i].spinBox->interpretText();
            if (i + 1 < rows.size()) {
                rows[i + 1].spinBox->setFocus(Qt::TabFocusReason);
                rows[i + 1].spinBox->selectAll();
            }
            return true;
        }
    }
    return BaseDialog::eventFilter(watched, event);
}

void ControllerConfigDialog::showTotal()
{
    ui->totalLabel->setText(tr("总计 %1 个LED灯珠").arg(total));
}

void ControllerConfigDialog::changeEvent(QEvent* event)
{
    BaseDialog::changeEvent(event);
    if (event->type() != QEvent::LanguageChange) {
        return;
    }
    ui->retranslateUi(this);
    showTotal();
    for (const Row& row : qAsConst(rows)) {
        row.label->setText(tr("line %1").arg(row.index + 1));
    }
}
