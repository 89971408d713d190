#include "devices/OVSerialPort.h"

#include "devices/SerialLine.h"

#include <QDebug>
#include <QMetaEnum>
#include <QMetaType>
#include <QSignalBlocker>
#include <QThread>
#include <QTimer>

#ifdef ORVANTA_SOAK
#include "service/config/SoakFault.h"

#include <unistd.h>
#endif

namespace {

constexpr char kTag[] = "[OVSerialPort]:";
constexpr int kLineCheckMaxMs = 50;
constexpr qint64 kIgnoredLineMs = 60000;
constexpr qint64 kInputChunk = 4096;
constexpr int kDrainPollMs = 5;

} // namespace

OVSerialPort::OVSerialPort(QObject* parent)
    : QObject(parent)
    , serial(new QSerialPort) // no parent: it is moved to the port thread on its own
{
    qRegisterMetaType<QByteArray>("QByteArray");
    // A link that failed stays failed. On a hung-up pty every read wakes up and fails again, and a
    // failed write is retried by the port: closing ends that spin. Queued, because the port is
    // still inside its own notifier when it reports.
    connect(serial.get(), &QSerialPort::errorOccurred, this, [this](QSerialPort::SerialPortError error) {
        if (error == QSerialPort::ReadError || error == QSerialPort::WriteError ||
            error == QSerialPort::ResourceError) {
            QMetaObject::invokeMethod(
                this,
                [this] {
#ifdef ORVANTA_SOAK
                    if (SoakFault::on(SoakFault::Kind::PortFdPerUnplug) && serial->isOpen()) {
                        [[maybe_unused]] const int kept = ::dup(int(serial->handle()));
                    }
#endif
                    // Closing reports NoError, which must not read as a recovery.
                    const QSignalBlocker quiet(serial.get());
                    serial->close();
                },
                Qt::QueuedConnection);
        }
    });
    connect(serial.get(), &QSerialPort::bytesWritten, this, &OVSerialPort::sendWaiting);
    lineTimer = new QTimer(this);
    lineTimer->setSingleShot(true);
    connect(lineTimer, &QTimer::timeout, this, &OVSerialPort::sendWaiting);
}

OVSerialPort::~OVSerialPort()
{
    // Nobody listens for the outcome of a close in teardown; closing a closed port would still
    // report NotOpenError.
    const QSignalBlocker quiet(serial.get());
    if (serial->isOpen()) {
        serial->close();
    }
}

void OVSerialPort::DeleteOnItsThread::operator()(QSerialPort* port) const
{
    // A deleteLater posted while the port thread winds down may never run, so the serial port
    // goes at once when this is its own thread.
    if (port->thread() == QThread::currentThread()) {
        delete port;
    } else {
        port->deleteLater();
    }
}

bool OVSerialPort::open(const QString& name)
{
    serial->setPortName(name);
    serial->setBaudRate(QSerialPort::Baud115200, QSerialPort::AllDirections);
    serial->setDataBits(QSerialPort::Data8);
    serial->setParity(QSerialPort::NoParity);
    path = name;
    if (serial->open(QIODevice::ReadWrite)) {
        if (!SerialLine::isTerminal(serial->handle())) {
            const QSignalBlocker quiet(serial.get());
            serial->close();
            qWarning().noquote() << kTag << "Not a terminal, closed unread:" << name;
            return false;
        }
        serial->clear(QSerialPort::AllDirections);
        return true;
    }
    const QSerialPort::SerialPortError error = serial->error();
    const char* errorName = QMetaEnum::fromType<QSerialPort::SerialPortError>().valueToKey(error);
    qWarning().noquote() << kTag << "Failed to open the serial port" << name
                         << QStringLiteral("\r\n\terror:") + QString::fromLatin1(errorName ? errorName : "?");
    return false;
}

void OVSerialPort::write(QByteArray bytes)
{
    // After a failure the port is closed and frames are dropped; the failure was reported once.
    if (!serial->isOpen()) {
        waiting.clear();
        return;
    }
#ifdef ORVANTA_SOAK
    if (SoakFault::on(SoakFault::Kind::PortEveryFrame)) {
        waiting += bytes;
        sendWaiting();
        return;
    }
#endif
    waiting = bytes;
    sendWaiting();
}

