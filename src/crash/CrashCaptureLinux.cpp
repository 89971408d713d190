#include "crash/CrashCapture.h"

#include "BuildInfo.h"
#include "crash/CrashReportFormat.h"
#include "service/config/MessageHandler.h"
#include "service/config/SignalStack.h"

#include <QByteArray>
#include <QCoreApplication>
#include <QDebug>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QUuid>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <link.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <ucontext.h>
#include <unistd.h>

extern char** environ;

namespace {

constexpr char kTag[] = "[QBreakpadHandler]";
namespace F = CrashReportFormat;

constexpr int kSignals[] = {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT};
constexpr int kSignalCount = int(sizeof(kSignals) / sizeof(kSignals[0]));
constexpr unsigned kHandlerTimeLimitSeconds = 10;
constexpr size_t kPathBytes = PATH_MAX + 64;
constexpr int kMaxReporterArgs = 16;

int64_t monotonicNs()
{
    timespec ts{};
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    return int64_t(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

// Taken when the program is loaded, for the uptime of a crash.
const int64_t processStartNs = monotonicNs();

struct FixedString
{
    char text[F::kMaxStringBytes];
    uint32_t length = 0;

    void set(const QByteArray& bytes)
    {
        length = uint32_t(std::min<qsizetype>(bytes.size(), sizeof(text) - 1));
        std::memcpy(text, bytes.constData(), length);
        text[length] = '\0';
    }
};

// Everything the signal side reads, written only on the main thread before the handlers exist.
struct Prepared
{
    int folderFd = -1;
    char reportName[64];
    char reportPath[kPathBytes];
    char mainLogPath[kPathBytes];
    FixedString version, revision, buildId, executable, architecture, kernel;
    int32_t utcOffsetSeconds = 0;
    pid_t mainTid = 0;
    CrashCapture::Hook hook = nullptr;
    // The reporter: program, arguments, the vector execve takes.
    bool hasReporter = false;
    char reporterStrings[kMaxReporterArgs][kPathBytes];
    char* reporterArgv[kMaxReporterArgs + 1];
    struct sigaction previous[kSignalCount];
};

Prepared prepared;
std::atomic<bool> entered{false};
std::atomic<bool> faultAfterInfo{false};
int* volatile faultTarget = nullptr;

// -- Async-signal-safe helpers ------------------------------------------------------------------

// Appends to a fixed line buffer; what does not fit is cut.
struct LineBuffer
{
    char text[kPathBytes + 256];
    size_t length = 0;

    void add(const char* s, size_t n)
    {
        n = std::min(n, sizeof(text) - length);
        std::memcpy(text + length, s, n);
        length += n;
    }
    void add(const char* s) { add(s, std::strlen(s)); }
    void addNumber(uint64_t value, unsigned base = 10, int width = 0)
    {
        char digits[24];
        int n = 0;
        do {
            digits[n++] = "0123456789abcdef"[value % base];
            value /= base;
        } while (value > 0 && n < int(sizeof(digits)));
        while (n < width && n < int(sizeof(digits))) {
            digits[n++] = '0';
        }
        while (n > 0) {
            add(&digits[--n], 1);
        }
    }
};

bool writeAll(int fd, const void* data, size_t bytes)
{
    const char* p = static_cast<const char*>(data);
    while (bytes > 0) {
        const ssize_t n = ::write(fd, p, bytes);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        p += n;
        bytes -= size_t(n);
    }
    return true;
}

// Days since 1970-01-01 to a civil date (proleptic Gregorian).
void civilFromDays(int64_t days, int64_t* year, unsigned* month, unsigned* day)
{
    days += 719468;
    const int64_t era = (days >= 0 ? days : days - 146096) / 146097;
    const unsigned doe = unsigned(days - era * 146097);
    const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const unsigned mp = (5 * doy + 2) / 153;
    *day = doy - (153 * mp + 2) / 5 + 1;
    *month = mp < 10 ? mp + 3 : mp - 9;
    *year = int64_t(yoe) + era * 400 + (*month <= 2 ? 1 : 0);
}

// The writer of one report: a file descriptor, the bytes so far and where the open section began.
struct ReportWriter
{
    int fd = -1;
    uint64_t offset = 0;
    uint64_t sectionStart = 0;
    bool ok = true;

    void put(const void* data, size_t bytes)
    {
        if (ok && !writeAll(fd, data, bytes)) {
            ok = false;
        }
        offset += bytes;
    }
    void putU32(uint32_t v) { put(&v, sizeof(v)); }
    void putU64(uint64_t v) { put(&v, sizeof(v)); }
    void putString(const FixedString& s)
    {
        putU32(s.length);
        put(s.text, s.length);
    }
    void begin(uint32_t tag)
    {
        sectionStart = offset;
        putU32(tag);
        putU32(0); // the length, written when the section ends
    }
    void end()
    {
        const uint32_t length = uint32_t(offset - sectionStart - F::kSectionHeaderBytes);
        if (ok && ::pwrite(fd, &length, sizeof(length), off_t(sectionStart + 4)) != sizeof(length)) {
            ok = false;
        }
        static const char zeros[8] = {};
        put(zeros, (8 - offset % 8) % 8);
    }
    // Copies memory straight to the file: the kernel reads it, so an unreadable page is an EFAULT
    // and never a second fault. Pages unreadable before the first readable one are skipped;
    // returns the address of the first byte copied.
    uintptr_t copyMemory(uintptr_t from, size_t bytes)
    {
        const uintptr_t page = uintptr_t(::sysconf(_SC_PAGESIZE));
        const uintptr_t limit = from + bytes;
        uintptr_t start = 0;
        for (uintptr_t at = from; at < limit;) {
            const size_t chunk = size_t(std::min(limit, (at / page + 1) * page) - at);
            const ssize_t n = ::write(fd, reinterpret_cast<const void*>(at), chunk);
            if (n < 0 && errno == EINTR) {
                continue;
            }
            if (n < 0 && errno == EFAULT) {
                if (start != 0) {
                    break;
                }
                at += chunk; // still below the readable part: the guard of an overflowed stack
                continue;
            }
            if (n <= 0) {
                ok = false;
                break;
            }
            if (start == 0) {
                start = at;
            }
            offset += uint64_t(n);
            at += uintptr_t(n);
        }
        return start;
    }
    // Copies at most `bytes` from the file `fd`, from `position` on.
    void copyFile(int from, off_t position, size_t bytes)
    {
        static char buffer[16384];
        if (::lseek(from, position, SEEK_SET) < 0) {
            return;
        }
        while (bytes > 0) {
            const ssize_t n = ::read(from, buffer, std::min(bytes, sizeof(buffer)));
            if (n < 0 && errno == EINTR) {
                continue;
            }
            if (n <= 0) {
                break;
            }
            put(buffer, size_t(n));
            bytes -= size_t(n);
        }
    }
};

void writeRegisters(ReportWriter& w, const ucontext_t* uc, uintptr_t* sp)
{
#if defined(__x86_64__)
    w.putU32(F::X86_64);
    w.putU32(NGREG);
    for (int i = 0; i < NGREG; ++i) {
        w.putU64(uint64_t(uc->uc_mcontext.gregs[i]));
    }
    *sp = uintptr_t(uc->uc_mcontext.gregs[REG_RSP]);
#elif defined(__aarch64__)
    w.putU32(F::Aarch64);
    w.putU32(34);
    for (int i = 0; i < 31; ++i) {
        w.putU64(uc->uc_mcontext.regs[i]);
    }
    w.putU64(uc->uc_mcontext.sp);
    w.putU64(uc->uc_mcontext.pc);
    w.putU64(uc->uc_mcontext.pstate);
    *sp = uintptr_t(uc->uc_mcontext.sp);
#else
    Q_UNUSED(uc)
    w.putU32(F::UnknownArchitecture);
    w.putU32(0);
    *sp = 0;
#endif
}

bool writeReport(int signalNumber, const siginfo_t* info, const ucontext_t* uc)
{
    ReportWriter w;
    w.fd = ::openat(prepared.folderFd, prepared.reportName, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (w.fd < 0) {
        return false;
    }
    w.put(F::kMagic, sizeof(F::kMagic));
    w.putU32(F::kVersion);
    w.putU32(0);

    timespec realtime{};
    ::clock_gettime(CLOCK_REALTIME, &realtime);
    const int64_t faultNs = monotonicNs();
    const pid_t tid = pid_t(::gettid());
    w.begin(F::Info);
    w.putU32(uint32_t(signalNumber));
    w.putU32(uint32_t(info->si_code));
    w.putU64(uint64_t(uintptr_t(info->si_addr)));
    w.putU32(uint32_t(::getpid()));
    w.putU32(uint32_t(tid));
    w.putU32(tid == prepared.mainTid ? 1 : 0);
    w.putU32(uint32_t(prepared.utcOffsetSeconds));
    w.putU64(uint64_t(int64_t(realtime.tv_sec) * 1000000000 + realtime.tv_nsec));
    w.putU64(uint64_t(faultNs));
    w.putU64(uint64_t(faultNs - processStartNs));
    w.putString(prepared.version);
    w.putString(prepared.revision);
    w.putString(prepared.buildId);
    w.putString(prepared.executable);
    w.putString(prepared.architecture);
    w.putString(prepared.kernel);
    w.end();

    if (faultAfterInfo.load()) {
        *faultTarget = 1; // the crash test of a fault inside the handler
    }

    uintptr_t sp = 0;
    w.begin(F::Regs);
    writeRegisters(w, uc, &sp);
    w.end();

    w.begin(F::Stack);
    const uintptr_t from = sp > F::kRedZoneBytes ? sp - F::kRedZoneBytes : 0;
    w.putU64(0); // the address, once the copy knows where it began
    const uint64_t addressAt = w.offset - 8;
    const uint64_t start = w.copyMemory(from, F::kMaxStackBytes);
    if (::pwrite(w.fd, &start, sizeof(start), off_t(addressAt)) != sizeof(start)) {
        w.ok = false;
    }
    w.end();

    w.begin(F::Maps);
    const int maps = ::open("/proc/self/maps", O_RDONLY | O_CLOEXEC);
    if (maps >= 0) {
        w.copyFile(maps, 0, F::kMaxMapsBytes);
        ::close(maps);
    }
    w.end();

    w.begin(F::Log);
    const int log = prepared.mainLogPath[0] ? ::open(prepared.mainLogPath, O_RDONLY | O_CLOEXEC) : -1;
    if (log >= 0) {
        struct stat st
        {
        };
        if (::fstat(log, &st) == 0) {
            const off_t from = st.st_size > off_t(F::kMaxLogBytes) ? st.st_size - off_t(F::kMaxLogBytes) : 0;
            w.copyFile(log, from, F::kMaxLogBytes);
        }
        ::close(log);
    }
    w.end();

    w.begin(F::End);
    w.putU64(w.sectionStart + F::kSectionHeaderBytes + 16); // END's own end
    w.putU64(uint64_t(monotonicNs()));
    w.end();
    const bool ok = w.ok;
    ::close(w.fd);
    return ok;
}

extern "C" void onFatalSignal(int signalNumber, siginfo_t* info, void* context)
{
    if (entered.exchange(true)) {
        for (;;) {
            ::pause(); // a second faulting thread waits for the first to end the process
        }
    }
    ::alarm(kHandlerTimeLimitSeconds); // a hung disk ends the handler
    const bool written = writeReport(signalNumber, info, static_cast<const ucontext_t*>(context));

    LineBuffer message;
    message.add(written ? "Succeed to write minidump" : "Failed to write minidump");
    message.add(", dump path: ");
    message.add(prepared.reportPath);
    message.add("\n");
    message.text[std::min(message.length, sizeof(message.text) - 1)] = '\0';
    CrashCapture::logFromHandler(QtDebugMsg, message.text);
    if (prepared.hook) {
        CrashCapture::logFromHandler(QtDebugMsg, "Calling crash hook function\n");
        prepared.hook(prepared.reportPath);
    }

    // Ends the way a program without a handler would, exit status and core dump alike.
    struct sigaction fallback
    {
    };
    fallback.sa_handler = SIG_DFL;
    sigemptyset(&fallback.sa_mask);
    ::sigaction(signalNumber, &fallback, nullptr);
    if (info->si_code <= 0) {
        // Sent or raised (abort): send it again; it arrives once the handler returns.
        ::tgkill(::getpid(), pid_t(::gettid()), signalNumber);
    }
    // A fault of the kernel's own happens again at the same instruction.
}

QByteArray readBuildId()
{
    QByteArray id;
    ::dl_iterate_phdr(
        [](dl_phdr_info* info, size_t, void* data) -> int {
            auto* out = static_cast<QByteArray*>(data);
            for (int i = 0; i < info->dlpi_phnum; ++i) {
                const ElfW(Phdr)& ph = info->dlpi_phdr[i];
                if (ph.p_type != PT_NOTE) {
                    continue;
                }
                const char* p = reinterpret_cast<const char*>(info->dlpi_addr + ph.p_vaddr);
                const char* end = p + ph.p_memsz;
                while (p + sizeof(ElfW(Nhdr)) <= end) {
                    const auto* note = reinterpret_cast<const ElfW(Nhdr)*>(p);
                    const char* name = p + sizeof(ElfW(Nhdr));
                    const char* desc = name + ((note->n_namesz + 3) & ~3u);
                    if (note->n_type == NT_GNU_BUILD_ID && note->n_namesz == 4 &&
                        std::memcmp(name, "GNU", 4) == 0 && desc + note->n_descsz <= end) {
                        *out = QByteArray(desc, int(note->n_descsz)).toHex();
                        return 1;
                    }
                    p = desc + ((note->n_descsz + 3) & ~3u);
                }
            }
            return 1; // the first object is the program itself
        },
        &id);
    return id;
}

QByteArray architectureName()
{
#if defined(__x86_64__)
    return "x86_64";
#elif defined(__aarch64__)
    return "aarch64";
#else
    return "unknown";
#endif
}

void copyPath(char* to, const QByteArray& from)
{
    const size_t n = std::min<size_t>(size_t(from.size()), kPathBytes - 1);
    std::memcpy(to, from.constData(), n);
    to[n] = '\0';
}

} // namespace

CrashCapture::CrashCapture(const QString& folder)
{
    // At a usual start the folder is there: an open and an fstat. It is made only at the first.
    const QByteArray path = QFile::encodeName(folder);
    int fd = ::open(path.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0 && errno == ENOENT) {
        if (::mkdir(path.constData(), 0700) != 0 && errno == ENOENT) {
            QDir().mkpath(QFileInfo(folder).path());
            ::mkdir(path.constData(), 0700);
        }
        fd = ::open(path.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    }
    if (fd < 0) {
        qWarning().noquote() << kTag << "Crash capture is off: the folder" << folder
                             << "cannot be opened:" << QString::fromLocal8Bit(std::strerror(errno));
        return;
    }
    struct stat st
    {
    };
    if (::fstat(fd, &st) == 0 && (st.st_mode & 07777) != 0700) {
        ::fchmod(fd, 0700);
    }
    prepared.folderFd = fd;
    const QByteArray name = QUuid::createUuid().toByteArray(QUuid::WithoutBraces) + ".dmp";
    copyPath(prepared.reportName, name);
    copyPath(prepared.reportPath, path + '/' + name);
    copyPath(prepared.mainLogPath, QFile::encodeName(MessageHandler::mainLogPath()));
    prepared.version.set(QCoreApplication::applicationVersion().toUtf8());
    prepared.revision.set(ORVANTA_GIT_COMMIT);
    prepared.buildId.set(readBuildId());
    prepared.executable.set(QFile::encodeName(QCoreApplication::applicationFilePath()));
    prepared.architecture.set(architectureName());
    utsname names{};
    if (::uname(&names) == 0) {
        prepared.kernel.set(QByteArray(names.release));
    }
    // One conversion; QDateTime's offset would convert several times, each looking at the zone file.
    const time_t now = ::time(nullptr);
    tm local{};
    prepared.utcOffsetSeconds = ::localtime_r(&now, &local) ? int32_t(local.tm_gmtoff) : 0;
    prepared.mainTid = pid_t(::gettid());

    SignalStack::installForCurrentThread();
    struct sigaction action
    {
    };
    action.sa_sigaction = &onFatalSignal;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    sigemptyset(&action.sa_mask);
    for (int signalNumber : kSignals) {
        sigaddset(&action.sa_mask, signalNumber); // a fault inside the handler ends the process
    }
    for (int i = 0; i < kSignalCount; ++i) {
        ::sigaction(kSignals[i], &action, &prepared.previous[i]);
    }
    active = true;
}

CrashCapture::~CrashCapture()
{
    if (!active) {
        return;
    }
    for (int i = 0; i < kSignalCount; ++i) {
        ::sigaction(kSignals[i], &prepared.previous[i], nullptr);
    }
    ::close(prepared.folderFd);
    prepared.folderFd = -1;
}

QString CrashCapture::reportPath() const
{
    return active ? QFile::decodeName(prepared.reportPath) : QString();
}

void CrashCapture::setHook(Hook hook)
{
    prepared.hook = hook;
}

void CrashCapture::prepareReporter(const QString& program, const QStringList& arguments)
{
    prepared.hasReporter = false;
    if (program.isEmpty() || arguments.size() + 1 > kMaxReporterArgs) {
        return;
    }
    copyPath(prepared.reporterStrings[0], QFile::encodeName(program));
    prepared.reporterArgv[0] = prepared.reporterStrings[0];
    int i = 1;
    for (const QString& argument : arguments) {
        copyPath(prepared.reporterStrings[i], argument.toLocal8Bit());
        prepared.reporterArgv[i] = prepared.reporterStrings[i];
        ++i;
    }
    prepared.reporterArgv[i] = nullptr;
    prepared.hasReporter = true;
}

void CrashCapture::startReporter()
{
    if (!prepared.hasReporter) {
        return;
    }
    // No atfork handlers: they would take the locks a crashed process may hold.
    const pid_t child = ::_Fork();
    if (child != 0) {
        return; // not waited for
    }
    ::setsid();
    sigset_t none;
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    struct sigaction fallback
    {
    };
    fallback.sa_handler = SIG_DFL;
    sigemptyset(&fallback.sa_mask);
    ::sigaction(SIGPIPE, &fallback, nullptr);
    ::close_range(3, ~0u, 0);
    ::execve(prepared.reporterArgv[0], prepared.reporterArgv, environ);
    ::_exit(127);
}

void CrashCapture::logFromHandler(QtMsgType type, const char* message)
{
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    const int64_t local = int64_t(now.tv_sec) + prepared.utcOffsetSeconds;
    int64_t days = local / 86400;
    int64_t secondOfDay = local % 86400;
    if (secondOfDay < 0) {
        secondOfDay += 86400;
        days -= 1;
    }
    int64_t year = 0;
    unsigned month = 0, day = 0;
    civilFromDays(days, &year, &month, &day);

    LineBuffer line;
    line.add("[");
    line.addNumber(uint64_t(year), 10, 4);
    line.add("-");
    line.addNumber(month, 10, 2);
    line.add("-");
    line.addNumber(day, 10, 2);
    line.add(" ");
    line.addNumber(uint64_t(secondOfDay / 3600), 10, 2);
    line.add(":");
    line.addNumber(uint64_t(secondOfDay / 60 % 60), 10, 2);
    line.add(":");
    line.addNumber(uint64_t(secondOfDay % 60), 10, 2);
    line.add(".");
    line.addNumber(uint64_t(now.tv_nsec / 1000000), 10, 3);
    line.add("]");
    if (pid_t(::gettid()) == prepared.mainTid) {
        line.add("@main  ");
    } else {
        line.add("@0x");
        line.addNumber(uint64_t(::pthread_self()), 16);
        line.add("  ");
    }
    switch (type) {
    case QtDebugMsg:
        line.add("[Debug]: ");
        break;
    case QtWarningMsg:
        line.add("[Warning]: ");
        break;
    case QtCriticalMsg:
        line.add("[Critical]: ");
        break;
    case QtFatalMsg:
        line.add("[Fatal]: ");
        break;
    case QtInfoMsg:
        line.add("[Info]: ");
        break;
    }
    line.add(message);
    const size_t body = line.length;
    line.add("\n");
    writeAll(STDOUT_FILENO, line.text, line.length);
    line.length = body;
    line.add("\r\n");
    if (prepared.mainLogPath[0]) {
        const int fd = ::open(prepared.mainLogPath, O_WRONLY | O_APPEND | O_CLOEXEC);
        if (fd >= 0) {
            writeAll(fd, line.text, line.length);
            ::close(fd);
        }
    }
}

QString CrashCapture::programBuildId()
{
    return QString::fromLatin1(readBuildId());
}

void CrashCapture::faultInsideHandler()
{
    faultAfterInfo = true;
}
