#pragma once

#include "devices/ControlOptions.h"
#include "devices/IDeviceEnumerator.h"
#include "devices/PortAccess.h"

#include <QAtomicInt>
#include <QByteArray>
#include <QMap>
#include <QMutex>
#include <QPointer>
#include <QSerialPort>
#include <QSet>
#include <QString>
#include <QTimer>
#include <QWeakPointer>

class AbsRGBController;
class OVSerialPort;
class PortArrivalWatcher;

// The built-in enumerator: salutes serial ports, proves devices by their reply, and builds an
// OVController with its defaults and saved settings for each. Runs on the main thread.
class OVControllerEnumerator : public IDeviceEnumerator
{
    Q_OBJECT
public:
    explicit OVControllerEnumerator(QObject* parent = nullptr);
    ~OVControllerEnumerator() override;

    QSet<AbsRGBControllerPtr> controllers() override;
    bool removeController(const QString& id) override;

    // The handshake with one port.
    void verifyDevice(QString portName);
    // Applies the model's entry of "controler_config/OVController.json".
    void loadDefaults(AbsRGBController* controller);
    // A layout from the per-device files; kept for layout files, no discovery flow reads it.
    static ControlOptions readOVControllerConfig(const QString& model, const QString& serial);

    // From sleep until the devices were checked after it, arrivals wait: a port that came back
    // while its old controller still holds it would be refused as known. Released, the waiting
    // ones and the extra ports given are handled as arrivals.
    void holdArrivals();
    void releaseArrivals(const QStringList& alsoArrived);

signals:
    void sendSalutation(QByteArray bytes);
    void deviceArrival(QString deviceName);
    // A port the user means did not open, with what would let it open.
    void portNotOpened(PortProblem problem);

private slots:
    void scanControllers();
    void onDeviceArrival(QString deviceName);

private:
    void startScan();
    struct Handshake;
    // Reads the reply so far; `final` once the device has had its time to answer.
    void takeReply(const QPointer<OVSerialPort>& port, const QString& portName,
                   QSharedPointer<Handshake> handshake, bool final);
    void drop(OVSerialPort* port, Handshake* handshake);
    void attach(OVSerialPort* port, const QString& portName, const ControlOptions& identity);
    void onControllerStatus(const QString& id, uint32_t status, const QString& description);
    // Whether the file behind portName is open here already, in a handshake or driving a device.
    bool isOpenHere(const QString& portName);
    // After a failed open of a port the user means, says why and what to do.
    void explainFailedOpen(const QString& portName, QSerialPort::SerialPortError error);

    QMap<QString, QWeakPointer<AbsRGBController>> controllersMap; // "controllers": by id, weak
    QMutex mutex;                                                 // guards controllersMap
    QTimer timer;                                                 // no flow starts it
    QSet<QString> pendingArrivals;
    bool holding = false;
    QStringList heldArrivals;
    QAtomicInt scanTasks; // pool tasks of scanControllers still running
    // Ports opened here and not handed to a controller: waiting, or answered with a known id; with
    // the name each was opened by.
    QList<QPair<QPointer<OVSerialPort>, QString>> unattachedPorts;
};
