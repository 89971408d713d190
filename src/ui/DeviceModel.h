#pragma once

#include <QIcon>
#include <QString>
#include <cstdint>

// The view record of one device on the home page.
struct DeviceModel
{
    QString name;
    QString id;
    QIcon icon;
    int32_t reserved = 0;
};
