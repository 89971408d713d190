#pragma once

class QThread;

// The alternate signal stack of one thread: 64 KiB with an unreadable guard page below it, so that
// the crash handler can run on a thread whose own stack has overflowed. The main thread gets one
// when crash capture starts; every QThread the program makes is watched before start(), gets its
// stack on `started` and loses it on `finished`, both on the thread itself. Threads of libraries
// have none. Nothing is made in sanitizer builds, whose own handlers keep theirs.
class SignalStack
{
public:
    static constexpr int kStackBytes = 64 * 1024;

    // Whether stacks are made at all in this build.
    static bool enabled();
    // Before thread->start(); safe to call more than once for a thread.
    static void watch(QThread* thread);
    // For the calling thread; true when it has its stack (made now or before).
    static bool installForCurrentThread();
    static void removeForCurrentThread();
    static bool currentThreadHasStack();
};
