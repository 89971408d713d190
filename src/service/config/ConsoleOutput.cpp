#include "service/config/ConsoleOutput.h"

#include "service/config/SignalStack.h"

#include <QDebug>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <utility>

namespace {

constexpr char kTag[] = "[ConsoleOutput]";

struct Queue
{
    std::mutex mutex;
    std::condition_variable wake;
    std::condition_variable drained;
    std::deque<QByteArray> lines;
    int queuedBytes = 0;
    bool writing = false;
    bool closed = false;
    quint64 dropped = 0;
};

// Never destroyed: the writing thread may still be blocked in a write when the process ends, and
// must find its queue when it wakes.
Queue& queue()
{
    static Queue* const shared = new Queue;
    return *shared;
}

} // namespace

void ConsoleOutput::write(const QByteArray& line)
{
    static std::once_flag started;
    std::call_once(started, [] { std::thread(&ConsoleOutput::run).detach(); });
    Queue& q = queue();
    {
        std::lock_guard<std::mutex> lock(q.mutex);
        if (q.closed) {
            return;
        }
        if (q.queuedBytes + line.size() > capacityBytes) {
            q.dropped += 1;
            return;
        }
        q.lines.push_back(line);
        q.queuedBytes += line.size();
    }
    q.wake.notify_one();
}

bool ConsoleOutput::drain(int timeoutMs)
{
    Queue& q = queue();
    std::unique_lock<std::mutex> lock(q.mutex);
    return q.drained.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                              [&q] { return q.closed || (q.lines.empty() && !q.writing); });
}

void ConsoleOutput::finish(int timeoutMs)
{
    drain(timeoutMs);
    Queue& q = queue();
    std::lock_guard<std::mutex> lock(q.mutex);
    q.closed = true;
    q.lines.clear();
    q.queuedBytes = 0;
}

void ConsoleOutput::run()
{
    // Lives as long as the process, so its stack is never taken back.
    SignalStack::installForCurrentThread();
    Queue& q = queue();
    std::unique_lock<std::mutex> lock(q.mutex);
    for (;;) {
        q.wake.wait(lock, [&q] { return !q.lines.empty(); });
        QByteArray chunk;
        chunk.reserve(q.queuedBytes);
        for (const QByteArray& line : q.lines) {
            chunk += line;
        }
        q.lines.clear();
        q.queuedBytes = 0;
        q.writing = true;
        lock.unlock();
        const bool open = writeToStdout(chunk);
        lock.lock();
        q.writing = false;
        if (q.closed) {
            return; // finished while this thread was writing
        }
        if (!open) {
            q.closed = true;
            q.lines.clear();
            q.drained.notify_all();
            return;
        }
        if (q.lines.empty()) {
            q.drained.notify_all();
            if (q.dropped > 0) {
                const quint64 dropped = std::exchange(q.dropped, 0);
                lock.unlock();
                qInfo().noquote() << kTag << dropped
                                  << "log lines were left out of standard output while it was full";
                lock.lock();
            }
        }
    }
}
