#pragma once

#include <pipewire/thread-loop.h>

// Holds a PipeWire thread loop's lock for a scope; a null loop holds nothing.
class PipeWireLoopLock
{
public:
    explicit PipeWireLoopLock(pw_thread_loop* loop)
        : loop(loop)
    {
        if (loop) {
            pw_thread_loop_lock(loop);
        }
    }
    ~PipeWireLoopLock()
    {
        if (loop) {
            pw_thread_loop_unlock(loop);
        }
    }
    PipeWireLoopLock(const PipeWireLoopLock&) = delete;
    PipeWireLoopLock& operator=(const PipeWireLoopLock&) = delete;

private:
    pw_thread_loop* loop;
};
