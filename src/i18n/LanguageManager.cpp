#include "i18n/LanguageManager.h"

#include "service/config/ConfigurationManager.h"
#include "service/config/DataPaths.h"

#include <QCoreApplication>
#include <QDir>
#include <QJsonObject>
#include <QLocale>
#include <QPointer>

namespace {
const QString kQmPattern = QStringLiteral("orvanta_*.qm");

QString languagesFolder(DataPaths::First first)
{
    return DataPaths::folderWith(QStringLiteral("languages"), kQmPattern, first);
}
} // namespace

QString LanguageManager::systemLanguage()
{
    // The messages' language (LANGUAGE, LC_ALL, LC_MESSAGES, LANG), not the one of the number
    // format that QLocale::system().name() follows. "zh-Hans-CN" and "zh_CN" give "zh"; a name
    // without a country, such as "en", stays as it is.
    const QStringList languages = QLocale::system().uiLanguages();
    const QString first = languages.isEmpty() ? QString() : languages.first();
    return first.section(QLatin1Char('-'), 0, 0).section(QLatin1Char('_'), 0, 0);
}

LanguageManager* LanguageManager::instance()
{
    // Parented to the application when one exists, so that it goes before the application does.
    static QPointer<LanguageManager> manager;
    if (!manager) {
        manager = new LanguageManager(QCoreApplication::instance());
    }
    return manager;
}

LanguageManager::LanguageManager(QObject* parent)
    : QObject(parent)
{
}

void LanguageManager::loadLanguage()
{
    const QJsonObject& app = ConfigurationManager::instance()->AppConfigJsonObj();
    QString language;
    if (app.isEmpty() || !app.contains(QStringLiteral("language"))) {
        language = systemLanguage();
        qInfo().noquote() << "No saved language settings,OS language is" << language;
    } else {
        language = app.value(QStringLiteral("language")).toString();
        qInfo().noquote() << "Get saved language settings:" << language;
    }
    setLanguage(language);
}

void LanguageManager::setLanguage(QString language)
{
    if (language == currentLanguage) {
        return;
    }
    QCoreApplication::removeTranslator(&translator);
    const QString path = DataPaths::locate(QStringLiteral("languages/orvanta_%1.qm").arg(language),
                                           DataPaths::First::ProgramFolder);
    if (!translator.load(path)) {
        qDebug().noquote() << "Failed to load translation file for language:" << language;
        return;
    }
    QCoreApplication::installTranslator(&translator);
    currentLanguage = language;
    ConfigurationManager* config = ConfigurationManager::instance();
    config->AppConfigJsonObj().insert(QStringLiteral("language"), language);
    config->saveAppConfigJsonObj();
    emit languageChanged(language);
    qDebug().noquote() << "InstallTranslator:" << path;
}

QStringList LanguageManager::supportedLanguages()
{
    QStringList languages;
    const QString folder = languagesFolder(DataPaths::First::WorkingFolder);
    const QStringList files =
        folder.isEmpty() ? QStringList() : QDir(folder).entryList({kQmPattern}, QDir::Files);
    for (const QString& file : files) {
        const int first = file.indexOf(QLatin1Char('_'));
        const int last = file.lastIndexOf(QLatin1Char('.'));
        languages << file.mid(first + 1, last - first - 1);
    }
    return languages;
}

void LanguageManager::installSystemTranslators()
{
    systemTranslators.clear();
    systemTranslators.append({QStringLiteral("zh"), QSharedPointer<QTranslator>()});
    if (QLocale().bcp47Name().startsWith(QLatin1String("zh"), Qt::CaseInsensitive)) {
        return;
    }
    const QString folder = languagesFolder(DataPaths::First::WorkingFolder);
    QSharedPointer<QTranslator> english(new QTranslator);
    if (english->load(QStringLiteral("orvanta_en"), folder, QStringLiteral("_"), QStringLiteral(".qm"))) {
        QCoreApplication::installTranslator(english.data());
        systemTranslators.append({QStringLiteral("en"), english});
        qInfo() << "The en translator has been installed";
    }
    if (QLocale().bcp47Name().startsWith(QLatin1String("en"), Qt::CaseInsensitive)) {
        return;
    }
    const QLocale locale;
    QSharedPointer<QTranslator> system(new QTranslator);
    if (system->load(locale, QStringLiteral("orvanta"), QStringLiteral("_"), folder, QStringLiteral(".qm"))) {
        QCoreApplication::installTranslator(system.data());
        const QString country = QLocale::countryToString(locale.country());
        systemTranslators.append({country, system});
        qInfo().noquote() << "The" << country << "translator has been installed";
    } else {
        qCritical() << "The application could not find a system-specific translator";
    }
}
