#include "devices/IDeviceEnumerator.h"

IDeviceEnumerator::IDeviceEnumerator(QObject* parent)
    : QObject(parent)
{
}

IDeviceEnumerator::~IDeviceEnumerator() = default;
