// Prints how fast the global hotkeys act, from another program's window: the program itself runs
// on a private X server with one virtual strip (in this process), and X11Peer, holding the focus,
// presses Ctrl+Alt+Shift and the key through XTest, 150 ms apart. Each press is timed from the
// key-down's XSync to the first frame on the strip that differs from the one before and shows the
// action's result (the device's read time, on the same steady clock):
//  - brightness up and down in turn from 0.5, and off and on, each 50 times;
//  - next and previous group in turn between single colour (40 ms frames) and the rainbow
//    (33 ms), 50 times each: the next frame of the effect landed on;
// with median, p95 and maximum per action; and the time the five registrations take at start,
// from the program's log.
#include "../BenchSpin.h"
#include "PrivateXServer.h"
#include "Sandbox.h"
#include "VirtualLedDevice.h"
#include "X11Peer.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QGuiApplication>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QUrl>

#define XK_MISCELLANY
#include <X11/keysym.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>

namespace {

using Rgb = VirtualLedDevice::Rgb;
using Frame = QVector<Rgb>;

constexpr int kPresses = 50;
constexpr int kApartMs = 150;
constexpr int kLandedWaitMs = 2000;
const QByteArray kSerial = "HKBENCH";
const QString kLastAdded =
    QStringLiteral("The hotkey action has been added: com_orvanta_hotkey_increaseBrightness");

qint64 steadyNowNs()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

bool uniform(const Frame& frame)
{
    return !frame.isEmpty() && std::all_of(frame.begin(), frame.end(), [&](Rgb c) { return c == frame[0]; });
}

bool black(const Frame& frame)
{
    return uniform(frame) && frame[0] == Rgb{};
}

// The clock time of the first log line holding `text`, in ms of the day; -1 without one.
double logTimeMs(const QString& log, const QString& text)
{
    static const QRegularExpression stamp(R"(^\[[^\]]*(\d\d):(\d\d):(\d\d)[.,](\d\d\d)\])");
    for (const QString& line : log.split('\n')) {
        const QRegularExpressionMatch m = stamp.match(line);
        if (m.hasMatch() && line.contains(text)) {
            return ((m.captured(1).toInt() * 60 + m.captured(2).toInt()) * 60 + m.captured(3).toInt()) *
                       1000.0 +
                   m.captured(4).toInt();
        }
    }
    return -1;
}

struct Figures
{
    QVector<double> ms;
    int missed = 0;

    void print(const char* action, const char* target)
    {
        std::sort(ms.begin(), ms.end());
        if (ms.isEmpty()) {
            std::printf("%-34s no frame showed the action in %d presses\n", action, missed);
            return;
        }
        const auto at = [&](double q) { return ms[std::min(int(ms.size()) - 1, int(q * ms.size()))]; };
        std::printf("%-34s median %5.1f ms  p95 %5.1f ms  max %5.1f ms  (%d presses, %d without a frame; "
                    "target %s)\n",
                    action, at(0.5), at(0.95), ms.last(), int(ms.size()), missed, target);
    }
};

// The bench: one run of the program, one strip, the peer in front.
class HotkeyBench
{
public:
    HotkeyBench(X11Peer& peer, VirtualLedDevice& device)
        : peer(peer)
        , device(device)
    {
        QObject::connect(&device, &VirtualLedDevice::frameReceived, [this] { onFrame(); });
    }

    // Presses Ctrl+Alt+Shift and `keysym`; the milliseconds from the key-down to the first frame
    // that differs from the one before and satisfies `landed`, or -1 if none came.
    double press(quint32 keysym, const std::function<bool(const Frame&)>& landed)
    {
        QElapsedTimer apart;
        apart.start();
        const QVector<quint8> modifiers{peer.keyCode(XK_Control_L), peer.keyCode(XK_Alt_L),
                                        peer.keyCode(XK_Shift_L)};
        for (quint8 code : modifiers) {
            peer.keyDown(code);
        }
        const quint8 key = peer.keyCode(keysym);
        expected = landed;
        landedNs = -1;
        peer.keyDown(key); // returns after XSync: the server has the key
        pressedNs = steadyNowNs();
        spinUntil([this] { return landedNs >= 0; }, kLandedWaitMs);
        pressedNs = -1;
        peer.keyUp(key);
        for (int i = modifiers.size() - 1; i >= 0; --i) {
            peer.keyUp(modifiers[i]);
        }
        spinUntil([] { return false; }, std::max(0, kApartMs - int(apart.elapsed())));
        return landedNs >= 0 ? (landedNs - pressedNsAtLanding) / 1e6 : -1;
    }

private:
    void onFrame()
    {
        const Frame frame = device.lastColors();
        if (pressedNs >= 0 && landedNs < 0 && frame != previous && expected(frame) &&
            device.lastFrameTimeNs() >= pressedNs) {
            landedNs = device.lastFrameTimeNs();
            pressedNsAtLanding = pressedNs;
        }
        previous = frame;
    }

