#include "crash/CrashReport.h"

#include "crash/CrashReportFormat.h"

#include <QFile>
#include <QtEndian>

#include <csignal>

namespace {

namespace F = CrashReportFormat;

// Where rsp and rip stand among x86_64's gregs.
constexpr int kX86Rsp = 15;
constexpr int kX86Rip = 16;

// Reads little-endian fields from a byte range, failing once past its end.
class Cursor
{
public:
    Cursor(const char* data, qint64 size)
        : p(data)
        , left(size)
    {
    }
    bool ok() const { return good; }
    quint32 u32() { return take<quint32>(); }
    quint64 u64() { return take<quint64>(); }
    QByteArray bytes(qint64 n)
    {
        if (!good || n < 0 || n > left) {
            good = false;
            return QByteArray();
        }
        QByteArray out(p, int(n));
        p += n;
        left -= n;
        return out;
    }
    QString string()
    {
        const quint32 n = u32();
        if (n > F::kMaxStringBytes) {
            good = false;
            return QString();
        }
        return QString::fromUtf8(bytes(n));
    }

private:
    template <typename T> T take()
    {
        if (!good || left < qint64(sizeof(T))) {
            good = false;
            return T();
        }
        const T v = qFromLittleEndian<T>(p);
        p += sizeof(T);
        left -= sizeof(T);
        return v;
    }
    const char* p;
    qint64 left;
    bool good = true;
};

CrashReport invalid(const QString& problem)
{
    CrashReport r;
    r.problem = problem;
    return r;
}

} // namespace

CrashReport CrashReport::parse(const QByteArray& bytes)
{
    if (bytes.size() < int(F::kHeaderBytes) || !bytes.startsWith(QByteArray(F::kMagic, sizeof(F::kMagic)))) {
        return invalid(QStringLiteral("not a crash report (no ORVCRASH header)"));
    }
    if (bytes.size() > int(F::kMaxReportBytes)) {
        return invalid(QStringLiteral("larger than a report can be (%1 bytes)").arg(bytes.size()));
    }
    const quint32 version = qFromLittleEndian<quint32>(bytes.constData() + 8);
    if (version != F::kVersion) {
        return invalid(QStringLiteral("report version %1 is not known").arg(version));
    }
    CrashReport r;
    bool haveInfo = false;
    qint64 at = F::kHeaderBytes;
    while (at + F::kSectionHeaderBytes <= bytes.size()) {
        const quint32 tag = qFromLittleEndian<quint32>(bytes.constData() + at);
        const quint32 length = qFromLittleEndian<quint32>(bytes.constData() + at + 4);
        const qint64 payload = at + F::kSectionHeaderBytes;
        if (qint64(length) > bytes.size() - payload) {
            break; // cut short: what came before stands
        }
        Cursor c(bytes.constData() + payload, length);
        switch (tag) {
        case F::Info:
            r.signal = c.u32();
            r.code = qint32(c.u32());
            r.faultAddress = c.u64();
            r.pid = c.u32();
            r.tid = c.u32();
            r.mainThread = c.u32() != 0;
            r.utcOffsetSeconds = qint32(c.u32());
            r.realtimeNs = qint64(c.u64());
            r.monotonicNs = qint64(c.u64());
            r.uptimeNs = qint64(c.u64());
            r.version = c.string();
            r.revision = c.string();
            r.buildId = c.string();
            r.executable = c.string();
            r.architecture = c.string();
            r.kernel = c.string();
            if (!c.ok()) {
                return invalid(QStringLiteral("the INFO section is malformed"));
            }
            haveInfo = true;
            break;
        case F::Regs: {
            r.registerArchitecture = c.u32();
            const quint32 count = c.u32();
            if (!c.ok() || count > F::kMaxRegisters || qint64(count) * 8 > qint64(length) - 8) {
                return invalid(QStringLiteral("the REGS section is malformed"));
            }
            r.registers.resize(int(count));
            for (quint32 i = 0; i < count; ++i) {
                r.registers[int(i)] = c.u64();
            }
            break;
        }
        case F::Stack:
            r.stackStart = c.u64();
            r.stack = c.bytes(qint64(length) - 8);
            if (!c.ok() || r.stack.size() > int(F::kMaxStackBytes)) {
                return invalid(QStringLiteral("the STACK section is malformed"));
            }
            break;
        case F::Maps:
            r.maps = c.bytes(length);
            break;
        case F::Log:
            r.log = c.bytes(length);
            break;
        case F::End:
            r.totalLength = c.u64();
            r.writtenMonotonicNs = qint64(c.u64());
            if (!c.ok()) {
                return invalid(QStringLiteral("the END section is malformed"));
            }
            r.complete = r.totalLength == quint64(payload + length);
            break;
        default:
            break; // a later version's section
        }
        at = payload + ((qint64(length) + 7) & ~qint64(7));
    }
    if (!haveInfo) {
        return invalid(QStringLiteral("the report has no INFO section"));
    }
    r.valid = true;
    return r;
}

CrashReport CrashReport::readFile(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        return invalid(QStringLiteral("cannot be read: ") + file.errorString());
    }
    if (file.size() > qint64(F::kMaxReportBytes)) {
        return invalid(QStringLiteral("larger than a report can be (%1 bytes)").arg(file.size()));
    }
    return parse(file.readAll());
}

quint64 CrashReport::programCounter() const
{
    if (registerArchitecture == F::X86_64 && registers.size() > kX86Rip) {
        return registers.at(kX86Rip);
    }
    if (registerArchitecture == F::Aarch64 && registers.size() >= 33) {
        return registers.at(32);
    }
    return 0;
}

