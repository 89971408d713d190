#pragma once

#include "devices/AbsRGBController.h"
#include "devices/SerialLine.h"

#include <QByteArray>
#include <QSerialPort>
#include <QThread>

#include <functional>

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
    // Once the port has sent what it holds, or msecs passed, done gets that and whether the line
    // works, on this object's thread. The destructor's blocking flush and the port thread's end
    // come before this object goes, so nothing reaches it after.
    void afterDrain(int msecs, std::function<void(bool drained, bool works)> done);
    void onNodeChecked(SerialLine::Node node);

    QByteArray frameHeader;
    OVSerialPort* port = nullptr;
    QThread* portThread = nullptr;
};
