#include "service/screen/IDeskCapture.h"

IDeskCapture::IDeskCapture(QObject* parent)
    : QObject(parent)
{
}

IDeskCapture::~IDeskCapture() = default;
