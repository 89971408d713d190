#pragma once

#include "devices/AbsRGBController.h"

#include <QByteArray>
#include <QSerialPort>
#include <QThread>

class OVSerialPort;

// The serial strip: "Ada" frames handed to an OVSerialPort on a thread of its own.
class OVController : public AbsRGBController
{
    Q_OBJECT
public:
    OVController(const ControlOptions& options, OVSerialPort* port, QObject* parent = nullptr);
    ~OVController() override;

    void updateFrameHeader() override;
    void writeColors(const QVector<QVector<OV_RGB>>& colors) override;
    OVSerialPort* serialPort() const { return port; } // lives on the port thread

signals:
    void writeToPort(QByteArray bytes);

protected:
    void sendDarkFrame() override;
    void checkAfterSleep() override;

private slots:
    void onPortError(QSerialPort::SerialPortError error);

private:
    // Runs work on the port thread and hands its result to done on this object's thread. The
    // destructor's blocking flush queues behind it, so this object outlives the call.
    template <typename Work, typename Done> void onPortThread(Work work, Done done);

    QByteArray frameHeader;
    OVSerialPort* port = nullptr;
    QThread* portThread = nullptr;
};
