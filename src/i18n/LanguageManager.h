#pragma once

#include <QObject>
#include <QSharedPointer>
#include <QString>
#include <QStringList>
#include <QTranslator>
#include <QVector>

// Loads one translation over the Chinese source texts, remembers the choice and announces it.
class LanguageManager : public QObject
{
    Q_OBJECT
public:
    static LanguageManager* instance();
    // The language of the user's messages, cut to its code ("en", "zh").
    static QString systemLanguage();

    void loadLanguage();
    void setLanguage(QString language);
    QStringList supportedLanguages();
    void installSystemTranslators();

    QString language() const { return currentLanguage; }

signals:
    void languageChanged(QString newLanguage);

private:
    struct SystemTranslator
    {
        QString language;
        QSharedPointer<QTranslator> translator;
    };

    explicit LanguageManager(QObject* parent = nullptr);

    QTranslator translator;
    QString currentLanguage;
    QVector<SystemTranslator> systemTranslators;
};
