#include "service/config/ConsoleOutput.h"

#include <cerrno>
#include <csignal>
#include <unistd.h>

void ConsoleOutput::ignoreBrokenPipe()
{
    std::signal(SIGPIPE, SIG_IGN);
}

bool ConsoleOutput::writeToStdout(const QByteArray& bytes)
{
    const char* data = bytes.constData();
    size_t left = size_t(bytes.size());
    while (left > 0) {
        const ssize_t n = ::write(STDOUT_FILENO, data, left);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0 && errno == EAGAIN) {
            // Someone made the output non-blocking: this thread may wait, the loggers never do.
            ::usleep(10000);
            continue;
        }
        if (n <= 0) {
            return false; // EPIPE, EBADF, EIO and the like: the output is gone
        }
        data += n;
        left -= size_t(n);
    }
    return true;
}
