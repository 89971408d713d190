#include "i18n/LanguageManager.h"

#include "service/config/ConfigurationManager.h"

#include <QCoreApplication>
#include <QDir>
#include <QJsonObject>
#include <QLocale>
#include <QPointer>

namespace {
// "zh_CN" gives "zh"; a name without "_" gives the empty code.
QString languageOfLocale(const QString& localeName)
{
    return localeName.left(qMax(0, localeName.lastIndexOf(QLatin1Char('_'))));
}
} // namespace

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
        language = languageOfLocale(QLocale::system().name());
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
    const QString path = QCoreApplication::applicationDirPath() + QStringLiteral("/languages/") +
                         QStringLiteral("orvanta_%1.qm").arg(language);
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
    const QStringList files =
        QDir(QStringLiteral("languages")).entryList({QStringLiteral("orvanta_*.qm")}, QDir::Files);
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
    QSharedPointer<QTranslator> english(new QTranslator);
    if (english->load(QStringLiteral("orvanta_en"), QStringLiteral("languages"), QStringLiteral("_"),
                      QStringLiteral(".qm"))) {
        QCoreApplication::installTranslator(english.data());
        systemTranslators.append({QStringLiteral("en"), english});
        qInfo() << "The en translator has been installed";
    }
    if (QLocale().bcp47Name().startsWith(QLatin1String("en"), Qt::CaseInsensitive)) {
        return;
    }
    const QLocale locale;
    QSharedPointer<QTranslator> system(new QTranslator);
    if (system->load(locale, QStringLiteral("orvanta"), QStringLiteral("_"), QStringLiteral("languages"),
                     QStringLiteral(".qm"))) {
        QCoreApplication::installTranslator(system.data());
        const QString country = QLocale::countryToString(locale.country());
        systemTranslators.append({country, system});
        qInfo().noquote() << "The" << country << "translator has been installed";
    } else {
        qCritical() << "The application could not find a system-specific translator";
    }
}