    X11Peer& peer;
    VirtualLedDevice& device;
    Frame previous;
    std::function<bool(const Frame&)> expected;
    qint64 pressedNs = -1;
    qint64 pressedNsAtLanding = 0;
    qint64 landedNs = -1;
};

void record(Figures& figures, double ms)
{
    if (ms < 0) {
        ++figures.missed;
    } else {
        figures.ms << ms;
    }
}

} // namespace

int main(int argc, char* argv[])
{
    QTemporaryDir root;
    qputenv("QT_QPA_PLATFORM", "offscreen"); // this process shows nothing
    QGuiApplication app(argc, argv);

    PrivateXServer server;
    if (!server.start()) {
        std::printf("cannot start a private X server: %s\n", qPrintable(server.errorString()));
        return 1;
    }
    X11Peer peer;
    if (!peer.open(server.display())) {
        std::printf("the peer cannot hold the focus: %s\n", qPrintable(peer.errorString()));
        return 1;
    }
    VirtualLedDevice device;
    device.setReply("OV2408," + kSerial + "\r\n");
    const QString link = root.path() + "/ttyHotkeys";
    if (!device.open(link)) {
        std::printf("cannot open a virtual strip: %s\n", qPrintable(device.errorString()));
        return 1;
    }

    Sandbox box;
    const QString id = "OV2408:" + QString::fromLatin1(kSerial.toHex().toUpper());
    const QJsonObject stored{{"nbLeds", 24},
                             {"lines", QJsonArray{24}},
                             {"brightness", 0.5},
                             {"workMode", "com.orvanta.singleColor"},
                             {"subMode", "com.orvanta.singleColor.singleColor1"}};
    box.write("controllers/" + QString::fromLatin1(QUrl::toPercentEncoding(id)) + ".json",
              QJsonDocument(stored).toJson());
    QProcess program;
    box.prepare(program, {"--auto_startup"},
                {{"QT_QPA_PLATFORM", "xcb"}, {"DISPLAY", server.display()}, {"ORVANTA_EXTRA_PORTS", link}});
    program.setWorkingDirectory(QFileInfo(box.program).absolutePath());
    program.start();
    if (!spinUntil([&] { return box.mainLog().contains(kLastAdded) && device.frameCount() > 0; }, 30000)) {
        std::printf("the program did not start with its hotkeys and the strip within 30 s\n");
        return 1;
    }
    const QString log = box.mainLog();
    const double begun = logTimeMs(log, "[OrvantaApp]: Registering the hotkey actions");
    const double added = logTimeMs(log, kLastAdded);
    std::printf("five registrations at start (log times): %.0f ms (target under 50 ms)\n", added - begun);
    spinUntil([] { return false; }, 500); // the strip settles on its effect

    HotkeyBench bench(peer, device);
    const auto any = [](const Frame&) { return true; };
    const auto lit = [](const Frame& f) { return !black(f); };
    const auto singleColour = [](const Frame& f) { return uniform(f) && !black(f); };
    const auto rainbow = [](const Frame& f) { return !uniform(f); };
    Figures up, down, off, on, next, previous;
    struct Scenario
    {
        const char* name;
        std::function<void()> run;
    };
    const Scenario scenarios[] = {
        {"brightness",
         [&] {
             for (int i = 0; i < kPresses; ++i) {
                 record(up, bench.press(XK_Up, any));
                 record(down, bench.press(XK_Down, any));
             }
         }},
        {"off and on",
         [&] {
             for (int i = 0; i < kPresses; ++i) {
                 record(off, bench.press(XK_F10, black));
                 record(on, bench.press(XK_F10, lit));
             }
         }},
        {"groups",
         [&] {
             for (int i = 0; i < kPresses; ++i) {
                 record(next, bench.press(XK_Right, rainbow));
                 record(previous, bench.press(XK_Left, singleColour));
             }
         }},
    };
    for (const Scenario& scenario : scenarios) {
        if (!peer.takeFocus()) {
            std::printf("the peer lost the focus before the %s presses\n", scenario.name);
            return 1;
        }
        peer.clearPresses();
        scenario.run();
        int leaked = 0;
        for (quint32 keysym : {XK_Up, XK_Down, XK_F10, XK_Right, XK_Left}) {
            leaked += peer.presses(peer.keyCode(keysym));
        }
        if (leaked > 0) {
            std::printf("%d presses of bound keys reached the peer during the %s presses\n", leaked,
                        scenario.name);
        }
    }
    up.print("brightness up (0.5 to 0.6)", "median 10 ms, p95 20 ms");
    down.print("brightness down (0.6 to 0.5)", "median 10 ms, p95 20 ms");
    off.print("all off", "median 10 ms, p95 20 ms");
    on.print("all on", "median 10 ms, p95 20 ms");
    next.print("next group (to the rainbow, 33 ms)", "median 38 ms, p95 66 ms");
    previous.print("previous group (to single colour, 40 ms)", "median 45 ms, p95 80 ms");

    program.terminate();
    program.waitForFinished(10000);
    return 0;
}
