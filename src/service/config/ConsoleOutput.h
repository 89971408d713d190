#pragma once

#include <QByteArray>

// Standard output of the log handler, written by a thread of its own: a logging thread only
// appends to a bounded queue and never waits for a slow, stalled or vanished reader. A line that
// does not fit is dropped and counted, and once the queue has drained the count is logged. An
// output that is closed (the reader went away) ends console logging for the run; the log files
// are not affected. The queue's lock is held only to append or take lines, never while writing.
class ConsoleOutput
{
public:
    // How much may wait for a stalled reader before lines are dropped.
    static constexpr int capacityBytes = 256 * 1024;

    // Makes a write to a pipe or socket whose reader has gone fail with an error instead of
    // ending the process with SIGPIPE. Process-wide; called first thing in main.
    static void ignoreBrokenPipe();

    static void write(const QByteArray& line);
    // Waits up to timeoutMs until everything queued has been handed to the output (or the output
    // has closed); true if it was.
    static bool drain(int timeoutMs);
    // Drains as above, then ends console output for good: at exit, so that the writing thread
    // touches nothing that is being torn down.
    static void finish(int timeoutMs);

private:
    // Writes all of `bytes` to standard output, blocking as long as it takes; false once the
    // output is closed or fails for good. In ConsoleOutputUnix.cpp.
    static bool writeToStdout(const QByteArray& bytes);
    static void run();
};
