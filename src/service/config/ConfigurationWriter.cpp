#include "service/config/ConfigurationWriter.h"

#include "service/config/ConfigurationFile.h"

#include <QDebug>
#include <QJsonDocument>

#include <algorithm>
#include <chrono>
#include <limits>
#include <utility>

// Logs under ConfigurationManager's name: the log texts of this part are fixed that way.
constexpr char kTag[] = "[ConfigurationManager]";

ConfigurationWriter::ConfigurationWriter(int lagMs, QObject* parent)
    : QObject(parent)
    , aimMs(lagMs - lagMs / 10)
    , timer(this) // parented, so that it follows the writer to its thread
{
    timer.setSingleShot(true);
    // A coarse timer may fire late by a twentieth of its interval, past the promise.
    timer.setTimerType(Qt::PreciseTimer);
    // Through the queue too: a timer may fire ahead of calls queued while a write was under way.
    connect(&timer, &QTimer::timeout, this, &ConfigurationWriter::postWrite);
}

qint64 ConfigurationWriter::nowMs()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
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

void ConfigurationWriter::enqueue(const QString& path, const QJsonObject& object, qint64 requestedMs)
{
    FileState& state = files[path];
    if (state.known && state.onDisk == object) {
        // Back to what the file holds: nothing left to write.
        state.pending = false;
        state.wanted = QJsonObject();
        return;
    }
    state.requestedMs = state.pending ? std::min(state.requestedMs, requestedMs) : requestedMs;
    state.wanted = object;
    state.pending = true;
    if (nowMs() >= dueMs(state)) {
        postWrite();
    } else {
        schedule();
    }
}

void ConfigurationWriter::postWrite()
{
    // Behind the calls already queued: after a slow write, the newest content goes out once
    // instead of every intermediate one.
    if (!writePosted) {
        writePosted = true;
        QMetaObject::invokeMethod(this, &ConfigurationWriter::writeDue, Qt::QueuedConnection);
    }
}

qint64 ConfigurationWriter::dueMs(const FileState& state) const
{
    if (state.failures > 0) {
        return state.retryMs;
    }
    if (!state.started) {
        return state.requestedMs;
    }
    // From the previous write's start, not its end: a slow write does not push the next one back.
    // From the request when that is earlier: a change asked for while this file was being written
    // waited on the thread, and its lag has been running since.
    return std::min(state.startedMs, state.requestedMs) + aimMs;
}

void ConfigurationWriter::writeOne(const QString& path, FileState& state)
{
    state.startedMs = nowMs();
    state.started = true;
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
        return;
    }
    state.failures += 1;
    const int shift = std::min(state.failures - 1, 16);
    state.retryMs = nowMs() + std::min<qint64>(qint64(firstRetryMs) << shift, longestRetryMs);
    if (error != state.warnedCause) {
        qWarning().noquote() << kTag << "Failed to save" << path << ":" << error
                             << "- kept, and tried again until it works or the program ends";
        state.warnedCause = error;
    }
}

void ConfigurationWriter::writeDue()
{
    writePosted = false;
    // One file at a time, the longest due first, so that what was asked for meanwhile is taken in
    // before the next one is written.
    const qint64 now = nowMs();
    auto first = files.end();
    int due = 0;
    for (auto it = files.begin(); it != files.end(); ++it) {
        if (it->pending && dueMs(*it) <= now) {
            due += 1;
            if (first == files.end() || dueMs(*it) < dueMs(*first)) {
                first = it;
            }
        }
    }
    if (first != files.end()) {
        writeOne(first.key(), first.value());
    }
    if (due > 1) {
        postWrite();
    }
    schedule();
}

void ConfigurationWriter::schedule()
{
    qint64 next = std::numeric_limits<qint64>::max();
    for (const FileState& state : qAsConst(files)) {
        if (state.pending) {
            next = std::min(next, dueMs(state));
        }
    }
    if (next == std::numeric_limits<qint64>::max()) {
        timer.stop();
        return;
    }
    timer.start(int(std::clamp<qint64>(next - nowMs(), 0, std::numeric_limits<int>::max())));
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
