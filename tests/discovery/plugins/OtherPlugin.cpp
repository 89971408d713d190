#include "OtherPlugin.h"

OtherPlugin::OtherPlugin(QObject* parent)
    : QObject(parent)
{
}
