#include "VirtualLedDevice.h"

#include <QFile>
#include <QFileInfo>
#include <QRandomGenerator>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

namespace {

const QByteArray kSalutation = QByteArrayLiteral("Moni-A");
const QByteArray kMagic = QByteArrayLiteral("Ada");

qint64 steadyNowNs()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// 1 or 2 when `data` from `pos` starts with the salutation or the frame magic, -1 when the bytes
// there are still a proper prefix of one of them, 0 otherwise.
int matchHeader(const QByteArray& data, int pos)
{
    const int avail = data.size() - pos;
    const auto startsWith = [&](const QByteArray& word) {
        const int n = qMin(avail, word.size());
        return std::memcmp(data.constData() + pos, word.constData(), size_t(n)) == 0 ? n : -1;
    };
    const int s = startsWith(kSalutation);
    if (s == kSalutation.size()) {
        return 1;
    }
    const int m = startsWith(kMagic);
    if (m == kMagic.size()) {
        return 2;
    }
    return (s >= 0 || m >= 0) ? -1 : 0;
}

} // namespace

VirtualLedDevice::VirtualLedDevice(QObject* parent)
    : QObject(parent)
    , quietTimer(this) // parented, so that they follow the device to another thread
    , retryTimer(this)
{
    quietTimer.setSingleShot(true);
    connect(&quietTimer, &QTimer::timeout, this, &VirtualLedDevice::onQuiet);
    retryTimer.setSingleShot(true);
    retryTimer.setInterval(50);
    connect(&retryTimer, &QTimer::timeout, this, [this] {
        if (notifier) {
            notifier->setEnabled(true);
        }
    });
    clock.start();
    lastInput.start();
}

VirtualLedDevice::~VirtualLedDevice()
{
    close();
}

bool VirtualLedDevice::open(const QString& linkPath)
{
    close();
    error.clear();
    const auto fail = [this](const QString& what) {
        error = QStringLiteral("%1: %2").arg(what, QString::fromLocal8Bit(std::strerror(errno)));
        close();
        return false;
    };

    masterFd = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (masterFd < 0) {
        return fail(QStringLiteral("posix_openpt failed"));
    }
    if (::grantpt(masterFd) != 0 || ::unlockpt(masterFd) != 0) {
        return fail(QStringLiteral("grantpt/unlockpt failed"));
    }
    char name[128] = {};
    if (::ptsname_r(masterFd, name, sizeof name) != 0) {
        return fail(QStringLiteral("ptsname_r failed"));
    }
    slave = QString::fromLocal8Bit(name);
    slaveFd = ::open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (slaveFd < 0) {
        return fail(QStringLiteral("cannot open ") + slave);
    }
    termios tio{};
    if (::tcgetattr(slaveFd, &tio) != 0) {
        return fail(QStringLiteral("tcgetattr failed"));
    }
    ::cfmakeraw(&tio);
    if (::tcsetattr(slaveFd, TCSANOW, &tio) != 0) {
        return fail(QStringLiteral("tcsetattr failed"));
    }
    const int flags = ::fcntl(masterFd, F_GETFL);
    if (flags < 0 || ::fcntl(masterFd, F_SETFL, flags | O_NONBLOCK) != 0) {
        return fail(QStringLiteral("fcntl failed"));
    }

    if (!linkPath.isEmpty()) {
        const QByteArray linkName = QFile::encodeName(linkPath);
        const QFileInfo info(linkPath);
        if (info.isSymLink()) {
            ::unlink(linkName.constData());
        } else if (info.exists()) {
            errno = EEXIST;
            return fail(QStringLiteral("refusing to replace ") + linkPath);
        }
        if (::symlink(name, linkName.constData()) != 0) {
            return fail(QStringLiteral("cannot link ") + linkPath);
        }
        link = linkPath;
    }

    notifier = new QSocketNotifier(masterFd, QSocketNotifier::Read, this);
    connect(notifier, &QSocketNotifier::activated, this, &VirtualLedDevice::onReadable);
    buffer.clear();
    current.clear();
    state = ParseState::Idle;
    return true;
}

void VirtualLedDevice::close()
{
    quietTimer.stop();
    retryTimer.stop();
    delete notifier;
    notifier = nullptr;
    // The master goes first: with it gone every slave descriptor is hung up, which is what the
    // host sees when a strip is unplugged.
    if (masterFd >= 0) {
        ::close(masterFd);
        masterFd = -1;
    }
    if (slaveFd >= 0) {
        ::close(slaveFd);
        slaveFd = -1;
    }
    if (!link.isEmpty()) {
        const QFileInfo info(link);
        if (info.isSymLink() && info.symLinkTarget() == slave) {
            ::unlink(QFile::encodeName(link).constData());
        }
        link.clear();
    }
}

bool VirtualLedDevice::isOpen() const
{
    return masterFd >= 0;
}

QString VirtualLedDevice::slavePath() const
{
    return slave;
}

QString VirtualLedDevice::linkPath() const
{
    return link;
}

