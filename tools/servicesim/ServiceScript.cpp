#include "ServiceScript.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMutexLocker>
#include <QUrl>

namespace {

ScriptedReply textReply(int status, const QByteArray& text)
{
    ScriptedReply r;
    r.status = status;
    r.headers = {{"Content-Type", "text/plain; charset=utf-8"}};
    r.body = text + '\n';
    return r;
}

} // namespace

void ServiceScript::setRoot(const QString& folder)
{
    QMutexLocker locker(&lock);
    root = folder;
}

void ServiceScript::setRoute(const QString& path, const ScriptedReply& reply)
{
    QMutexLocker locker(&lock);
    routes.insert(path, reply);
}

void ServiceScript::removeRoute(const QString& path)
{
    QMutexLocker locker(&lock);
    routes.remove(path);
}

void ServiceScript::clearRoutes()
{
    QMutexLocker locker(&lock);
    routes.clear();
}

int ServiceScript::connectionAccepted()
{
    QMutexLocker locker(&lock);
    return ++connections;
}

ScriptedReply ServiceScript::answer(const RecordedRequest& request)
{
    QString folder;
    {
        QMutexLocker locker(&lock);
        records.append(request);
        const auto route = routes.constFind(QUrl::fromPercentEncoding(request.path));
        if (route != routes.constEnd()) {
            return *route;
        }
        folder = root;
    }
    return fromFolder(folder, request); // file system calls outside the lock
}

QVector<RecordedRequest> ServiceScript::requests() const
{
    QMutexLocker locker(&lock);
    return records;
}

int ServiceScript::requestCount() const
{
    QMutexLocker locker(&lock);
    return records.size();
}

int ServiceScript::connectionCount() const
{
    QMutexLocker locker(&lock);
    return connections;
}

void ServiceScript::clearRecords()
{
    QMutexLocker locker(&lock);
    records.clear();
    connections = 0;
}

ScriptedReply ServiceScript::fromFolder(const QString& folder, const RecordedRequest& request)
{
    if (folder.isEmpty()) {
        return textReply(404, "no route and no folder");
    }
    // POST answers with the file too, so that a fixed reply to a form lies in the folder.
    if (request.method != "GET" && request.method != "HEAD" && request.method != "POST") {
        ScriptedReply r = textReply(405, "method not allowed");
        r.headers.append(qMakePair(QByteArray("Allow"), QByteArray("GET, HEAD, POST")));
        return r;
    }
    const QString relative = QDir::cleanPath(QUrl::fromPercentEncoding(request.path));
    const QString base = QFileInfo(folder).canonicalFilePath();
    const QFileInfo info(base + relative);
    // Nothing outside the folder is served, through ".." or through a link.
    const QString real = info.canonicalFilePath();
    if (base.isEmpty() || real.isEmpty() || !real.startsWith(base + QLatin1Char('/')) || !info.isFile()) {
        return textReply(404, "not found");
    }
    if (!info.isReadable()) {
        return textReply(403, "not readable");
    }
    ScriptedReply r;
    r.headers = {{"Content-Type", contentType(real)}};
    r.file = real;
    return r;
}

QByteArray ServiceScript::contentType(const QString& file)
{
    static const QHash<QString, QByteArray> bySuffix = {
        {QStringLiteral("json"), "application/json"},
        {QStringLiteral("png"), "image/png"},
        {QStringLiteral("jpg"), "image/jpeg"},
        {QStringLiteral("jpeg"), "image/jpeg"},
        {QStringLiteral("deb"), "application/vnd.debian.binary-package"},
        {QStringLiteral("txt"), "text/plain; charset=utf-8"},
    };
    const auto known = bySuffix.constFind(QFileInfo(file).suffix().toLower());
    if (known != bySuffix.constEnd()) {
        return *known;
    }
    // A fixed reply saved under a script's name (".php") is JSON when it looks like JSON.
    QFile f(file);
    if (f.open(QIODevice::ReadOnly)) {
        const QByteArray start = f.read(64).trimmed();
        if (start.startsWith('{') || start.startsWith('[')) {
            return "application/json";
        }
    }
    return "application/octet-stream";
}
