#pragma once

#include "ui/widgets/BaseDialog.h"

#include <QScopedPointer>
#include <QVector>

#include <cstdint>
#include <limits>

class QLabel;
class QSpinBox;

namespace Ui {
class ControllerConfigDialog;
}

// Asks for the LED count of each line of a strip the device doesn't describe, with a running
// total; every change is announced so the caller can light each line on the device.
class ControllerConfigDialog : public BaseDialog
{
    Q_OBJECT
public:
    explicit ControllerConfigDialog(QWidget* parent = nullptr);
    ~ControllerConfigDialog() override;

    // LEDs per line, in line order, and their sum, as the user has set them so far.
    QVector<uint32_t> currentLines() const { return lines; }
    int currentTotal() const { return total; }
    // The most LEDs all lines together may hold: the boxes stop there.
    void setLimit(int maxTotal);

signals:
    void linesChanged(int nbLeds, QVector<uint32_t> lines);

protected:
    void changeEvent(QEvent* event) override;
    // Return in a line's box moves on to the next box instead of accepting the dialog.
    bool eventFilter(QObject* watched, QEvent* event) override;

private slots:
    void addLine();
    void removeLine();

private:
    struct Row
    {
        QLabel* label;
        QSpinBox* spinBox;
        int index;
    };

    void onValueChanged(int index, int value);
    void showTotal();
    void updateMaxima();

    QScopedPointer<Ui::ControllerConfigDialog> ui;
    QVector<Row> rows;
    QVector<uint32_t> lines;
    int total = 0;
    int limit = std::numeric_limits<int>::max();
};
