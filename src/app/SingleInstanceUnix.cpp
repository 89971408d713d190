#include "SingleInstance.h"

#include <unistd.h>

uint SingleInstance::userId()
{
    return uint(::getuid());
}
