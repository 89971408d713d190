#include "devices/SerialLine.h"

#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

bool SerialLine::isTerminal(qintptr handle)
{
    return handle >= 0 && ::isatty(int(handle)) == 1;
}

qint64 SerialLine::queuedOutput(qintptr handle)
{
    int bytes = 0;
    if (handle < 0 || ::ioctl(int(handle), TIOCOUTQ, &bytes) != 0 || bytes < 0) {
        return 0;
    }
    return bytes;
}
