#pragma once

#include "devices/SerialLine.h"

#include <QByteArray>
#include <QElapsedTimer>
#include <QObject>
#include <QSerialPort>

#include <functional>
#include <memory>

class QTimer;

// Writes frames to one serial port; lives on the device's own thread once a controller owns it.
class OVSerialPort : public QObject
{
    Q_OBJECT
public:
    explicit OVSerialPort(QObject* parent = nullptr);
    ~OVSerialPort() override;

    // Opens a terminal; anything else is closed again unread.
    bool open(const QString& name);
    QSerialPort* serialPort() const { return serial.get(); }

public slots:
    // A frame goes down the line once the port holds nothing more in this process and the
    // kernel's output queue is under a frame; until then it waits, and a newer frame replaces it.
    // A link slower than the frames thus shows the newest colours, and a fast one never waits.
    void write(QByteArray bytes);
    void startWriteTimer();
    // Pushes every queued byte to the device, waiting up to msecs; true when nothing is left.
    // Runs on the port's thread: the controller calls it blocking-queued at release.
    bool flushPending(int msecs);
    // The same without blocking the port's thread or raising a time-out as a port error: done
    // runs on this thread once nothing is left (true) or msecs passed or the port closed (false).
    void whenDrained(int msecs, std::function<void(bool)> done);
    QString errorText() const;
    // Bytes held in this process: the frame leaving plus the one waiting. On the port's thread.
    qint64 queuedBytes() const;
    // From now on whatever the device sends is read and dropped here, with one line a minute at
    // most: after its handshake a device has nothing to say. On the port's thread.
    void ignoreInput();
    // On the port's thread: whether the path opened still leads to this port's file.
    SerialLine::Node nodeCheck() const;
    // On the port's thread: open, and no read or write has failed.
    bool lineWorks() const;

signals:
    void inputIgnored(qint64 bytes);

private:
    void sendWaiting();
    void writeNow(const QByteArray& bytes);
    void drainInput();

    // At once on the port's own thread, else by deleteLater on it.
    struct DeleteOnItsThread
    {
        void operator()(QSerialPort* port) const;
    };
    std::unique_ptr<QSerialPort, DeleteOnItsThread> serial;
    QElapsedTimer writeTimer;
    double writeTimeSumMs = 0.0;
    int32_t writeCount = 0;
    QByteArray waiting;          // the newest frame not yet handed to the port
    QTimer* lineTimer = nullptr; // child: looks at the line again while a frame waits
    QString path;                // as opened, for log lines
    qint64 ignoredBytes = 0;     // since the last line about them
    QElapsedTimer ignoredClock;
};
