#pragma once

#include <QString>
#include <QtGlobal>

// What a running process holds, from /proc: -1 when it cannot be read.
namespace ProcessProbe {

int openDescriptors(qint64 pid);
int threads(qint64 pid);
qint64 residentKb(qint64 pid);
// Regular files under a folder, its subfolders included.
int filesUnder(const QString& folder);

} // namespace ProcessProbe