quint64 CrashReport::stackPointer() const
{
    if (registerArchitecture == F::X86_64 && registers.size() > kX86Rsp) {
        return registers.at(kX86Rsp);
    }
    if (registerArchitecture == F::Aarch64 && registers.size() >= 32) {
        return registers.at(31);
    }
    return 0;
}

QStringList CrashReport::registerNames() const
{
    QStringList names;
    if (registerArchitecture == F::X86_64) {
        names = QStringLiteral("r8 r9 r10 r11 r12 r13 r14 r15 rdi rsi rbp rbx rdx rax rcx rsp rip "
                               "eflags csgsfs err trapno oldmask cr2")
                    .split(QLatin1Char(' '));
    } else if (registerArchitecture == F::Aarch64) {
        for (int i = 0; i < 31; ++i) {
            names << QStringLiteral("x%1").arg(i);
        }
        names << QStringLiteral("sp") << QStringLiteral("pc") << QStringLiteral("pstate");
    }
    while (names.size() < registers.size()) {
        names << QStringLiteral("r%1").arg(names.size());
    }
    return names.mid(0, registers.size());
}

QVector<CrashReport::Module> CrashReport::modules() const
{
    // "start-end perms offset dev inode path"
    QVector<Module> out;
    for (const QByteArray& line : maps.split('\n')) {
        const QList<QByteArray> fields = line.simplified().split(' ');
        if (fields.size() < 5) {
            continue;
        }
        const QList<QByteArray> range = fields.at(0).split('-');
        bool okStart = false, okEnd = false, okOffset = false;
        Module m;
        if (range.size() != 2) {
            continue;
        }
        m.start = range.at(0).toULongLong(&okStart, 16);
        m.end = range.at(1).toULongLong(&okEnd, 16);
        m.fileOffset = fields.at(2).toULongLong(&okOffset, 16);
        if (!okStart || !okEnd || !okOffset || m.end <= m.start) {
            continue;
        }
        m.executable = fields.at(1).contains('x');
        m.path = fields.size() >= 6 ? QString::fromUtf8(fields.mid(5).join(' ')) : QString();
        out.append(m);
    }
    return out;
}

bool CrashReport::locate(quint64 address, QString* module, quint64* offset) const
{
    const QVector<Module> all = modules();
    for (const Module& m : all) {
        if (address < m.start || address >= m.end) {
            continue;
        }
        // The load address is the lowest mapping of the same file; a map that says otherwise is
        // not believed past the address itself.
        quint64 base = m.fileOffset <= m.start ? m.start - m.fileOffset : m.start;
        if (!m.path.isEmpty()) {
            for (const Module& other : all) {
                if (other.path == m.path && other.fileOffset == 0 && other.start <= address) {
                    base = other.start;
                    break;
                }
            }
        }
        *module = m.path.isEmpty() ? QStringLiteral("[anonymous]") : m.path;
        *offset = address - base;
        return true;
    }
    return false;
}

QVector<CrashReport::Candidate> CrashReport::candidates(int maxCount) const
{
    QVector<Candidate> out;
    QVector<Module> code;
    for (const Module& m : modules()) {
        if (m.executable && !m.path.startsWith(QLatin1Char('['))) {
            code.append(m);
        }
    }
    const int words = stack.size() / 8;
    for (int i = 0; i < words && out.size() < maxCount; ++i) {
        const quint64 value = qFromLittleEndian<quint64>(stack.constData() + i * 8);
        for (const Module& m : qAsConst(code)) {
            if (value >= m.start && value < m.end) {
                Candidate c;
                c.stackAddress = stackStart + quint64(i) * 8;
                c.address = value;
                locate(value, &c.module, &c.moduleOffset);
                out.append(c);
                break;
            }
        }
    }
    return out;
}

QString CrashReport::signalName() const
{
    switch (signal) {
    case SIGSEGV:
        return QStringLiteral("SIGSEGV");
    case SIGBUS:
        return QStringLiteral("SIGBUS");
    case SIGILL:
        return QStringLiteral("SIGILL");
    case SIGFPE:
        return QStringLiteral("SIGFPE");
    case SIGABRT:
        return QStringLiteral("SIGABRT");
    default:
        return QStringLiteral("signal %1").arg(signal);
    }
}

QString CrashReport::codeName() const
{
    if (code == SI_USER) {
        return QStringLiteral("SI_USER");
    }
    if (code == SI_TKILL) {
        return QStringLiteral("SI_TKILL");
    }
    if (code == SI_QUEUE) {
        return QStringLiteral("SI_QUEUE");
    }
    switch (signal) {
    case SIGSEGV:
        if (code == SEGV_MAPERR) {
            return QStringLiteral("SEGV_MAPERR");
        }
        if (code == SEGV_ACCERR) {
            return QStringLiteral("SEGV_ACCERR");
        }
        break;
    case SIGBUS:
        if (code == BUS_ADRALN) {
            return QStringLiteral("BUS_ADRALN");
        }
        if (code == BUS_ADRERR) {
            return QStringLiteral("BUS_ADRERR");
        }
        if (code == BUS_OBJERR) {
            return QStringLiteral("BUS_OBJERR");
        }
        break;
    case SIGILL:
        if (code == ILL_ILLOPC) {
            return QStringLiteral("ILL_ILLOPC");
        }
        if (code == ILL_ILLOPN) {
            return QStringLiteral("ILL_ILLOPN");
        }
        break;
    case SIGFPE:
        if (code == FPE_INTDIV) {
            return QStringLiteral("FPE_INTDIV");
        }
        if (code == FPE_INTOVF) {
            return QStringLiteral("FPE_INTOVF");
        }
        break;
    default:
        break;
    }
    return QString::number(code);
}
