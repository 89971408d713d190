#pragma once

#include <QImage>
#include <QMetaType>
#include <QString>
#include <QVector>
#include <cstdint>

class AbsWorkerWidget;

// The static description of one effect. The panels are shared and never owned by a record.
struct EffectWorkerOptions
{
    QString id; // group id + "." + local name
    QString name;
    QImage icon;
    QImage image;
    QString category;
    QString desc;
    int32_t order = 0;
    AbsWorkerWidget* optionWidget = nullptr;
    AbsWorkerWidget* extraOptionWidget = nullptr;
    QVector<QString> tags;
};

Q_DECLARE_METATYPE(EffectWorkerOptions)
