#pragma once

#include <QWidget>

// Placeholder until the control page lands.
class ControlPage : public QWidget
{
    Q_OBJECT
public:
    explicit ControlPage(QWidget* parent = nullptr);
};
