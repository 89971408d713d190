#pragma once

#include <QIcon>
#include <QString>

// The view record of one effect on the control page; texts are translated in "EffectNames".
struct WorkerModel
{
    QString name;
    QString description;
    QIcon icon;
    int order = 0;
};
