#pragma once

#include "PixelOrder.h"

#include <QDBusArgument>
#include <QList>
#include <QMetaType>
#include <QPoint>
#include <QSize>
#include <QString>
#include <QVariantMap>
#include <QVector>

// A monitor the simulated dialog offers, and the stream that shares it.
struct SimulatedMonitor
{
    QString id; // the stream's "id"; empty: none sent (a portal before version 4)
    QPoint position;
    bool sendPosition = true;
    QSize size{1920, 1080}; // the stream's pixels
    QSize logicalSize;      // the "size" sent (compositor space); invalid: size
    bool sendSize = true;
    PixelOrder order = PixelOrder::BGRx;
};

// What the simulated dialog answers when it is shown: the response code of Start (0 shared,
// 1 declined, 2 cancelled) and the monitors chosen.
struct PortalChoice
{
    enum Answer : uint
    {
        Share = 0,
        Decline = 1,
        Cancel = 2,
    };
    Answer answer = Share;
    QVector<SimulatedMonitor> monitors{SimulatedMonitor()};
};

// One method call the portal received.
struct PortalCall
{
    QString method;     // "CreateSession", "SelectSources", "Start", "OpenPipeWireRemote",
                        // "Request.Close", "Session.Close", "Get", "GetAll"
    QString sender;     // the caller's unique name
    QString objectPath; // the session, request or portal object called
    QString parentWindow;
    QVariantMap options;
    bool restored = false; // Start: served from a restore token, no dialog
    bool dialogShown = false;
};

// One entry of Start's "streams" (a(ua{sv})).
struct PortalStream
{
    uint node = 0;
    QVariantMap properties;
};
Q_DECLARE_METATYPE(PortalStream)

QDBusArgument& operator<<(QDBusArgument& argument, const PortalStream& stream);
const QDBusArgument& operator>>(const QDBusArgument& argument, PortalStream& stream);
