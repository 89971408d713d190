#pragma once

#include <QString>
#include <QVector>

// A version is exactly four dot-separated runs of 1 to 9 decimal digits ("0.2.0.230805"); its
// numbers, left to right, or an empty vector for anything else.
QVector<quint32> versionNumbers(const QString& version);

// True when newVersion is newer than oldVersion, number by number from the left; false when
// either is malformed. "0.10.0.1" is newer than "0.9.0.1"; "0.2.0.0230805" equals "0.2.0.230805".
bool compareVersion(QString newVersion, QString oldVersion);
