#pragma once

#include <QImage>
#include <QSet>
#include <QString>
#include <cstdint>

// One effect group as read from a group file; effects are added as factories register.
struct EffectGroup
{
    QString id;
    QString name;
    QString desc;
    QImage icon;
    QString iconPath; // as the group file gives it
    QSet<QString> effects;
    int32_t order = 0;
    QString defaultEffect;
};
