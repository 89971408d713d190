#pragma once

#include <QString>
#include <QtGlobal>

// What the system knows of an open serial line, by its descriptor.
class SerialLine
{
public:
    static bool isTerminal(qintptr handle);
    // Bytes written but not yet sent down the line (the kernel's output queue); 0 when the
    // driver keeps no count, as a pseudo-terminal's doesn't.
    static qint64 queuedOutput(qintptr handle);

    enum class Node
    {
        Same,  // the path leads to the open file
        Gone,  // nothing at the path
        Other, // another file stands there now (device and inode differ)
    };
    // Whether path still names the file open on handle, as after a device came back.
    static Node nodeAt(qintptr handle, const QString& path);
};
