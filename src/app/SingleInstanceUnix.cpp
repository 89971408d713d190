#include "SingleInstance.h"

#include <unistd.h>

// The numeric user id: stable, and free of characters a socket name cannot hold.
QString SingleInstance::userTag()
{
    return QString::number(::getuid());
}
