#include "service/config/SignalStack.h"

#include <csignal>
#include <sys/mman.h>
#include <unistd.h>

namespace {
// The mapping of this thread's stack, guard page included; null while it has none.
thread_local void* mapping = nullptr;
thread_local size_t mappingBytes = 0;
} // namespace

bool SignalStack::installForCurrentThread()
{
    if (!enabled()) {
        return false;
    }
    if (mapping) {
        return true;
    }
    const size_t page = size_t(::sysconf(_SC_PAGESIZE));
    const size_t bytes = page + size_t(kStackBytes);
    void* memory =
        ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
    if (memory == MAP_FAILED) {
        return false;
    }
    // Stacks grow down: the guard is the lowest page.
    if (::mprotect(memory, page, PROT_NONE) != 0) {
        ::munmap(memory, bytes);
        return false;
    }
    stack_t stack{};
    stack.ss_sp = static_cast<char*>(memory) + page;
    stack.ss_size = size_t(kStackBytes);
    stack.ss_flags = 0;
    if (::sigaltstack(&stack, nullptr) != 0) {
        ::munmap(memory, bytes);
        return false;
    }
    mapping = memory;
    mappingBytes = bytes;
    return true;
}

void SignalStack::removeForCurrentThread()
{
    if (!mapping) {
        return;
    }
    stack_t stack{};
    stack.ss_flags = SS_DISABLE;
    ::sigaltstack(&stack, nullptr);
    ::munmap(mapping, mappingBytes);
    mapping = nullptr;
    mappingBytes = 0;
}

bool SignalStack::currentThreadHasStack()
{
    stack_t current{};
    return ::sigaltstack(nullptr, &current) == 0 && !(current.ss_flags & SS_DISABLE);
}
