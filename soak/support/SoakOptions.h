#pragma once

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QRandomGenerator>
#include <QString>

#include <cstdio>

// The command line every soak program shares: how long (a count of cycles, or seconds), the
// program to drive (beside the soak program by default), a fault of the soak build to switch on
// in it, and the seed of the random choices, printed so that a run can be repeated.
struct SoakOptions
{
    int length = 0;
    QString program;
    QString fault;
    quint32 seed = 0;

    // False, with the usage printed, when the command line is wrong.
    bool parse(const QCoreApplication& app, const QString& lengthName, int defaultLength)
    {
        QCommandLineParser parser;
        parser.addHelpOption();
        parser.addPositionalArgument(lengthName, QStringLiteral("how long to run"));
        const QCommandLineOption programOption(
            QStringLiteral("program"), QStringLiteral("the program to drive"), QStringLiteral("path"),
            QCoreApplication::applicationDirPath() + QStringLiteral("/orvanta"));
        const QCommandLineOption faultOption(QStringLiteral("fault"),
                                             QStringLiteral("a fault of the soak build to switch on"),
                                             QStringLiteral("name"));
        const QCommandLineOption seedOption(QStringLiteral("seed"), QStringLiteral("the random seed"),
                                            QStringLiteral("n"));
        parser.addOptions({programOption, faultOption, seedOption});
        parser.process(app);
        const QStringList positional = parser.positionalArguments();
        bool ok = true;
        length = positional.isEmpty() ? defaultLength : positional.first().toInt(&ok);
        if (!ok || length <= 0) {
            std::fprintf(stderr, "%s\n", qPrintable(parser.helpText()));
            return false;
        }
        program = parser.value(programOption);
        fault = parser.value(faultOption);
        seed = parser.isSet(seedOption) ? parser.value(seedOption).toUInt()
                                        : QRandomGenerator::system()->generate();
        return true;
    }
};
