#pragma once

#include <QByteArray>
#include <QMap>
#include <QString>
#include <QStringList>

// The desktop's entry that starts the program at login, in the XDG autostart folder
// ("$XDG_CONFIG_HOME/autostart/<name>.desktop"), marked as the program's own. A file of that name
// without the mark, or one that does not read as a desktop entry, is somebody else's and is never
// touched. Reading and writing the file are in AutostartEntryXdg.cpp; the rest is pure.
class AutostartEntry
{
public:
    enum class State
    {
        Absent,
        On,      // ours, switched on, starting this program with the argument
        Off,     // ours, but switched off by a desktop tool or starting another program path
        Foreign, // not ours (no mark, does not parse, not a regular file): left alone
    };
    enum class Result
    {
        Done,
        Refused, // the file is foreign
        Failed,  // the file system said no
    };
    // The keys of the "[Desktop Entry]" group, their values unescaped; `problem` says why the bytes
    // are no desktop entry, empty when they are one.
    struct Contents
    {
        QMap<QString, QString> values;
        QString problem;
    };

    static constexpr char markKey[] = "X-Orvanta-Autostart";
    static constexpr qint64 maxBytes = 64 * 1024;

    AutostartEntry(const QString& name, const QString& program, const QString& argument);
    // applicationName, applicationFilePath and "--auto_startup".
    static AutostartEntry forThisProgram();

    QString filePath() const;
    // With Foreign, `why` says what makes it so.
    State state(QString* why = nullptr) const;
    // Writes the entry, atomically, over ours in any state; refuses a foreign file.
    Result enable(QString* why);
    // Removes ours, whatever its state; a foreign file stays.
    Result disable(QString* why);

    static QByteArray render(const QString& program, const QString& argument);
    static Contents parse(const QByteArray& bytes);
    // The command line of an "Exec" value (string escapes already undone); `ok` false when the
    // quoting is broken.
    static QStringList execArguments(const QString& exec, bool* ok);
    static State judge(const Contents& contents, const QString& program, const QString& argument,
                       QString* why = nullptr);

private:
    QString name;
    QString program;
    QString argument;
};