void OVSerialPort::sendWaiting()
{
    if (waiting.isEmpty() || !serial->isOpen()) {
        return;
    }
    // What this process still holds goes first; then the kernel's queue must be under a frame.
    if (serial->bytesToWrite() > 0) {
        return; // bytesWritten brings this back
    }
    const qint64 queued = SerialLine::queuedOutput(serial->handle());
    if (queued < waiting.size()) {
        QByteArray next;
        next.swap(waiting);
        writeNow(next);
        return;
    }
    // The kernel reports nothing as it drains: look again about when the excess has gone at the
    // line's speed (10 bits a byte).
    if (!lineTimer->isActive()) {
        const qint64 excess = queued - waiting.size() + 1;
        const qint64 bitsPerSecond = qMax<qint64>(serial->baudRate(), 1200);
        lineTimer->start(int(qBound<qint64>(1, excess * 10000 / bitsPerSecond, kLineCheckMaxMs)));
    }
}

void OVSerialPort::writeNow(const QByteArray& bytes)
{
    serial->write(bytes);
    // The salutation goes out before a controller starts the timer; the interval counts from the
    // first write it sees.
    if (!writeTimer.isValid()) {
        writeTimer.start();
        return;
    }
    writeTimeSumMs += double(writeTimer.restart());
    writeCount += 1;
    if (writeTimeSumMs > 5000.0 && writeCount >= 1) {
        qInfo().noquote() << QStringLiteral("[[loop]]") + kTag
                          << QStringLiteral("Mean write time: ") +
                                 QString::number(writeTimeSumMs / writeCount) + QStringLiteral("ms");
        writeTimeSumMs = 0.0;
        writeCount = 0;
    }
}

void OVSerialPort::startWriteTimer()
{
    writeTimer.start();
    writeTimeSumMs = 0.0;
    writeCount = 0;
}

bool OVSerialPort::flushPending(int msecs)
{
    if (!serial->isOpen()) {
        return false;
    }
    QElapsedTimer clock;
    clock.start();
    for (;;) {
        sendWaiting(); // the waiting frame, once the line has room for it
        const qint64 left = msecs - clock.elapsed();
        if ((waiting.isEmpty() && serial->bytesToWrite() == 0) || left <= 0 || !serial->isOpen()) {
            break;
        }
        if (serial->bytesToWrite() > 0) {
            serial->waitForBytesWritten(int(qMin<qint64>(left, kLineCheckMaxMs)));
        } else {
            QThread::msleep(ulong(qMin<qint64>(left, 5)));
        }
    }
    return serial->isOpen() && serial->bytesToWrite() == 0 && waiting.isEmpty();
}

void OVSerialPort::whenDrained(int msecs, std::function<void(bool)> done)
{
    auto* poll = new QTimer(this);
    poll->setInterval(kDrainPollMs);
    QElapsedTimer clock;
    clock.start();
    const auto check = [this, poll, clock, msecs, done] {
        if (!poll->isActive()) {
            return; // answered already
        }
        sendWaiting();
        const bool drained = serial->isOpen() && waiting.isEmpty() && serial->bytesToWrite() == 0;
        if (drained || !serial->isOpen() || clock.elapsed() >= msecs) {
            poll->stop();
            poll->deleteLater();
            done(drained);
        }
    };
    connect(poll, &QTimer::timeout, this, check);
    poll->start();
    check();
}

qint64 OVSerialPort::queuedBytes() const
{
    return serial->bytesToWrite() + waiting.size();
}

SerialLine::Node OVSerialPort::nodeCheck() const
{
    return SerialLine::nodeAt(serial->isOpen() ? serial->handle() : -1, path);
}

bool OVSerialPort::lineWorks() const
{
    const QSerialPort::SerialPortError error = serial->error();
    return serial->isOpen() && error != QSerialPort::WriteError && error != QSerialPort::ReadError &&
           error != QSerialPort::ResourceError;
}

QString OVSerialPort::errorText() const
{
    return serial->errorString();
}

void OVSerialPort::ignoreInput()
{
    serial->setReadBufferSize(kInputChunk);
    connect(serial.get(), &QSerialPort::readyRead, this, &OVSerialPort::drainInput, Qt::UniqueConnection);
    drainInput(); // what came right after the reply
}

void OVSerialPort::drainInput()
{
    const qint64 bytes = serial->readAll().size();
    if (bytes <= 0) {
        return;
    }
    ignoredBytes += bytes;
    emit inputIgnored(bytes);
    if (ignoredClock.isValid() && ignoredClock.elapsed() < kIgnoredLineMs) {
        return;
    }
    qInfo().noquote() << kTag
                      << QStringLiteral("Ignored %1 bytes the device sent after its handshake on %2 (said "
                                        "once a minute at most)")
                             .arg(ignoredBytes)
                             .arg(path);
    ignoredBytes = 0;
    ignoredClock.start();
}
