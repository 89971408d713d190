#include "app/StartupSteps.h"

#include "BuildInfo.h"
#include "service/config/ConfigurationManager.h"
#include "service/config/DataPaths.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>

#include <algorithm>
#include <cstring>
#include <initializer_list>

namespace {

struct OptionSpec
{
    const char* name;
    const char* description;
    const char* property;
};

const OptionSpec kOptions[] = {
    {"winrt_capture_first", "WinRTCapture first", "isWinRTCaptureFirst"},
    {"advanced", "Enable advanced function", "isAdvanced"},
    {"enable_crash_test", "Enable crash test", "enableCrashTest"},
    {"screenshot", "Enable capturer screenshot", "isScreenshot"},
    {"auto_startup", "Enable bootstrap", "isAutoStartup"},
};

bool argumentIs(const char* arg, std::initializer_list<const char*> names)
{
    for (const char* name : names) {
        if (std::strcmp(arg, name) == 0) {
            return true;
        }
    }
    return false;
}

QString logStamp()
{
    return QDateTime::currentDateTime().toString(QStringLiteral("yyyy_MM_dd_hh_mm_ss"));
}

} // namespace

const char* const StartupSteps::appVersion = ORVANTA_VERSION;

QList<QCommandLineOption> StartupSteps::commandLineOptions()
{
    QList<QCommandLineOption> options;
    for (const OptionSpec& flag : kOptions) {
        options.append(QCommandLineOption(QString::fromLatin1(flag.name),
                                          QString::fromLatin1(flag.description), QString(), QString()));
    }
    return options;
}

bool StartupSteps::asksForHelpOrVersion(int argc, char** argv)
{
    for (int i = 1; i < argc && std::strcmp(argv[i], "--") != 0; ++i) {
        if (argumentIs(argv[i], {"-h", "-?", "--help", "--help-all", "-v", "--version"})) {
            return true;
        }
    }
    return false;
}

int StartupSteps::answerHelpOrVersion(int& argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationVersion(QString::fromLatin1(appVersion));
    QCommandLineParser parser;
    parser.addOptions(commandLineOptions());
    parser.addHelpOption();
    parser.addVersionOption();
    parser.process(app); // prints and exits for help, version and bad options
    return 0;
}

bool StartupSteps::displayReachable(int argc, char** argv, QString* why)
{
    QByteArray platform = qgetenv("QT_QPA_PLATFORM");
    QByteArray display = qgetenv("DISPLAY");
    for (int i = 1; i + 1 < argc; ++i) {
        if (argumentIs(argv[i], {"-platform", "--platform"})) {
            platform = argv[i + 1];
        } else if (argumentIs(argv[i], {"-display", "--display"})) {
            display = argv[i + 1];
        }
    }
    if (platform.isEmpty()) {
        platform = "xcb"; // the default of this Qt build
    }
    QStringList reasons;
    // Qt tries a list of platforms in turn, each perhaps with options after a colon.
    for (const QByteArray& entry : platform.split(';')) {
        const int colon = entry.indexOf(':');
        const QByteArray name = colon < 0 ? entry : entry.left(colon);
        if (name == "xcb") {
            if (x11DisplayReachable(display)) {
                return true;
            }
            reasons << (display.isEmpty() ? QStringLiteral("DISPLAY is not set")
                                          : QStringLiteral("the X display \"%1\" does not answer")
                                                .arg(QString::fromLocal8Bit(display)));
        } else if (name.startsWith("wayland")) {
            if (waylandDisplayReachable()) {
                return true;
            }
            reasons << QStringLiteral("no Wayland compositor answers");
        } else {
            return true; // offscreen, minimal, eglfs and the like need no desktop session
        }
    }
    *why = QStringLiteral("orvanta: no display is reachable (%1); start it in a desktop session, or "
                          "set QT_QPA_PLATFORM=offscreen to run without a window")
               .arg(reasons.join(QStringLiteral(", ")));
    return false;
}

