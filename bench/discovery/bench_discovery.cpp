// Prints how long discovery takes on virtual devices:
//  - from a device appearing at a watched path to DeviceManager::newController (median of 20),
//    which includes the 500 ms settle delay every arrival waits out;
//  - from the enumerator's construction to the end of a start-up scan of 10 silent ports.
// Runs with private configuration folders, so no user settings are touched.
#include "../BenchSpin.h"
#include "VirtualLedDevice.h"
#include "devices/DeviceManager.h"
#include "devices/OVControllerEnumerator.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QSerialPortInfo>
#include <QTemporaryDir>
#include <QTimer>

#include <algorithm>
#include <cstdio>
#include <memory>

namespace {

bool scanEnded = false;

void quietHandler(QtMsgType, const QMessageLogContext&, const QString& message)
{
    if (message.contains(QLatin1String("End scan devices list"))) {
        scanEnded = true;
    }
}

double median(QVector<double> values)
{
    std::sort(values.begin(), values.end());
    const int n = values.size();
    return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2.0;
}

int arrivalBenchmark(const QString& linkDir)
{
    const int runs = 20;
    qputenv("ORVANTA_EXTRA_PORTS", QFile::encodeName(linkDir + QStringLiteral("/ttyBench*")));
    DeviceManager manager;
    QString lastAdded;
    QString lastFailed;
    QObject::connect(&manager, &DeviceManager::newController, [&](const QString& id) { lastAdded = id; });
    QObject::connect(&manager, &DeviceManager::controllerFailed, [&](const QString& id) { lastFailed = id; });
    if (!spinUntil([] { return scanEnded; }, 30000)) {
        std::printf("start-up scan did not end\n");
        return 1;
    }

    QVector<double> times;
    for (int i = 0; i < runs; ++i) {
        VirtualLedDevice device;
        const QByteArray serial = QByteArray::number(1000 + i);
        device.setReply("OV5512," + serial + "\r\n");
        const QString id = QStringLiteral("OV5512:") + QString::fromLatin1(serial.toHex().toUpper());
        QElapsedTimer clock;
        clock.start();
        if (!device.open(linkDir + QStringLiteral("/ttyBench%1").arg(i))) {
            std::printf("cannot open a virtual device: %s\n", qPrintable(device.errorString()));
            return 1;
        }
        if (!spinUntil([&] { return lastAdded == id; }, 10000)) {
            std::printf("run %d: device not found\n", i);
            return 1;
        }
        times.append(double(clock.nsecsElapsed()) / 1e6);
        device.close();
        if (!spinUntil([&] { return lastFailed == id; }, 10000)) {
            std::printf("run %d: failure not reported\n", i);
            return 1;
        }
    }
    const auto [lo, hi] = std::minmax_element(times.cbegin(), times.cend());
    std::printf("arrival at a watched path -> newController: median %.1f ms, min %.1f ms, max %.1f ms "
                "(%d runs, 500 ms settle delay included)\n",
                median(times), *lo, *hi, runs);
    qunsetenv("ORVANTA_EXTRA_PORTS");
    return 0;
}

int scanBenchmark(const QString& linkDir)
{
    const int ports = 10;
    std::vector<std::unique_ptr<VirtualLedDevice>> devices;
    QStringList entries;
    for (int i = 0; i < ports; ++i) {
        auto device = std::make_unique<VirtualLedDevice>();
        device->setReplyMode(VirtualLedDevice::ReplyMode::Silent);
        const QString link = linkDir + QStringLiteral("/ttySilent%1").arg(i);
        if (!device->open(link)) {
            std::printf("cannot open a virtual device: %s\n", qPrintable(device->errorString()));
            return 1;
        }
        entries << link;
        devices.push_back(std::move(device));
    }
    qputenv("ORVANTA_EXTRA_PORTS", QFile::encodeName(entries.join(QLatin1Char(':'))));
    const int systemPorts = QSerialPortInfo::availablePorts().size();

    scanEnded = false;
    QElapsedTimer clock;
    clock.start();
    auto enumerator = std::make_unique<OVControllerEnumerator>();
    if (!spinUntil([] { return scanEnded; }, 30000)) {
        std::printf("start-up scan did not end\n");
        return 1;
    }
    const double scanMs = double(clock.nsecsElapsed()) / 1e6;
    int saluted = 0;
    for (const auto& device : devices) {
        saluted += device->salutations() > 0 ? 1 : 0;
    }
    std::printf("start-up scan of %d silent ports (+%d of this machine): ended after %.1f ms, "
                "%d of %d ports saluted\n",
                ports, systemPorts, scanMs, saluted, ports);
    enumerator.reset();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    qunsetenv("ORVANTA_EXTRA_PORTS");
    return saluted == ports ? 0 : 1;
}

} // namespace

int main(int argc, char** argv)
{
    QTemporaryDir home;
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(home.filePath(QStringLiteral("config"))));
    qputenv("XDG_DATA_HOME", QFile::encodeName(home.filePath(QStringLiteral("data"))));
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("bench_discovery"));
    // The model defaults lie beside the program.
    QDir::setCurrent(QCoreApplication::applicationDirPath());
    qInstallMessageHandler(quietHandler);

    QTemporaryDir links;
    if (!links.isValid()) {
        return 1;
    }
    int status = arrivalBenchmark(links.path());
    if (status == 0) {
        status = scanBenchmark(links.path());
    }
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    return status;
}
