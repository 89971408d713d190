#include "ConfigurationWriter.h"

#include <QDebug>
#include <QDir>
#include <QFileInfo>
#include <QJsonDocument>
#include <QSaveFile>

#include <utility>

ConfigurationWriter::ConfigurationWriter(int lagMs, QObject* parent)
    : QObject(parent)
    , timer(this) // parented, so that it follows the writer to its thread
{
    timer.setSingleShot(true);
    timer.setInterval(lagMs);
    connect(&timer, &QTimer::timeout, this, &ConfigurationWriter::writePending);
}

void ConfigurationWriter::writeFile(const QString& path, const QJsonObject& object)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly)) {
        qWarning().noquote() << "[ConfigurationManager] Failed to save" << path << ":" << file.errorString();
        return;
    }
    file.write(QJsonDocument(object).toJson(QJsonDocument::Indented));
    if (!file.commit()) {
        qWarning().noquote() << "[ConfigurationManager] Failed to save" << path << ":" << file.errorString();
        return;
    }
    qDebug().noquote() << "[ConfigurationManager] Saved" << path;
}

void ConfigurationWriter::enqueue(const QString& path, const QJsonObject& object)
{
    pending.insert(path, object);
    if (!timer.isActive()) {
        timer.start();
    }
}

void ConfigurationWriter::writePending()
{
    timer.stop();
    const QMap<QString, QJsonObject> files = std::exchange(pending, {});
    for (auto it = files.cbegin(); it != files.cend(); ++it) {
        writeFile(it.key(), it.value());
    }
}

void ConfigurationWriter::discardPending()
{
    timer.stop();
    pending.clear();
}
