#pragma once

#include <QString>

// Where a read-only data file lies: the working directory first, else beside the program.
// A relative name found in neither place comes back unchanged, so that opening it fails with a
// message naming the file.
QString locateDefaultsFile(const QString& name);
