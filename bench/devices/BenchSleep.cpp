// Prints how fast the strips go dark before sleep and light again after it, through SleepWatcher
// and a login manager on a private system bus (FakeLogind), with three 300-LED virtual devices
// and a fourth reading 1 kB/s whose pseudo-terminal is full of frames when the sleep comes:
//  - sleep to black: from PrepareForSleep(true) to each device's black frame, and to the lock's
//    release, median and worst of 20 cycles;
//  - wake to frame: from PrepareForSleep(false) to each device's first frame.
// Runs with private configuration folders, so no user settings are touched.
#include "../BenchSpin.h"
#include "FakeLogind.h"
#include "PrivateBus.h"
#include "VirtualLedDevice.h"
#include "devices/DeviceManager.h"
#include "devices/SleepWatcher.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QTemporaryDir>
#include <QTimer>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <vector>

namespace {

constexpr int kCycles = 20;
constexpr int kFast = 3;
constexpr uint32_t kLeds = 300;

qint64 nowNs()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

void print(const char* what, std::vector<double> ms)
{
    if (ms.empty()) {
        std::printf("%-44s none\n", what);
        return;
    }
    std::sort(ms.begin(), ms.end());
    std::printf("%-44s median %7.1f ms   worst %7.1f ms   (%zu)\n", what, ms[ms.size() / 2], ms.back(),
                ms.size());
}

} // namespace

int main(int argc, char** argv)
{
    QTemporaryDir home;
    qputenv("HOME", QFile::encodeName(home.path()));
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(home.filePath("config")));
    qputenv("XDG_DATA_HOME", QFile::encodeName(home.filePath("data")));
    QCoreApplication app(argc, argv);
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString& message) {
        if (message.contains(QLatin1String("[SleepWatcher]"))) {
            std::printf("%s\n", qPrintable(message));
        }
    });

    PrivateBus bus;
    FakeLogind logind;
    if (!bus.start() || !logind.start(bus.address())) {
        std::printf("no private bus or login manager: %s %s\n", qPrintable(bus.errorString()),
                    qPrintable(logind.errorString()));
        return 1;
    }
    qputenv("DBUS_SYSTEM_BUS_ADDRESS", bus.address().toUtf8());

    std::vector<std::unique_ptr<VirtualLedDevice>> devices;
    for (int i = 0; i <= kFast; ++i) {
        devices.push_back(std::make_unique<VirtualLedDevice>());
        devices.back()->setReply("OV5512," + QByteArray::number(i) + "\r\n");
        if (!devices.back()->open(home.filePath(QStringLiteral("ttySleep%1").arg(i)))) {
            std::printf("cannot open a virtual device\n");
            return 1;
        }
    }
    VirtualLedDevice& slow = *devices.back();
    qputenv("ORVANTA_EXTRA_PORTS", QFile::encodeName(home.filePath("ttySleep*")));
    DeviceManager manager;
    SleepWatcher watcher(&manager);
    if (!spinUntil(
            [&] { return manager.controllerNames().size() == kFast + 1 && logind.locksHeld("delay") == 1; },
            30000)) {
        std::printf("the devices or the lock did not come\n");
        return 1;
    }
    for (const QString& id : manager.controllerNames()) {
        manager.controller(id)->setLayout(kLeds, {kLeds});
    }
    const QVector<OV_RGB> lit(int(kLeds), OV_RGB{200, 100, 50});
    QTimer frames; // 25 frames a second: the slow device's terminal stays full
    QObject::connect(&frames, &QTimer::timeout, [&] {
        for (const QString& id : manager.controllerNames()) {
            manager.controller(id)->update(lit);
        }
    });
    frames.start(40);
    slow.setReadRate(1000);
    spinUntil([] { return false; }, 3000);

    std::vector<double> toBlack, toRelease, toFrame;
    for (int cycle = 0; cycle < kCycles; ++cycle) {
        const qint64 sleepNs = nowNs();
        qint64 waitedMs = 0;
        logind.sleep(&waitedMs);
        toRelease.push_back(double(waitedMs));
        for (int i = 0; i < kFast; ++i) {
            if (spinUntil(
                    [&] { return devices[i]->lastColors() == QVector<VirtualLedDevice::Rgb>(int(kLeds)); },
                    5000)) {
                toBlack.push_back((devices[i]->lastFrameTimeNs() - sleepNs) / 1e6);
            }
        }
        spinUntil([] { return false; }, 200);
        std::vector<int> asleep;
        for (const auto& d : devices) {
            asleep.push_back(d->frameCount());
        }
        const qint64 wakeNs = nowNs();
        logind.wake();
        for (int i = 0; i < kFast; ++i) {
            if (spinUntil([&] { return devices[i]->frameCount() > asleep[i]; }, 5000)) {
                toFrame.push_back((devices[i]->lastFrameTimeNs() - wakeNs) / 1e6);
            }
        }
        spinUntil([&] { return logind.locksHeld("delay") == 1; }, 5000);
        spinUntil([] { return false; }, 1000); // the slow device's check ends too
    }
    std::printf("%d sleep cycles, %d devices of %u LEDs and one reading 1 kB/s\n", kCycles, kFast, kLeds);
    std::printf("lock released after (ms, by cycle):");
    for (double ms : toRelease) {
        std::printf(" %.0f", ms);
    }
    std::printf("\n");
    print("sleep announced to a black frame", toBlack);
    print("sleep announced to the lock's release", toRelease);
    print("wake announced to the first frame", toFrame);
    return 0;
}
