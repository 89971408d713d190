#pragma once

#include <QByteArray>
#include <QElapsedTimer>
#include <QObject>
#include <QSerialPort>

// Writes frames to one serial port; lives on the device's own thread once a controller owns it.
class OVSerialPort : public QObject
{
    Q_OBJECT
public:
    explicit OVSerialPort(QObject* parent = nullptr);
    ~OVSerialPort() override;

    bool open(const QString& name);
    QSerialPort* serialPort() const { return serial; }

public slots:
    // A frame that finds the previous one still leaving waits; a newer frame replaces a waiting
    // one, so a device slower than the frames sees the latest colours and nothing piles up.
    void write(QByteArray bytes);
    void startWriteTimer();
    // Pushes every queued byte to the device, waiting up to msecs; true when nothing is left.
    // Runs on the port's thread: the controller calls it blocking-queued at release.
    bool flushPending(int msecs);
    QString errorText() const;
    // Bytes held in this process: the frame leaving plus the one waiting. On the port's thread.
    qint64 queuedBytes() const;

private:
    void writeNow(const QByteArray& bytes);
    void onBytesWritten();

    QSerialPort* serial = nullptr;
    QElapsedTimer writeTimer;
    double writeTimeSumMs = 0.0;
    int32_t writeCount = 0;
    QByteArray waiting; // the newest frame not yet handed to the port
};
