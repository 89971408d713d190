#include "crash/reporter/ReportPrinter.h"

#include "crash/reporter/ElfSymbols.h"

#include <QDateTime>
#include <QHash>
#include <QTextStream>

namespace {

QString hex(quint64 value)
{
    return QStringLiteral("0x") + QString::number(value, 16);
}

// Names an address in the program when its symbols are at hand.
class Namer
{
public:
    explicit Namer(const CrashReport& report)
        : report(report)
    {
        usable = symbols.load(report.executable) && !report.buildId.isEmpty() &&
                 symbols.buildId() == report.buildId;
    }
    QString describe(quint64 address) const
    {
        QString module;
        quint64 offset = 0;
        if (!report.locate(address, &module, &offset)) {
            return hex(address);
        }
        QString text = module + QStringLiteral("+") + hex(offset);
        if (usable && module == report.executable) {
            QString function = symbols.functionAt(offset);
            if (function.isEmpty()) {
                function = symbols.functionAt(address); // a program not built position-independent
            }
            if (!function.isEmpty()) {
                text += QStringLiteral(" ") + function;
            }
        }
        return text;
    }
    bool usable = false;

private:
    const CrashReport& report;
    ElfSymbols symbols;
};

} // namespace

QString ReportPrinter::print(const CrashReport& report, const QString& path)
{
    QString text;
    QTextStream out(&text);
    out << "Report: " << path
        << (report.complete ? " (complete)" : " (incomplete: the handler was cut short)") << "\n";
    out << "Signal: " << report.signalName() << " (" << report.codeName() << "), address "
        << hex(report.faultAddress) << "\n";
    out << "Thread: " << report.tid << (report.mainThread ? " (main)" : "") << ", process " << report.pid
        << "\n";
    const QDateTime when = QDateTime::fromMSecsSinceEpoch(report.realtimeNs / 1000000, Qt::OffsetFromUTC,
                                                          report.utcOffsetSeconds);
    out << "Time: " << when.toString(Qt::ISODateWithMs) << ", "
        << QString::number(report.uptimeNs / 1e9, 'f', 3) << " s after the start\n";
    out << "Version: " << report.version << ", revision " << report.revision << "\n";
    out << "Build id: " << report.buildId << "\n";
    out << "Executable: " << report.executable << " (" << report.architecture << ", Linux " << report.kernel
        << ")\n";
    if (report.complete) {
        out << "Written in: "
            << QString::number((report.writtenMonotonicNs - report.monotonicNs) / 1e6, 'f', 3) << " ms\n";
    }

    out << "\nRegisters:\n";
    const QStringList names = report.registerNames();
    for (int i = 0; i < report.registers.size(); ++i) {
        out << "  " << names.at(i).leftJustified(8) << hex(report.registers.at(i)) << "\n";
    }

    out << "\nModules:\n";
    // Files with code, each at its load address (its first mapping); fonts and caches are no modules.
    const QVector<CrashReport::Module> all = report.modules();
    QHash<QString, bool> seen;
    for (const CrashReport::Module& m : all) {
        if (m.executable && !m.path.isEmpty() && !m.path.startsWith(QLatin1Char('['))) {
            seen.insert(m.path, false);
        }
    }
    for (const CrashReport::Module& m : all) {
        if (!seen.contains(m.path) || seen.value(m.path) || m.fileOffset != 0) {
            continue;
        }
        seen.insert(m.path, true);
        out << "  " << hex(m.start) << " " << m.path << "\n";
    }

    const Namer namer(report);
    out << "\nFault PC: " << namer.describe(report.programCounter()) << "\n";
    out << "Stack copy: " << report.stack.size() << " bytes from " << hex(report.stackStart) << "\n";
    out << "\nCandidates:\n";
    int index = 0;
    for (const CrashReport::Candidate& c : report.candidates()) {
        out << "  #" << index++ << " " << namer.describe(c.address) << " (stack " << hex(c.stackAddress)
            << ")\n";
    }
    return text;
}
