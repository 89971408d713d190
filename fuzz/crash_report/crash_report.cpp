// Crash reports as a reporter finds them in the dump folder: whatever the bytes, the reader accepts
// only what keeps to the format's limits, and what it accepts can be walked without a fault.
#include "crash/CrashReport.h"
#include "crash/CrashReportFormat.h"

#include <QByteArray>

#include <cstdint>
#include <cstdlib>

namespace {

void require(bool promise)
{
    if (!promise) {
        std::abort();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    namespace F = CrashReportFormat;
    const QByteArray bytes(reinterpret_cast<const char*>(data), int(size));
    const CrashReport report = CrashReport::parse(bytes);
    require(report.valid == report.problem.isEmpty());
    if (!report.valid) {
        require(!report.complete);
        return 0;
    }
    require(size <= F::kMaxReportBytes && bytes.startsWith("ORVCRASH"));
    require(report.stack.size() <= int(F::kMaxStackBytes) &&
            report.registers.size() <= int(F::kMaxRegisters));
    for (const QString* text : {&report.version, &report.revision, &report.buildId, &report.executable,
                                &report.architecture, &report.kernel}) {
        require(text->toUtf8().size() <= int(F::kMaxStringBytes) * 3);
    }
    require(!report.complete || report.totalLength <= size);
    require(report.registerNames().size() == report.registers.size());
    report.programCounter();
    report.stackPointer();
    report.signalName();
    report.codeName();
    for (const CrashReport::Module& module : report.modules()) {
        require(module.end > module.start);
    }
    for (const CrashReport::Candidate& c : report.candidates()) {
        require(c.module.isEmpty() || c.moduleOffset <= c.address);
    }
    return 0;
}
