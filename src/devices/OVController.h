#pragma once

#include "devices/AbsRGBController.h"
#include "devices/SerialLine.h"

#include <QByteArray>
#include <QScopedPointer>
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

    // "Ada", a zero byte and the LED count in two bytes, high byte first.
    static QByteArray frameHeaderFor(uint32_t nbLeds);
    // The frame for colours of nbLeds LEDs behind a header: every colour given, in line order,
    // then black up to nbLeds. Empty (nothing to send) while the header carries no LEDs or
    // nbLeds is more than a frame can carry.
    static QByteArray encodeFrame(const QByteArray& header, uint32_t nbLeds,
                                  const QVector<QVector<OV_RGB>>& colors);
    OVSerialPort* serialPort() const { return port.data(); } // lives on the port thread

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
    // Adopted from the enumerator; deleted on its own thread before that thread ends.
    QScopedPointer<OVSerialPort, QScopedPointerDeleteLater> port;
    QThread* portThread = nullptr;
};
