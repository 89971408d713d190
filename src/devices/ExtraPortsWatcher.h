#pragma once

#include "devices/PortArrivalWatcher.h"

#include <QHash>
#include <QStringList>

class QFileSystemWatcher;

// Serial ports the system does not list (pseudo-terminals, bridges), named in ORVANTA_EXTRA_PORTS
// as colon-separated paths or glob patterns (wildcards in the last path component). Their
// folders are watched: a matching path that appears, or disappears and comes back, is an arrival.
class ExtraPortsWatcher : public PortArrivalWatcher
{
    Q_OBJECT
public:
    explicit ExtraPortsWatcher(QObject* parent = nullptr);
    ExtraPortsWatcher(const QStringList& entries, QObject* parent);
    ~ExtraPortsWatcher() override;

    // The entries of ORVANTA_EXTRA_PORTS, empty ones dropped.
    static QStringList configuredEntries();
    // The existing paths the entries name now, in entry order, each once.
    static QStringList expandEntries(const QStringList& entries);

    QStringList watchedFolders() const;

private:
    void onFolderChanged(const QString& folder);
    QHash<QString, QByteArray> matchesIn(const QString& folder) const;

    QStringList entries;
    QFileSystemWatcher* watcher = nullptr; // child
    // Every matching path seen, with the identity of the file that was there, so that a path
    // removed and recreated between two notices still counts as new.
    QHash<QString, QByteArray> known;
};