void StartupSteps::applyOptionProperties(QCoreApplication& app, const QCommandLineParser& parser)
{
    for (const OptionSpec& flag : kOptions) {
        app.setProperty(flag.property, parser.isSet(QString::fromLatin1(flag.name)));
    }
}

QString StartupSteps::mainLogFilePath(const QString& logsPath)
{
    return logsPath + QLatin1Char('/') + logStamp() + QStringLiteral(".log");
}

QString StartupSteps::loopLogFilePath(const QString& logsPath)
{
    return logsPath + QStringLiteral("/loop_") + logStamp() + QStringLiteral(".log");
}

int StartupSteps::removeOldLogs(const QString& logsPath, const QString& currentMainLog, int keepRuns)
{
    // The stamps sort as they were made; a loop log's stamp is that of its run's main log or a
    // second later, so it goes when it is older than the oldest run kept.
    static const QRegularExpression logName(QStringLiteral(R"(^(loop_)?(\d{4}(?:_\d\d){5})\.log$)"));
    QDir dir(logsPath);
    QStringList runs;
    QList<QPair<QString, QString>> files; // stamp, name
    for (const QString& name : dir.entryList(QDir::Files)) {
        const QRegularExpressionMatch match = logName.match(name);
        if (!match.hasMatch()) {
            continue;
        }
        files.append({match.captured(2), name});
        if (match.captured(1).isEmpty()) {
            runs.append(match.captured(2));
        }
    }
    const QRegularExpressionMatch current = logName.match(QFileInfo(currentMainLog).fileName());
    if (current.hasMatch() && !runs.contains(current.captured(2))) {
        runs.append(current.captured(2));
    }
    if (runs.size() <= keepRuns) {
        return 0;
    }
    std::sort(runs.begin(), runs.end());
    const QString oldestKept = runs.at(runs.size() - keepRuns);
    int removed = 0;
    for (const auto& file : qAsConst(files)) {
        if (file.first < oldestKept && dir.remove(file.second)) {
            removed += 1;
        }
    }
    return removed;
}

void StartupSteps::honourCleanStartup()
{
    ConfigurationManager* store = ConfigurationManager::instance();
    if (!store->globalValue(QStringLiteral("cleanStartup")).toBool(false)) {
        return;
    }
    qInfo() << "The program will clean up all configuration files";
    store->reset();
    store->setGlobalValue(QStringLiteral("cleanStartup"), false);
    // Written at once, so that a run that dies before its exit does not wipe a second time.
    store->saveGlobalValues();
}

QString StartupSteps::startupParametersText()
{
    return QStringLiteral("Startup parameters: \r\n \t(") +
           QCoreApplication::arguments().join(QStringLiteral(", ")) + QLatin1Char(')');
}

QString StartupSteps::buildInfoText()
{
    // One literal: branch, revision and date are fixed when the program is built.
    return QStringLiteral("Build info : \r\n "
                          "\t Git branch : " ORVANTA_GIT_BRANCH "\r\n"
                          "\t Git commit : " ORVANTA_GIT_COMMIT "\r\n"
                          "\t Build date : " ORVANTA_BUILD_DATE "\r\n"
                          "\t App version : ") +
           QCoreApplication::applicationVersion();
}

void StartupSteps::logStartupInfo()
{
    qInfo().noquote() << startupParametersText();
    qInfo().noquote() << QStringLiteral("Runtime directory: ") + QCoreApplication::applicationDirPath();
    qInfo().noquote() << QStringLiteral("Qt env base path:") + QDir().absolutePath();
    const QString data = DataPaths::dataFolder();
    if (data.isEmpty()) {
        qWarning().noquote() << "No data folder: none of" << DataPaths::places().join(QStringLiteral(", "))
                             << "holds \"controler_config/OVController.json\"";
    } else {
        qInfo().noquote() << QStringLiteral("Data folder: ") + data;
    }
    qInfo().noquote() << buildInfoText();
}
