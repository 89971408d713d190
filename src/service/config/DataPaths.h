#pragma once

#include <QString>
#include <QStringList>

// Where the read-only data lies: the working directory, beside the program, and the installed
// data folder (ORVANTA_DATA_FROM_PROGRAM from the program's folder). A caller names which of the
// first two it looks in first; the installed folder always comes last.
class DataPaths
{
public:
    enum class First
    {
        WorkingFolder,
        ProgramFolder
    };

    // The folders looked in, in order; the working directory as "." and duplicates left out.
    static QStringList places(First first = First::WorkingFolder);

    // The first place holding the file or folder `name`. Found nowhere, the name in the first
    // place comes back (relative for the working directory), so that opening it fails with a
    // message naming what the caller has always named. An absolute name comes back unchanged.
    static QString locate(const QString& name, First first = First::WorkingFolder);

    // The folder `name` of the first place holding a file that matches `pattern`, so that an
    // empty folder never hides a later one; else the first place where the folder exists; else
    // an empty string.
    static QString folderWith(const QString& name, const QString& pattern, First first);

    // The place the program's own data comes from (the model defaults), for the start-up log;
    // empty when no place holds it.
    static QString dataFolder();

private:
    static QString inPlace(const QString& place, const QString& name);
};
