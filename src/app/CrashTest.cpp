#include "app/CrashTest.h"

#include "app/OrvantaApp.h"
#include "crash/CrashCapture.h"
#include "devices/OVController.h"
#include "devices/OVSerialPort.h"
#include "ui/dialogs/SettingsDialog.h"

#include <QApplication>
#include <QDebug>
#include <QDir>
#include <QPushButton>
#include <QTimer>

#include <atomic>
#include <cstdlib>
#include <fcntl.h>
#include <memory>
#include <sys/mman.h>
#include <thread>
#include <unistd.h>

namespace {

constexpr char kTag[] = "[CrashTest]";
// The crash comes anyway when no device turns up at start.
constexpr int kDeviceWaitMs = 10000;
constexpr int kStoreSteps = 20;
constexpr int kStoreStepMs = 5;
constexpr float kStoreTarget = 0.25f;

// Read through volatile so that no compiler proves the writes away.
int* volatile nullTarget = nullptr;
volatile int zero = 0;
volatile int one = 1; // a numerator the compiler cannot see, so that it divides
volatile int sink = 0;
volatile bool deeper = true; // always: the recursion has no end the compiler could see

const QStringList kKinds = {QStringLiteral("segv"),   QStringLiteral("bus"),     QStringLiteral("ill"),
                            QStringLiteral("fpe"),    QStringLiteral("abrt"),    QStringLiteral("stack"),
                            QStringLiteral("thread"), QStringLiteral("two"),     QStringLiteral("double"),
                            QStringLiteral("store"),  QStringLiteral("settings")};

} // namespace

bool CrashTest::knownKind(const QString& kind)
{
    return kKinds.contains(kind.section(QLatin1Char(':'), 0, 0));
}

bool CrashTest::arm(OrvantaApp* app)
{
    const QString kind = qEnvironmentVariable("ORVANTA_CRASH_TEST");
    if (kind.isEmpty()) {
        return false;
    }
    if (!qApp->property("enableCrashTest").toBool()) {
        qInfo().noquote() << kTag << "ORVANTA_CRASH_TEST is" << kind
                          << "but --enable_crash_test is not given: no crash";
        return false;
    }
    if (!knownKind(kind)) {
        qWarning().noquote() << kTag << "Unknown crash kind" << kind
                             << "- known:" << kKinds.join(QLatin1Char(' '));
        return false;
    }
    qInfo().noquote() << kTag << "Crashing with" << kind << "once the devices at start are taken";
    // Once the loop runs: then after the first device, or after a while without one.
    QTimer::singleShot(0, app, [app, kind] {
        if (!app->devices().controllerNames().isEmpty()) {
            run(app, kind);
            return;
        }
        auto fired = std::make_shared<bool>(false);
        auto fire = [app, kind, fired] {
            if (!*fired) {
                *fired = true;
                run(app, kind);
            }
        };
        QObject::connect(&app->devices(), &DeviceManager::newController, app, fire);
        QTimer::singleShot(kDeviceWaitMs, app, fire);
    });
    return true;
}

void CrashTest::run(OrvantaApp* app, const QString& kind)
{
    qInfo().noquote() << kTag << "Crash test" << kind << "now";
    const QString name = kind.section(QLatin1Char(':'), 0, 0);
    if (name == QLatin1String("segv")) {
        crashSegv();
    } else if (name == QLatin1String("bus")) {
        crashBus();
    } else if (name == QLatin1String("ill")) {
        crashIll();
    } else if (name == QLatin1String("fpe")) {
        crashFpe();
    } else if (name == QLatin1String("abrt")) {
        crashAbrt();
    } else if (name == QLatin1String("stack")) {
        crashStack();
    } else if (name == QLatin1String("thread")) {
        crashThread(app);
    } else if (name == QLatin1String("two")) {
        crashTwo();
    } else if (name == QLatin1String("double")) {
        crashDouble();
    } else if (name == QLatin1String("settings")) {
        crashSettings(app);
    } else if (name == QLatin1String("store")) {
        crashStore(app, kind.section(QLatin1Char(':'), 1).toInt());
    }
}

