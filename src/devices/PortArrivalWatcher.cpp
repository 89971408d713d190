#include "devices/PortArrivalWatcher.h"

PortArrivalWatcher::PortArrivalWatcher(QObject* parent)
    : QObject(parent)
{
}

PortArrivalWatcher::~PortArrivalWatcher() = default;
