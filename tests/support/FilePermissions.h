#pragma once

#include <cerrno>
#include <initializer_list>
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

// Root passes every permission check, so a read-only folder or an unreadable file would be no
// fault for a suite run as root (as CI runs it). This drops the capabilities that override file
// permissions, for the calling thread, the threads it starts and the programs it runs.
namespace FilePermissions {

inline bool obey()
{
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3] = {};
    bool ok = ::syscall(SYS_capget, &header, data) == 0;
    for (int cap : {CAP_DAC_OVERRIDE, CAP_DAC_READ_SEARCH}) {
        // EPERM: never held it.
        ok = ok && (::prctl(PR_CAPBSET_DROP, cap, 0, 0, 0) == 0 || errno == EPERM);
        for (__u32* set :
             {&data[cap / 32].effective, &data[cap / 32].permitted, &data[cap / 32].inheritable}) {
            *set &= ~(__u32(1) << (cap % 32));
        }
    }
    return ok && ::syscall(SYS_capset, &header, data) == 0;
}

} // namespace FilePermissions
