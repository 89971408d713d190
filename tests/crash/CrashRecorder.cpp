// A stand-in for the crash reporter, without Qt: appends one record of how it was started to the
// file named by ORVANTA_RECORDER_OUT: its CLOCK_MONOTONIC time, its arguments and its open
// descriptors above 2.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <string>
#include <unistd.h>

int main(int argc, char** argv)
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    std::string record = "start " + std::to_string(int64_t(now.tv_sec) * 1000000000 + now.tv_nsec) + "\n";
    for (int i = 1; i < argc; ++i) {
        record += std::string("arg ") + argv[i] + "\n";
    }
    if (DIR* fds = opendir("/proc/self/fd")) {
        const int own = dirfd(fds);
        while (dirent* entry = readdir(fds)) {
            const int fd = std::atoi(entry->d_name);
            if (entry->d_name[0] != '.' && fd > 2 && fd != own) {
                record += "fd " + std::to_string(fd) + "\n";
            }
        }
        closedir(fds);
    }
    record += "end\n";
    const char* out = std::getenv("ORVANTA_RECORDER_OUT");
    if (!out) {
        return 1;
    }
    const int fd = open(out, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (fd < 0 || write(fd, record.data(), record.size()) != ssize_t(record.size())) {
        return 1;
    }
    close(fd);
    return 0;
}