QString VirtualLedDevice::errorString() const
{
    return error;
}

void VirtualLedDevice::setReply(const QByteArray& reply)
{
    replyText = reply;
}

QByteArray VirtualLedDevice::reply() const
{
    return replyText;
}

void VirtualLedDevice::setReplyMode(ReplyMode newMode)
{
    mode = newMode;
}

VirtualLedDevice::ReplyMode VirtualLedDevice::replyMode() const
{
    return mode;
}

void VirtualLedDevice::setReplyDelayMs(int ms)
{
    replyDelayMs = qMax(0, ms);
}

void VirtualLedDevice::setSplitDelayMs(int ms)
{
    splitDelayMs = qMax(0, ms);
}

void VirtualLedDevice::setGarbageBytes(int n)
{
    garbageBytes = qMax(1, n);
}

void VirtualLedDevice::setReadRate(int bytesPerSecond)
{
    readRate = qMax(0, bytesPerSecond);
    readBudget = 0.0;
    if (readRate == 0 && writerHeld && slaveFd >= 0 && ::tcflow(slaveFd, TCOON) == 0) {
        writerHeld = false;
    }
    budgetClock.start();
}

void VirtualLedDevice::sendRaw(const QByteArray& bytes)
{
    writeToHost(bytes);
}

int VirtualLedDevice::salutations() const
{
    return salutationCount;
}

int VirtualLedDevice::frameCount() const
{
    return goodFrames;
}

int VirtualLedDevice::decodeErrors() const
{
    return errors;
}

double VirtualLedDevice::frameRate() const
{
    const qint64 since = clock.elapsed() - 1000;
    int n = 0;
    for (auto it = recentFrameMs.rbegin(); it != recentFrameMs.rend() && *it > since; ++it) {
        ++n;
    }
    return n;
}

QVector<VirtualLedDevice::Rgb> VirtualLedDevice::lastColors() const
{
    return colors;
}

QByteArray VirtualLedDevice::lastFrame() const
{
    return last;
}

uint16_t VirtualLedDevice::lastCount() const
{
    return count;
}

QVector<QByteArray> VirtualLedDevice::frames() const
{
    return kept;
}

void VirtualLedDevice::clearFrames()
{
    kept.clear();
}

void VirtualLedDevice::setKeepFrames(bool keep)
{
    keepFrames = keep;
    if (!keep) {
        kept.clear();
    }
}

qint64 VirtualLedDevice::lastFrameTimeNs() const
{
    return lastFrameNs;
}

void VirtualLedDevice::onReadable()
{
    char chunk[4096];
    bool got = false;
    for (;;) {
        size_t want = sizeof chunk;
        if (readRate > 0) {
            // A token bucket holding at most 10 ms of reading; when it is empty the notifier
            // rests until the bucket has refilled.
            readBudget = qMin(readBudget + readRate * budgetClock.restart() / 1000.0, readRate / 100.0 + 1.0);
            if (readBudget < 1.0) {
                notifier->setEnabled(false);
                retryTimer.start(10);
                break;
            }
            want = qMin(want, size_t(readBudget));
        }
        const ssize_t n = ::read(masterFd, chunk, want);
        if (n > 0) {
            buffer.append(chunk, int(n));
            readBudget -= double(n);
            got = true;
            continue;
        }
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            break;
        }
        // EIO or end of file: no slave is open. The notifier would fire without pause, so it
        // rests and looks again a little later.
        notifier->setEnabled(false);
        retryTimer.start(50);
        break;
    }
    if (readRate > 0) {
        holdWriter();
    }
    if (!got) {
        return;
    }
    readNs = steadyNowNs();
    lastInput.restart();
    quietTimer.start(kSurplusQuietMs);
    parse();
}

void VirtualLedDevice::holdWriter()
{
    // A line slower than its writer: the kernel would otherwise take some 20 kB the device has not
    // read, and report none of it as the writer's output queue. While input waits unread, the
    // slave's output is stopped, as a UART's is by flow control, so the writer keeps what has not
    // gone out in its own queue, where it can still replace it.
    int unread = 0;
    const bool hold = ::ioctl(masterFd, FIONREAD, &unread) == 0 && unread > 0;
    if (hold != writerHeld && slaveFd >= 0 && ::tcflow(slaveFd, hold ? TCOOFF : TCOON) == 0) {
        writerHeld = hold;
    }
}

