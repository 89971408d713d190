#include "app/ShutdownSignals.h"

#include <QDebug>
#include <QSocketNotifier>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr char kTag[] = "[ShutdownSignals]";

// Self-pipe: the signal handler may only write a byte; the event loop does the rest.
int pipeFds[2] = {-1, -1};
constexpr int kSignals[] = {SIGTERM, SIGINT, SIGHUP};

extern "C" void onSignal(int signalNumber)
{
    const int savedErrno = errno;
    const unsigned char byte = static_cast<unsigned char>(signalNumber);
    const ssize_t written = ::write(pipeFds[1], &byte, 1);
    static_cast<void>(written);
    errno = savedErrno;
}

} // namespace

ShutdownSignals::ShutdownSignals(QObject* parent)
    : QObject(parent)
{
}

ShutdownSignals::~ShutdownSignals()
{
    if (!notifier) {
        return;
    }
    struct sigaction action;
    std::memset(&action, 0, sizeof(action));
    action.sa_handler = SIG_DFL;
    sigemptyset(&action.sa_mask);
    for (int signalNumber : kSignals) {
        ::sigaction(signalNumber, &action, nullptr);
    }
    delete notifier;
    notifier = nullptr;
    ::close(pipeFds[0]);
    ::close(pipeFds[1]);
    pipeFds[0] = pipeFds[1] = -1;
}

bool ShutdownSignals::install()
{
    if (notifier) {
        return true;
    }
    if (pipeFds[0] >= 0) {
        qWarning() << kTag << "Signal handling is already installed by another object";
        return false;
    }
    if (::pipe2(pipeFds, O_CLOEXEC | O_NONBLOCK) != 0) {
        qWarning() << kTag << "Failed to create the signal pipe:" << std::strerror(errno);
        pipeFds[0] = pipeFds[1] = -1;
        return false;
    }
    notifier = new QSocketNotifier(pipeFds[0], QSocketNotifier::Read, this);
    connect(notifier, &QSocketNotifier::activated, this, &ShutdownSignals::onNotified);

    struct sigaction action;
    std::memset(&action, 0, sizeof(action));
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    for (int signalNumber : kSignals) {
        if (::sigaction(signalNumber, &action, nullptr) != 0) {
            qWarning() << kTag << "Failed to handle signal" << signalNumber << ":" << std::strerror(errno);
        }
    }
    return true;
}

void ShutdownSignals::onNotified()
{
    unsigned char byte = 0;
    while (::read(pipeFds[0], &byte, 1) == 1) {
        qInfo() << kTag << "Received signal" << int(byte) << "- quitting";
        emit shutdownRequested(int(byte));
    }
}
