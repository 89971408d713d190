#include "devices/SerialLine.h"

#include <QFile>

#include <sys/ioctl.h>
#include <sys/stat.h>
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

SerialLine::Node SerialLine::nodeAt(qintptr handle, const QString& path)
{
    struct stat atPath = {};
    if (::stat(QFile::encodeName(path).constData(), &atPath) != 0) {
        return Node::Gone;
    }
    struct stat open = {};
    if (handle < 0 || ::fstat(int(handle), &open) != 0) {
        return Node::Other;
    }
    return atPath.st_dev == open.st_dev && atPath.st_ino == open.st_ino ? Node::Same : Node::Other;
}
