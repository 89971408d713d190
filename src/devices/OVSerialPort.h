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
    void write(QByteArray bytes);
    void startWriteTimer();
    // Pushes every queued byte to the device, waiting up to msecs; true when nothing is left.
    // Runs on the port's thread: the controller calls it blocking-queued at release.
    bool flushPending(int msecs);
    QString errorText() const;

private:
    QSerialPort* serial = nullptr;
    QElapsedTimer writeTimer;
    double writeTimeSumMs = 0.0;
    int32_t writeCount = 0;
};
