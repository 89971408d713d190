// The autostart folder's file as any tool or person may have left it: parsing and judging never
// fail, a refused file is judged foreign, and the entry the program writes for a program path
// made of the bytes reads back as its own, switched on, starting exactly that path.
#include "service/config/AutostartEntry.h"

#include <cstdint>
#include <cstdlib>

namespace {

const QString kArgument = QStringLiteral("--auto_startup");
const QString kProgram = QStringLiteral("/opt/orvanta/orvanta");

void require(bool promise)
{
    if (!promise) {
        std::abort();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray bytes(reinterpret_cast<const char*>(data), int(size));
    const AutostartEntry::Contents contents = AutostartEntry::parse(bytes);
    const AutostartEntry::State state = AutostartEntry::judge(contents, kProgram, kArgument);
    require(contents.problem.isEmpty() || state == AutostartEntry::State::Foreign);
    bool ok = false;
    const QStringList command =
        AutostartEntry::execArguments(contents.values.value(QStringLiteral("Exec")), &ok);
    require(ok || command.isEmpty());

    // A path holds no NUL; anything else may be in it.
    const QString program = QString::fromUtf8(bytes);
    if (program.isEmpty() || program.contains(QChar(0))) {
        return 0;
    }
    const AutostartEntry::Contents ours = AutostartEntry::parse(AutostartEntry::render(program, kArgument));
    require(ours.problem.isEmpty());
    require(AutostartEntry::judge(ours, program, kArgument) == AutostartEntry::State::On);
    return 0;
}
