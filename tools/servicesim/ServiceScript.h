#pragma once

#include "RecordedRequest.h"
#include "ScriptedReply.h"

#include <QHash>
#include <QMutex>
#include <QString>
#include <QVector>

// What the local service answers, and what it was asked: the scripted routes, the folder behind
// them, and the record of connections and requests. Shared by the thread that serves and the
// threads that script and inspect it; every call takes the lock.
class ServiceScript
{
public:
    void setRoot(const QString& folder);
    // A route answers every method at this path (decoded, no query) until it is replaced.
    void setRoute(const QString& path, const ScriptedReply& reply);
    void removeRoute(const QString& path);
    void clearRoutes();

    // Counts an accepted connection; its number, from 1.
    int connectionAccepted();
    // Records the request and picks its answer: its route, else the folder's file, else 404.
    ScriptedReply answer(const RecordedRequest& request);

    QVector<RecordedRequest> requests() const;
    int requestCount() const;
    int connectionCount() const;
    void clearRecords();

private:
    static ScriptedReply fromFolder(const QString& folder, const RecordedRequest& request);
    static QByteArray contentType(const QString& file);

    mutable QMutex lock;
    QString root;
    QHash<QString, ScriptedReply> routes;
    QVector<RecordedRequest> records;
    int connections = 0;
};
