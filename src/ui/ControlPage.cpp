#include "ControlPage.h"

ControlPage::ControlPage(QWidget* parent)
    : QWidget(parent)
{
}
