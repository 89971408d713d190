#pragma once

#include <cerrno>
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

// Root passes every permission check, so a read-only folder or an unreadable file is no fault for
// a suite run as root (as CI runs it). Dropping the capabilities that override file permissions
// makes them real for the calling thread, the threads it starts afterwards and every program it
// runs. Call it first, from the main thread.
namespace FilePermissions {

inline bool obey()
{
    const int overrides[] = {CAP_DAC_OVERRIDE, CAP_DAC_READ_SEARCH};
    for (int cap : overrides) {
        // EPERM: not privileged enough to hold it in the first place.
        if (::prctl(PR_CAPBSET_DROP, cap, 0, 0, 0) != 0 && errno != EPERM) {
            return false;
        }
    }
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3] = {};
    if (::syscall(SYS_capget, &header, data) != 0) {
        return false;
    }
    for (int cap : overrides) {
        const __u32 bit = __u32(1) << (cap % 32);
        data[cap / 32].effective &= ~bit;
        data[cap / 32].permitted &= ~bit;
        data[cap / 32].inheritable &= ~bit;
    }
    return ::syscall(SYS_capset, &header, data) == 0;
}

} // namespace FilePermissions
