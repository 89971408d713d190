#pragma once

#include <QString>

// The view record of one effect group on the control page; `name` is translated in "GroupInformation".
struct WorkGroupModel
{
    QString name;
    QString description;
    int order = 0;
};
