#pragma once

#include <QString>

// Helpers shared by the discovery suites and benchmark.
class DiscoveryFixture
{
public:
    // Runs pending deleteLater calls, including those queued by the deletions themselves.
    static void flushDeletes();
    // Copies a folder tree; false if anything could not be copied.
    static bool copyTree(const QString& from, const QString& to);
    // Puts the program's device data (defaults file and pictures) into `folder`.
    static bool installDeviceData(const QString& sourceDataDir, const QString& folder);
};
