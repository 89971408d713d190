#pragma once

#include "crash/CrashReport.h"

#include <QString>

// The text of --print: INFO, the registers, the modules with their load addresses, and the fault
// PC and the candidate return addresses as module + offset, named from the program's own symbols
// when its file beside the report's path still has the report's build id.
class ReportPrinter
{
public:
    static QString print(const CrashReport& report, const QString& path);
};
