#pragma once

#include <QJsonObject>
#include <QMap>
#include <QObject>
#include <QString>
#include <QTimer>

// Writes the store's files on a thread of its own, so that no caller waits on the disk. Files
// asked for within one lag window are written once, with the newest content.
class ConfigurationWriter : public QObject
{
    Q_OBJECT
public:
    explicit ConfigurationWriter(int lagMs, QObject* parent = nullptr);

    // Replaces the file in one rename, so a process killed at any point leaves the old or the
    // new content, never a mix.
    static void writeFile(const QString& path, const QJsonObject& object);

public slots:
    void enqueue(const QString& path, const QJsonObject& object);
    void writePending();
    void discardPending();

private:
    QTimer timer;
    QMap<QString, QJsonObject> pending; // path -> newest content
};
