#include "app/CrashHook.h"
#include "app/CrashTest.h"
#include "app/OrvantaApp.h"
#include "app/ShutdownSignals.h"
#include "app/SingleInstance.h"
#include "app/StartupSteps.h"
#include "effects/panels/EffectPanelMaker.h"
#include "service/config/ConfigurationManager.h"
#include "service/config/ConsoleOutput.h"
#include "service/config/MessageHandler.h"
#include "service/screen/DeskDuplManager.h"

#include <QApplication>
#include <QCommandLineParser>

#include <cstdio>

#ifdef ORVANTA_SOAK
#include "app/SoakDriver.h"

#include <memory>
#endif

// Logs under StartupSteps's name: the log texts of this part are fixed that way.
constexpr char kTag[] = "[StartupSteps]";

int main(int argc, char* argv[])
{
    // A reader of standard output that goes away must not take the program with it.
    ConsoleOutput::ignoreBrokenPipe();

    // Without a display the platform plug-in would abort the process: help and version are
    // answered before, and a start with no display ends with one line instead of a core dump.
    if (StartupSteps::asksForHelpOrVersion(argc, argv)) {
        return StartupSteps::answerHelpOrVersion(argc, argv);
    }
    QString noDisplay;
    if (!StartupSteps::displayReachable(argc, argv, &noDisplay)) {
        std::fprintf(stderr, "%s\n", qPrintable(noDisplay));
        return 1;
    }

    QApplication app(argc, argv);
    // Read when pixmaps are made, so it may come after the application: icons and pictures are
    // drawn at the screen's ratio under a scale factor instead of being blown up.
    QCoreApplication::setAttribute(Qt::AA_UseHighDpiPixmaps);
    QCoreApplication::setApplicationVersion(QString::fromLatin1(StartupSteps::appVersion));
    // Ties the windows to the installed menu entry (its icon and name in the desktop's switcher);
    // the application name stays, so the configuration and log folders do not move.
    QGuiApplication::setDesktopFileName(QStringLiteral("com.orvanta.Orvanta"));

    // Declared in this order so that they go in reverse: lock, parser, options, application.
    const QList<QCommandLineOption> options = StartupSteps::commandLineOptions();
    QCommandLineParser parser;
    parser.addOptions(options);
    parser.addHelpOption();
    parser.addVersionOption();
#ifdef ORVANTA_SOAK
    const QCommandLineOption soakDriverOption(QStringLiteral("soak-driver"),
                                              QStringLiteral("Drive the program for a soak run."),
                                              QStringLiteral("mode"));
    parser.addOption(soakDriverOption);
#endif
    parser.process(app);
    StartupSteps::applyOptionProperties(app, parser);

    QString lockFolderError;
    const QString lockPath = SingleInstance::defaultLockFilePath(&lockFolderError);
    if (lockPath.isEmpty()) {
        std::fprintf(stderr, "%s\n", qPrintable(lockFolderError));
        return 1;
    }
    SingleInstance instance(lockPath);
    if (!instance.tryLock(StartupSteps::lockTimeoutMs)) {
        // No log, no handler, no configuration: ask the first instance to show itself and go.
        SingleInstance::sendShowRequest(lockPath, 1000);
        return 0;
    }

    const QString logsPath = ConfigurationManager::instance()->logsPath();
    const QString mainLog = StartupSteps::mainLogFilePath(logsPath);
    const QString loopLog = StartupSteps::loopLogFilePath(logsPath);
    MessageHandler::setLogPaths(mainLog, loopLog);
    qInstallMessageHandler(messageHandler);

    // The one instance now: nothing else writes the store.
    ConfigurationManager::instance()->removeLeftovers();
    StartupSteps::honourCleanStartup();
    StartupSteps::logStartupInfo();
    // A crash from here on leaves a report and starts the reporter; one agreed to earlier but
    // not yet sent goes now.
    CrashHook::install();
    CrashHook::startRetryIfAgreed();
    const int oldLogs = StartupSteps::removeOldLogs(logsPath, mainLog, StartupSteps::keptLogRuns);
    if (oldLogs > 0) {
        qInfo().noquote() << kTag << "Removed" << oldLogs << "log files of runs before the last"
                          << StartupSteps::keptLogRuns;
    }

    instance.listen();
    ShutdownSignals shutdownSignals;
    // quit() only ends loops that run: a signal taken in a nested loop before exec() is kept here.
    bool shutdownAsked = false;
    QObject::connect(&shutdownSignals, &ShutdownSignals::shutdownRequested, &app, [&shutdownAsked] {
        shutdownAsked = true;
        QCoreApplication::quit();
    });
    shutdownSignals.install();

    // Screen sources are enumerated before anything asks for them; the settings read the
    // capture option through this property (an int could not hold a 64-bit address).
    DeskDuplManager* deskDupl = DeskDuplManager::instance();
    app.setProperty("com.orvanta.runtime.options.deskCaptureOption",
                    QVariant::fromValue(quintptr(deskDupl->option())));

    // Before the effects registry, which asks it for the option panels.
    EffectPanelMaker::install();

    int exitCode = 0;
    {
        // Its members go in reverse: workers unload while their controllers still exist, then
        // each controller sends its black frame, and the window goes last.
        OrvantaApp orvanta;
        QObject::connect(&instance, &SingleInstance::showRequested, &orvanta, &OrvantaApp::onShowRequested);
#ifdef ORVANTA_SOAK
        std::unique_ptr<SoakDriver> soakDriver;
        if (parser.isSet(soakDriverOption)) {
            soakDriver = std::make_unique<SoakDriver>(orvanta, parser.value(soakDriverOption));
        }
#endif
        CrashTest::arm(&orvanta);
        exitCode = shutdownAsked ? 0 : app.exec();
    }
    // Controllers are released with deleteLater; with the loop gone, run those deletions now so
    // every device gets its black frame before the configuration is saved.
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);

    ConfigurationManager::instance()->save();
    // The last lines reach a reader that keeps up; one that doesn't is not waited for long.
    ConsoleOutput::finish(1000);
    return exitCode;
}
