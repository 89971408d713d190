#include "ui/widgets/ComboBoxDelegate.h"

#include <QLinearGradient>
#include <QPainter>

ComboBoxDelegate::ComboBoxDelegate(QObject* parent)
    : QStyledItemDelegate(parent)
{
}

void ComboBoxDelegate::removeGradient(int row)
{
    if (row >= 0 && row < gradients.size()) {
        gradients.removeAt(row);
    }
}

void ComboBoxDelegate::replaceGradient(int row, const QList<QGradientStop>& stops)
{
    if (row >= 0 && row < gradients.size()) {
        gradients[row] = stops;
    }
}

void ComboBoxDelegate::paintGradient(QPainter* painter, const QRect& rect, const QList<QGradientStop>& stops,
                                     const QString& text)
{
    painter->save();
    QLinearGradient linear(rect.topLeft(), rect.topRight());
    linear.setStops(stops.toVector());
    painter->fillRect(rect, linear);
    // A dark halo keeps the name readable on light gradients.
    const QRect textRect = rect.adjusted(8, 0, -8, 0);
    painter->setPen(QColor(0, 0, 0, 150));
    for (const QPoint& shift : {QPoint(1, 1), QPoint(-1, 1), QPoint(1, -1), QPoint(-1, -1)}) {
        painter->drawText(textRect.translated(shift), Qt::AlignVCenter | Qt::AlignLeft, text);
    }
    painter->setPen(Qt::white);
    painter->drawText(textRect, Qt::AlignVCenter | Qt::AlignLeft, text);
    painter->restore();
}

void ComboBoxDelegate::paint(QPainter* painter, const QStyleOptionViewItem& option,
                             const QModelIndex& index) const
{
    if (index.row() >= gradients.size() || gradients.at(index.row()).isEmpty()) {
        QStyledItemDelegate::paint(painter, option, index);
        return;
    }
    const QRect rect = option.rect.adjusted(1, 1, -1, -1);
    paintGradient(painter, rect, gradients.at(index.row()), index.data().toString());
    if (option.state & QStyle::State_Selected) {
        painter->save();
        painter->setPen(QPen(QColor(247, 175, 55), 2));
        painter->drawRect(rect.adjusted(1, 1, -1, -1));
        painter->restore();
    }
}
