#pragma once

#include <QtGlobal>

// What the system knows of an open serial line, by its descriptor.
class SerialLine
{
public:
    static bool isTerminal(qintptr handle);
    // Bytes written but not yet sent down the line (the kernel's output queue); 0 when the
    // driver keeps no count, as a pseudo-terminal's doesn't.
    static qint64 queuedOutput(qintptr handle);
};