void CrashTest::crashSettings(OrvantaApp* app)
{
    // As the user does it: the settings from the window, then the configuration folder's button,
    // whose handler writes through a null pointer under --enable_crash_test.
    auto* poll = new QTimer(app);
    QObject::connect(poll, &QTimer::timeout, app, [poll] {
        auto* dialog = qobject_cast<SettingsDialog*>(QApplication::activeModalWidget());
        auto* button = dialog ? dialog->findChild<QPushButton*>(QStringLiteral("btnOpenConfigDir")) : nullptr;
        if (button) {
            poll->stop();
            button->click();
        }
    });
    poll->start(10);
    emit app->window().settingsBtnTriggered();
}

__attribute__((noinline)) void CrashTest::crashSegv()
{
    *nullTarget = 1;
}

__attribute__((noinline)) void CrashTest::crashBus()
{
    // A mapping past the end of a file that has shrunk under it.
    const QByteArray folder = QFile::encodeName(QDir::tempPath());
    const int fd = ::open(folder.constData(), O_TMPFILE | O_RDWR, 0600);
    const long page = ::sysconf(_SC_PAGESIZE);
    if (fd < 0 || ::ftruncate(fd, page) != 0) {
        qWarning().noquote() << kTag << "No file to map in" << QDir::tempPath();
        return;
    }
    auto* mapped = static_cast<volatile char*>(::mmap(nullptr, size_t(page), PROT_READ, MAP_SHARED, fd, 0));
    if (mapped == MAP_FAILED || ::ftruncate(fd, 0) != 0) {
        return;
    }
    sink = mapped[0];
}

__attribute__((noinline)) void CrashTest::crashIll()
{
#if defined(__x86_64__) || defined(__i386__)
    asm volatile("ud2");
#elif defined(__aarch64__)
    asm volatile("udf #0");
#else
    __builtin_trap();
#endif
}

__attribute__((noinline)) void CrashTest::crashFpe()
{
    sink = one / zero;
}

__attribute__((noinline)) void CrashTest::crashAbrt()
{
    std::abort();
}

__attribute__((noinline)) int CrashTest::recurse(int depth)
{
    volatile char frame[256];
    frame[0] = char(depth);
    if (!deeper) {
        return 0;
    }
    return recurse(depth + 1) + frame[0]; // not a tail call: the frame is used after
}

__attribute__((noinline)) void CrashTest::crashStack()
{
    sink = recurse(0);
}

__attribute__((noinline)) void CrashTest::crashThread(OrvantaApp* app)
{
    const QStringList names = app->devices().controllerNames();
    auto* controller = names.isEmpty()
                           ? nullptr
                           : qobject_cast<OVController*>(app->devices().controller(names.first()).data());
    if (!controller || !controller->serialPort()) {
        qWarning().noquote() << kTag << "No port thread to crash on";
        return;
    }
    QMetaObject::invokeMethod(
        controller->serialPort(), [] { crashSegv(); }, Qt::QueuedConnection);
}

__attribute__((noinline)) void CrashTest::crashTwo()
{
    static std::atomic<bool> go{false};
    for (int i = 0; i < 2; ++i) {
        std::thread([] {
            while (!go.load()) {
            }
            crashSegv();
        }).detach();
    }
    go = true;
    ::pause(); // the main thread waits for the end
}

__attribute__((noinline)) void CrashTest::crashDouble()
{
    CrashCapture::faultInsideHandler();
    crashSegv();
}

__attribute__((noinline)) void CrashTest::crashStore(OrvantaApp* app, int delayMs)
{
    const QStringList names = app->devices().controllerNames();
    const AbsRGBControllerPtr controller =
        names.isEmpty() ? AbsRGBControllerPtr() : app->devices().controller(names.first());
    if (!controller) {
        qWarning().noquote() << kTag << "No device to change";
        return;
    }
    // As a slider drag: one setBrightness per step, each saved the way the control page's are.
    const float from = controller->controlOptions().brightness;
    for (int step = 1; step <= kStoreSteps; ++step) {
        QTimer::singleShot(step * kStoreStepMs, app, [app, controller, from, step, delayMs] {
            controller->setBrightness(from + (kStoreTarget - from) * float(step) / float(kStoreSteps));
            if (step == kStoreSteps) {
                qInfo().noquote() << kTag << "Brightness from" << from << "to"
                                  << controller->controlOptions().brightness << "set; crashing in" << delayMs
                                  << "ms";
                QTimer::singleShot(delayMs, app, &CrashTest::crashSegv);
            }
        });
    }
}
