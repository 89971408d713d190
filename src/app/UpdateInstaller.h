#pragma once

#include <QString>

// Hands a verified package to the system's installer, which asks for the administrator's
// password, and brings the program back once it is done.
class UpdateInstaller
{
public:
    // Starts the installer detached: it waits for this process to end, installs `package` and
    // starts the program again, the new one or, after a cancel, the old. False, with `problem`
    // naming what is missing, when it cannot run here.
    static bool startDetached(const QString& package, QString* problem);
};