void VirtualLedDevice::parse()
{
    for (;;) {
        switch (state) {
        case ParseState::Body: {
            const int need = 6 + 3 * int(bodyCount) - current.size();
            const int take = qMin(need, buffer.size());
            current.append(buffer.constData(), take);
            buffer.remove(0, take);
            if (take < need) {
                return;
            }
            finishFrame();
            break;
        }
        case ParseState::Surplus:
        case ParseState::Skip: {
            int pos = 0;
            int h = 0;
            while (pos < buffer.size() && (h = matchHeader(buffer, pos)) == 0) {
                ++pos;
            }
            if (state == ParseState::Surplus && pos > 0) {
                last.append(buffer.constData(), pos);
                if (keepFrames && !kept.isEmpty()) {
                    kept.last().append(buffer.constData(), pos);
                }
            }
            buffer.remove(0, pos);
            if (buffer.isEmpty() || h < 0) {
                return; // wait for more input or for quiet
            }
            state = ParseState::Idle;
            break;
        }
        case ParseState::Idle: {
            if (buffer.isEmpty()) {
                return;
            }
            const int h = matchHeader(buffer, 0);
            if (h < 0) {
                return;
            }
            if (h == 0) {
                failRun(QStringLiteral("bytes that are neither a frame nor a salutation"));
                break;
            }
            if (h == 1) {
                buffer.remove(0, kSalutation.size());
                ++salutationCount;
                emit salutationReceived();
                scheduleReply();
                break;
            }
            if (buffer.size() < 6) {
                return;
            }
            if (buffer.at(3) != 0) {
                failRun(QStringLiteral("frame header: the byte after \"Ada\" is not 0"));
                break;
            }
            const uint16_t n = uint16_t((uint8_t(buffer.at(4)) << 8) | uint8_t(buffer.at(5)));
            if (n == 0) {
                failRun(QStringLiteral("frame header: LED count 0"));
                break;
            }
            bodyCount = n;
            current = buffer.left(6);
            buffer.remove(0, 6);
            state = ParseState::Body;
            break;
        }
        }
    }
}

void VirtualLedDevice::finishFrame()
{
    last = current;
    count = bodyCount;
    colors.resize(bodyCount);
    const auto* p = reinterpret_cast<const uint8_t*>(current.constData()) + 6;
    for (int i = 0; i < int(bodyCount); ++i, p += 3) {
        colors[i] = Rgb{p[0], p[1], p[2]};
    }
    if (keepFrames) {
        kept.append(current);
    }
    current.clear();
    ++goodFrames;
    lastFrameNs = readNs;
    const qint64 now = clock.elapsed();
    recentFrameMs.push_back(now);
    while (!recentFrameMs.empty() && recentFrameMs.front() <= now - 1000) {
        recentFrameMs.pop_front();
    }
    state = ParseState::Surplus;
    emit frameReceived();
}

void VirtualLedDevice::failRun(const QString& what)
{
    ++errors;
    buffer.remove(0, 1);
    current.clear();
    state = ParseState::Skip;
    emit decodeError(what);
}

void VirtualLedDevice::onQuiet()
{
    switch (state) {
    case ParseState::Surplus:
    case ParseState::Skip:
        state = ParseState::Idle;
        parse();
        break;
    case ParseState::Body:
    case ParseState::Idle:
        break;
    }
    if (state == ParseState::Idle && buffer.isEmpty()) {
        return;
    }
    if (state != ParseState::Body && state != ParseState::Idle) {
        return;
    }
    // Something is half read: a frame body or the start of a header.
    const qint64 waited = lastInput.elapsed();
    if (waited < kTruncatedTimeoutMs) {
        quietTimer.start(int(kTruncatedTimeoutMs - waited));
        return;
    }
    ++errors;
    const QString what = state == ParseState::Body ? QStringLiteral("frame shorter than its LED count")
                                                   : QStringLiteral("incomplete header");
    buffer.clear();
    current.clear();
    state = ParseState::Idle;
    emit decodeError(what);
}

void VirtualLedDevice::scheduleReply()
{
    QByteArray text;
    switch (mode) {
    case ReplyMode::Silent:
        return;
    case ReplyMode::Normal:
    case ReplyMode::Split:
        text = replyText;
        break;
    case ReplyMode::Garbage: {
        auto* rng = QRandomGenerator::global();
        text.resize(garbageBytes);
        for (int i = 0; i < text.size(); ++i) {
            text[i] = char(rng->bounded(256));
        }
        // Never a valid magic, whatever its case.
        if (text.at(0) == 'O' || text.at(0) == 'o') {
            text[0] = char(0xFE);
        }
        break;
    }
    }
    if (mode == ReplyMode::Split && text.size() > 1) {
        const QByteArray first = text.left(text.size() / 2);
        const QByteArray second = text.mid(text.size() / 2);
        QTimer::singleShot(replyDelayMs, this, [this, first] { writeToHost(first); });
        QTimer::singleShot(replyDelayMs + splitDelayMs, this, [this, second] { writeToHost(second); });
        return;
    }
    if (replyDelayMs == 0) {
        writeToHost(text);
        return;
    }
    QTimer::singleShot(replyDelayMs, this, [this, text] { writeToHost(text); });
}

void VirtualLedDevice::writeToHost(const QByteArray& bytes)
{
    int done = 0;
    while (masterFd >= 0 && done < bytes.size()) {
        const ssize_t n = ::write(masterFd, bytes.constData() + done, size_t(bytes.size() - done));
        if (n > 0) {
            done += int(n);
        } else if (n < 0 && errno == EINTR) {
            continue;
        } else {
            break; // the host's input queue is full or gone; a device drops what it cannot send
        }
    }
}
