#include "ui/widgets/GradientImgComboBox.h"

#include "ui/widgets/ComboBoxDelegate.h"

#include <QStyleOptionComboBox>
#include <QStylePainter>

GradientImgComboBox::GradientImgComboBox(QWidget* parent)
    : QComboBox(parent)
{
}

void GradientImgComboBox::paintEvent(QPaintEvent* event)
{
    auto* delegate = qobject_cast<ComboBoxDelegate*>(itemDelegate());
    if (!delegate || currentIndex() < 0) {
        QComboBox::paintEvent(event);
        return;
    }
    QStylePainter painter(this);
    QStyleOptionComboBox option;
    initStyleOption(&option);
    option.currentText.clear();
    painter.drawComplexControl(QStyle::CC_ComboBox, option);
    const QRect field =
        style()->subControlRect(QStyle::CC_ComboBox, &option, QStyle::SC_ComboBoxEditField, this);
    paintRow(&painter, field, currentIndex());
}

void GradientImgComboBox::paintRow(QPainter* painter, const QRect& rect, int row)
{
    auto* delegate = qobject_cast<ComboBoxDelegate*>(itemDelegate());
    if (!delegate) {
        return;
    }
    ComboBoxDelegate::paintGradient(painter, rect, delegate->gradient(row), itemText(row));
}
