#pragma once

#include <cstdint>

// The crash report, version 1: what the signal handler writes (CrashCaptureLinux.cpp) and
// CrashReport reads. Little-endian throughout.
//
//   header   "ORVCRASH" (8 bytes), u32 version (1), u32 zero
//   section  u32 tag, u32 payload length, payload, zero bytes up to the next multiple of 8
//
// Sections, in the order written; a reader skips tags it does not know:
//   INFO  (1) u32 signal, i32 si_code, u64 fault address, u32 pid, u32 tid, u32 main-thread flag,
//             i32 UTC offset in seconds, i64 fault time (CLOCK_REALTIME ns), i64 fault time
//             (CLOCK_MONOTONIC ns), i64 uptime ns; then six strings, each u32 length and bytes:
//             version, git revision, GNU build id (hex), executable path, architecture, kernel
//   REGS  (2) u32 architecture (1 x86_64, 2 aarch64), u32 count, count u64 registers in the
//             order of the architecture's ucontext (x86_64: gregs; aarch64: x0-x30, sp, pc, pstate)
//   STACK (3) u64 address of the first byte, then the bytes: from the stack pointer less the
//             128-byte red zone, up to 128 KiB upward, ending early at the first unreadable page
//   MAPS  (4) the text of /proc/self/maps, up to 256 KiB
//   LOG   (5) the last 32 KiB of the main log
//   END   (6) u64 total length of the report, i64 time of writing (CLOCK_MONOTONIC ns)
//
// A report without END is incomplete (the handler was cut short) but readable and sendable.
// All of it stays under 448 KiB.
namespace CrashReportFormat {

constexpr char kMagic[8] = {'O', 'R', 'V', 'C', 'R', 'A', 'S', 'H'};
constexpr uint32_t kVersion = 1;
constexpr uint32_t kHeaderBytes = 16;
constexpr uint32_t kSectionHeaderBytes = 8;

enum Tag : uint32_t
{
    Info = 1,
    Regs = 2,
    Stack = 3,
    Maps = 4,
    Log = 5,
    End = 6,
};

enum Architecture : uint32_t
{
    UnknownArchitecture = 0,
    X86_64 = 1,
    Aarch64 = 2,
};

constexpr uint32_t kRedZoneBytes = 128;
constexpr uint32_t kMaxStackBytes = 128 * 1024;
constexpr uint32_t kMaxMapsBytes = 256 * 1024;
constexpr uint32_t kMaxLogBytes = 32 * 1024;
constexpr uint32_t kMaxStringBytes = 4096;
constexpr uint32_t kMaxRegisters = 64;
constexpr uint32_t kMaxReportBytes = 448 * 1024;

} // namespace CrashReportFormat
