#pragma once

#include "VirtualLedDevice.h"
#include "devices/OVController.h"
#include "devices/OVSerialPort.h"

#include <QSharedPointer>

// A real OVController writing through a real port to a VirtualLedDevice on a pseudo-terminal.
// The device is declared first so that it outlives the controller and reads its black frame.
struct DeviceRig
{
    VirtualLedDevice device;
    QSharedPointer<OVController> controller;

    static ControlOptions defaultOptions(uint32_t nbLeds)
    {
        ControlOptions o;
        o.model = QStringLiteral("OV5512");
        o.serial = QStringLiteral("41424344");
        o.id = QStringLiteral("OV5512:41424344");
        o.nbLeds = nbLeds;
        o.lines = {nbLeds};
        o.brightness = 1.0f;
        return o;
    }

    // Opens the device and a port on it, then builds the controller the way discovery does.
    bool start(ControlOptions options, bool buildHeader = true)
    {
        device.setKeepFrames(true);
        auto* port = new OVSerialPort();
        if (!device.open() || !port->open(device.slavePath())) {
            delete port;
            return false;
        }
        options.portName = device.slavePath();
        controller.reset(new OVController(options, port));
        if (buildHeader) {
            controller->updateFrameHeader();
        }
        return true;
    }
};

// A colour frame as it goes on the wire: magic, zero, count high and low, colours.
inline QByteArray frameBytes(uint16_t count, const QByteArray& colorBytes)
{
    return QByteArray("Ada\0", 4) + char(count >> 8) + char(count & 0xff) + colorBytes;
}
