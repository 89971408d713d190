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

    // "Ada", a zero byte and the LED count in two bytes, high byte first.
    static QByteArray frameHeaderFor(uint32_t nbLeds);
    // The frame for colours of nbLeds LEDs behind a header: every colour given, in line order,
    // then black up to nbLeds. Empty (nothing to send) while the header carries no LEDs or
    // nbLeds is more than a frame can carry.
    static QByteArray encodeFrame(const QByteArray& header, uint32_t nbLeds,
                                  const QVector<QVector<OV_RGB>>& colors);
    OVSerialPort* serialPort() const { return port; } // lives on the port thread

signals:
    void writeToPort(QByteArray bytes);

private slots:
    void onPortError(QSerialPort::SerialPortError error);

private:
    QByteArray frameHeader;
    OVSerialPort* port = nullptr;
    QThread* portThread = nullptr;
};
