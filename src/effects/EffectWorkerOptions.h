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

    // A catalogue row: the description repeats the name until a panel says more.
    static EffectWorkerOptions make(const QString& id, const QString& name, int32_t order)
    {
        EffectWorkerOptions record;
        record.id = id;
        record.name = name;
        record.desc = name;
        record.order = order;
        return record;
    }
};

Q_DECLARE_METATYPE(EffectWorkerOptions)
