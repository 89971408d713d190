#include "service/config/ConfigurationWriter.h"

#include "service/config/ConfigurationFile.h"

#include <QDebug>
#include <QJsonDocument>

#include <algorithm>
#include <limits>
#include <utility>

// Logs under ConfigurationManager's name: the log texts of this part are fixed that way.
constexpr char kTag[] = "[ConfigurationManager]";

ConfigurationWriter::ConfigurationWriter(int lagMs, QObject* parent)
    : QObject(parent)
    , lagMs(lagMs)
    , timer(this) // parented, so that it follows the writer to its thread
{
    clock.start();
    timer.setSingleShot(true);
    connect(&timer, &QTimer::timeout, this, &ConfigurationWriter::writeDue);
}

bool ConfigurationWriter::writeFile(const QString& path, const QJsonObject& object, QString* error)
{
    return ConfigurationFile::write(path, QJsonDocument(object).toJson(QJsonDocument::Indented), error);
}

void ConfigurationWriter::noteOnDisk(const QString& path, const QJsonObject& object)
{
    FileState& state = files[path];
    state.onDisk = object;
    state.known = true;
}

void ConfigurationWriter::enqueue(const QString& path, const QJsonObject& object)
{
    FileState& state = files[path];
    if (state.known && state.onDisk == object) {
        // Back to what the file holds: nothing left to write.
        state.pending = false;
        state.wanted = QJsonObject();
        return;
    }
    state.wanted = object;
    state.pending = true;
    if (clock.elapsed() >= state.notBeforeMs) {
        writeOne(path, state);
    }
    schedule();
}

void ConfigurationWriter::writeOne(const QString& path, FileState& state)
{
    QString error;
    if (writeFile(path, state.wanted, &error)) {
        if (state.failures > 0) {
            qInfo().noquote() << kTag << "Saved" << path << "after" << state.failures << "failed tries";
        } else {
            qDebug().noquote() << kTag << "Saved" << path;
        }
        state.onDisk = std::exchange(state.wanted, QJsonObject());
        state.known = true;
        state.pending = false;
        state.failures = 0;
        state.warnedCause.clear();
        state.notBeforeMs = clock.elapsed() + lagMs;
        return;
    }
    state.failures += 1;
    const int shift = std::min(state.failures - 1, 16);
    state.notBeforeMs = clock.elapsed() + std::min<qint64>(qint64(firstRetryMs) << shift, longestRetryMs);
    if (error != state.warnedCause) {
        qWarning().noquote() << kTag << "Failed to save" << path << ":" << error
                             << "- kept, and tried again until it works or the program ends";
        state.warnedCause = error;
    }
}

void ConfigurationWriter::writeDue()
{
    const qint64 now = clock.elapsed();
    for (auto it = files.begin(); it != files.end(); ++it) {
        if (it->pending && it->notBeforeMs <= now) {
            writeOne(it.key(), it.value());
        }
    }
    schedule();
}

void ConfigurationWriter::schedule()
{
    qint64 next = std::numeric_limits<qint64>::max();
    for (const FileState& state : qAsConst(files)) {
        if (state.pending) {
            next = std::min(next, state.notBeforeMs);
        }
    }
    if (next == std::numeric_limits<qint64>::max()) {
        timer.stop();
        return;
    }
    timer.start(int(std::max<qint64>(0, next - clock.elapsed())));
}

void ConfigurationWriter::writePending()
{
    for (auto it = files.begin(); it != files.end(); ++it) {
        if (it->pending) {
            writeOne(it.key(), it.value());
        }
    }
    schedule();
}

void ConfigurationWriter::discardPending()
{
    timer.stop();
    files.clear();
}
