#include "OVSerialPort.h"

#include <QDebug>
#include <QMetaEnum>
#include <QMetaType>
#include <QSignalBlocker>
#include <QThread>

OVSerialPort::OVSerialPort(QObject* parent)
    : QObject(parent)
{
    qRegisterMetaType<QByteArray>("QByteArray");
    serial = new QSerialPort(); // no parent: it is moved to the port thread on its own
    // A link that failed stays failed. On a hung-up pty every read wakes up and fails again, and a
    // failed write is retried by the port: closing ends that spin. Queued, because the port is
    // still inside its own notifier when it reports.
    connect(serial, &QSerialPort::errorOccurred, this, [this](QSerialPort::SerialPortError error) {
        if (error == QSerialPort::ReadError || error == QSerialPort::WriteError ||
            error == QSerialPort::ResourceError) {
            QMetaObject::invokeMethod(
                this,
                [this] {
                    // Closing reports NoError, which must not read as a recovery.
                    const QSignalBlocker quiet(serial);
                    serial->close();
                },
                Qt::QueuedConnection);
        }
    });
    connect(serial, &QSerialPort::bytesWritten, this, &OVSerialPort::onBytesWritten);
}

OVSerialPort::~OVSerialPort()
{
    {
        // Nobody listens for the outcome of a close in teardown; closing a closed port would
        // still report NotOpenError.
        const QSignalBlocker quiet(serial);
        if (serial->isOpen()) {
            serial->close();
        }
    }
    // A deleteLater posted while the port thread winds down may never run, so the serial port
    // goes at once when this is its own thread.
    if (serial->thread() == QThread::currentThread()) {
        delete serial;
    } else {
        serial->deleteLater();
    }
}

bool OVSerialPort::open(const QString& name)
{
    serial->setPortName(name);
    serial->setBaudRate(QSerialPort::Baud115200, QSerialPort::AllDirections);
    serial->setDataBits(QSerialPort::Data8);
    serial->setParity(QSerialPort::NoParity);
    if (serial->open(QIODevice::ReadWrite)) {
        serial->clear(QSerialPort::AllDirections);
        return true;
    }
    const QSerialPort::SerialPortError error = serial->error();
    const char* errorName = QMetaEnum::fromType<QSerialPort::SerialPortError>().valueToKey(error);
    qWarning().noquote() << QStringLiteral("[OVSerialPort]: Failed to open the serial port") << name
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
    if (serial->bytesToWrite() > 0) {
        waiting = bytes;
        return;
    }
    writeNow(bytes);
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
        qInfo().noquote() << QStringLiteral("[[loop]][OVSerialPort]: Mean write time: ") +
                                 QString::number(writeTimeSumMs / writeCount) + QStringLiteral("ms");
        writeTimeSumMs = 0.0;
        writeCount = 0;
    }
}

void OVSerialPort::onBytesWritten()
{
    if (serial->bytesToWrite() == 0 && !waiting.isEmpty() && serial->isOpen()) {
        const QByteArray next = waiting;
        waiting.clear();
        writeNow(next);
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
        onBytesWritten(); // the waiting frame, once the one before has left
        const qint64 left = msecs - clock.elapsed();
        if (serial->bytesToWrite() == 0 || left <= 0 || !serial->waitForBytesWritten(int(left))) {
            break;
        }
    }
    return serial->bytesToWrite() == 0 && waiting.isEmpty();
}

qint64 OVSerialPort::queuedBytes() const
{
    return serial->bytesToWrite() + waiting.size();
}

QString OVSerialPort::errorText() const
{
    return serial->errorString();
}
