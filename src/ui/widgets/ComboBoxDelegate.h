#pragma once

#include <QGradient>
#include <QList>
#include <QStyledItemDelegate>

// Paints each row of a combo box as its gradient, with the row's text on top. The owner keeps
// the list in step with the rows.
class ComboBoxDelegate : public QStyledItemDelegate
{
    Q_OBJECT
public:
    explicit ComboBoxDelegate(QObject* parent = nullptr);

    void setGradients(const QList<QList<QGradientStop>>& list) { gradients = list; }
    void appendGradient(const QList<QGradientStop>& stops) { gradients.append(stops); }
    void removeGradient(int row);
    void replaceGradient(int row, const QList<QGradientStop>& stops);
    QList<QGradientStop> gradient(int row) const { return gradients.value(row); }
    int count() const { return gradients.size(); }

    void paint(QPainter* painter, const QStyleOptionViewItem& option,
               const QModelIndex& index) const override;

    // A gradient across rect from stops, with text on top: rows and the closed box alike.
    static void paintGradient(QPainter* painter, const QRect& rect, const QList<QGradientStop>& stops,
                              const QString& text);

private:
    QList<QList<QGradientStop>> gradients;
};
