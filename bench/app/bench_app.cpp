// Prints what the whole program costs a user, on virtual strips:
//  - process start to the first colour frame on a strip present at start (median of 5), with
//    the program's own log times saying where the time goes;
//  - resident memory and CPU of the program idle in the tray with one strip on single colour;
//  - the largest gap between two frames on the strip while the brightness slider takes 200 steps
//    in 2 s, against the 40 ms frame period of single colour.
// The program runs with private configuration folders and the offscreen platform.
#include "../BenchSpin.h"
#include "Sandbox.h"
#include "VirtualLedDevice.h"
#include "app/OrvantaApp.h"
#include "service/config/ConfigurationManager.h"
#include "ui/ControlPage.h"
#include "ui/HomePage.h"

#include <QApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QSlider>
#include <QTemporaryDir>
#include <QTimer>
#include <QToolButton>

#include <algorithm>
#include <cstdio>
#include <unistd.h>

namespace {

double median(QVector<double> values)
{
    std::sort(values.begin(), values.end());
    const int n = values.size();
    return n == 0 ? 0.0 : (n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2.0);
}

// Milliseconds from the first log line to the first line containing `text`, or -1.
double logOffsetMs(const QString& logsDir, const QString& text)
{
    const QStringList logs = QDir(logsDir).entryList({"*.log"}, QDir::Files, QDir::Time);
    for (const QString& name : logs) {
        if (name.startsWith("loop_")) {
            continue;
        }
        QFile file(logsDir + '/' + name);
        if (!file.open(QIODevice::ReadOnly)) {
            return -1;
        }
        const QStringList lines = QString::fromUtf8(file.readAll()).split('\n');
        static const QRegularExpression stamp(R"(^\[[^\]]*(\d\d):(\d\d):(\d\d)[.,](\d\d\d))");
        auto msOf = [](const QString& line) {
            const QRegularExpressionMatch m = stamp.match(line);
            return m.hasMatch()
                       ? ((m.captured(1).toInt() * 60 + m.captured(2).toInt()) * 60 + m.captured(3).toInt()) *
                                 1000.0 +
                             m.captured(4).toInt()
                       : -1.0;
        };
        const double first = lines.isEmpty() ? -1 : msOf(lines.first());
        for (const QString& line : lines) {
            if (line.contains(text) && first >= 0) {
                return msOf(line) - first;
            }
        }
    }
    return -1;
}

void startToFirstFrame(const QString& root)
{
    QVector<double> totals;
    QVector<double> scan;
    QVector<double> found;
    for (int run = 0; run < 5; ++run) {
        Sandbox box;
        VirtualLedDevice device;
        const QString link = root + QString("/ttyStart%1").arg(run);
        if (!device.open(link)) {
            std::printf("cannot open a virtual strip: %s\n", qPrintable(device.errorString()));
            return;
        }
        QProcess process;
        box.prepare(process, {"--auto_startup"}, {{"ORVANTA_EXTRA_PORTS", link}});
        process.setWorkingDirectory(QFileInfo(box.program).absolutePath());
        QElapsedTimer clock;
        clock.start();
        process.start();
        if (!spinUntil([&] { return device.frameCount() > 0; }, 15000)) {
            std::printf("run %d: no frame within 15 s\n", run);
        } else {
            totals << double(clock.elapsed());
        }
        process.terminate();
        process.waitForFinished(10000);
        scan << logOffsetMs(box.logsDir(), "Begin scan devices list");
        found << logOffsetMs(box.logsDir(), "A new controller has been added");
    }
    std::printf("start to first frame (median of 5): %.0f ms (runs:", median(totals));
    for (double t : totals) {
        std::printf(" %.0f", t);
    }
    std::printf(")\n  from the first log line: scan begins %.0f ms, device registered %.0f ms (medians); "
                "before the first log line: process, libraries, QApplication\n",
                median(scan), median(found));
}

QPair<double, double> rssAndTicks(qint64 pid)
{
    QFile status(QString("/proc/%1/status").arg(pid));
    double rssKb = 0;
    if (status.open(QIODevice::ReadOnly)) {
        for (const QByteArray& line : status.readAll().split('\n')) {
            if (line.startsWith("VmRSS:")) {
                rssKb = line.mid(6).trimmed().split(' ').first().toDouble();
            }
        }
    }
    QFile stat(QString("/proc/%1/stat").arg(pid));
    double ticks = 0;
    if (stat.open(QIODevice::ReadOnly)) {
        const QByteArray text = stat.readAll();
        const QList<QByteArray> fields = text.mid(text.lastIndexOf(')') + 2).split(' ');
        ticks = fields.value(11).toDouble() + fields.value(12).toDouble(); // utime, stime
    }
    return {rssKb / 1024.0, ticks};
}

void idleInTray(const QString& root)
{
    Sandbox box;
    VirtualLedDevice device;
    const QString link = root + "/ttyIdle";
    device.open(link);
    QProcess process;
    box.prepare(process, {"--auto_startup"}, {{"ORVANTA_EXTRA_PORTS", link}});
    process.setWorkingDirectory(QFileInfo(box.program).absolutePath());
    process.start();
    spinUntil([&] { return device.frameCount() > 0; }, 15000);
    spinUntil([] { return false; }, 10000);
    const auto before = rssAndTicks(process.processId());
    QElapsedTimer clock;
    clock.start();
    spinUntil([] { return false; }, 10000);
    const auto after = rssAndTicks(process.processId());
    const double cpu =
        (after.second - before.second) / double(sysconf(_SC_CLK_TCK)) / (clock.elapsed() / 1000.0);
    std::printf("idle in the tray, one strip on single colour: resident %.1f MB, CPU %.2f %% of one core "
                "(over %.1f s after 10 s)\n",
                after.first, cpu * 100.0, clock.elapsed() / 1000.0);
    process.terminate();
    process.waitForFinished(10000);
}

void brightnessSteps(const QString& root)
{
    VirtualLedDevice device;
    const QString link = root + "/ttySteps";
    device.open(link);
    qputenv("ORVANTA_EXTRA_PORTS", link.toUtf8());
    OrvantaApp app;
    if (!spinUntil([&] { return device.frameCount() > 0; }, 15000)) {
        std::printf("brightness steps: the strip never lit\n");
        return;
    }
    const QString id = app.devices().controllerNames().value(0);
    for (QToolButton* b : app.window().homePage()->findChildren<QToolButton*>()) {
        if (b->property("controllerId").toString() == id) {
            b->click();
        }
    }
    auto* slider = app.window().controlPage()->findChild<QSlider*>("brightnessSlider");
    QVector<qint64> frameTimes;
    QObject::connect(&device, &VirtualLedDevice::frameReceived,
                     [&] { frameTimes << device.lastFrameTimeNs(); });
    int step = 0;
    QTimer timer;
    timer.setTimerType(Qt::PreciseTimer);
    QObject::connect(&timer, &QTimer::timeout, [&] { slider->setValue(step++ % 2 ? 30 : 90); });
    timer.start(10);
    spinUntil([&] { return step >= 200; }, 10000);
    timer.stop();
    qint64 largest = 0;
    for (int i = 1; i < frameTimes.size(); ++i) {
        largest = std::max(largest, frameTimes[i] - frameTimes[i - 1]);
    }
    std::printf("200 brightness steps in 2 s through the slider: %d frames, largest gap %.1f ms "
                "(%.2f frame periods of 40 ms)\n",
                int(frameTimes.size()), largest / 1e6, largest / 1e6 / 40.0);
}

} // namespace

int main(int argc, char* argv[])
{
    QTemporaryDir root;
    qputenv("HOME", root.path().toUtf8());
    qputenv("XDG_CONFIG_HOME", (root.path() + "/config").toUtf8());
    qputenv("XDG_DATA_HOME", (root.path() + "/data").toUtf8());
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) {
        qputenv("QT_QPA_PLATFORM", "offscreen");
    }
    QApplication app(argc, argv);
    // The program and its data lie beside this benchmark.
    QDir::setCurrent(QCoreApplication::applicationDirPath());
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString&) {});
    startToFirstFrame(root.path());
    idleInTray(root.path());
    brightnessSteps(root.path());
    return 0;
}
