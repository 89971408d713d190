#pragma once

#include <QComboBox>

// A combo box whose closed face shows the current entry's gradient with its name. The
// gradients come from its ComboBoxDelegate; with another delegate it is a plain box.
class GradientImgComboBox : public QComboBox
{
    Q_OBJECT
public:
    explicit GradientImgComboBox(QWidget* parent = nullptr);

protected:
    void paintEvent(QPaintEvent* event) override;
    // The gradient of row, painted over rect.
    virtual void paintRow(QPainter* painter, const QRect& rect, int row);
};
