#pragma once

#include "VirtualLedDevice.h"
#include "service/config/ConfigurationManager.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QString>
#include <QTest>

// A virtual strip behind a stable link that the program is told to probe. "OV5512,AAAA" answers
// with the id "OV5512:41414141": the serial travels as hexadecimal.
struct Strip
{
    VirtualLedDevice device;
    QString id;

    Strip(const QString& model, const QByteArray& serial, const QString& link)
        : id(model + ':' + QString::fromLatin1(serial.toHex().toUpper()))
    {
        device.setReply(model.toLatin1() + ',' + serial + "\r\n");
        device.open(link);
    }
    VirtualLedDevice::Rgb first() const { return device.lastColors().value(0); }
    // Lets the strip show a few more frames.
    void watch(int frames = 4)
    {
        const int seen = device.frameCount();
        QTRY_VERIFY(device.frameCount() > seen + frames);
    }
};

// Settings stored for a device before the program starts, as a previous run would leave them:
// the model's lines and full brightness unless `values` says otherwise.
inline void storeDevice(const QString& id, const QJsonObject& values = {})
{
    QJsonObject& obj = ConfigurationManager::instance()->controllerJsonObj(id);
    const bool wide = id.startsWith(QLatin1String("OV5512"));
    obj.insert("nbLeds", wide ? 72 : 24);
    obj.insert("lines", wide ? QJsonArray{18, 36, 18} : QJsonArray{24});
    obj.insert("brightness", 1.0);
    for (auto it = values.begin(); it != values.end(); ++it) {
        obj.insert(it.key(), it.value());
    }
    ConfigurationManager::instance()->saveControllerJsonObj(id);
}
