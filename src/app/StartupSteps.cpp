#include "StartupSteps.h"

#include "BuildInfo.h"
#include "ConfigurationManager.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDateTime>
#include <QDir>

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
    qInfo().noquote() << buildInfoText();
}
