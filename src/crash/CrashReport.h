#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <QVector>

// One crash report as read back (format in CrashReportFormat.h). Parsing is a pure function of
// the bytes: a report that is not one comes back invalid with the reason; one cut short after its
// INFO section is valid and incomplete.
struct CrashReport
{
    struct Module
    {
        quint64 start = 0;
        quint64 end = 0;
        quint64 fileOffset = 0;
        bool executable = false;
        QString path;
    };
    // A return address found in the stack copy: where it was and what it points into.
    struct Candidate
    {
        quint64 stackAddress = 0;
        quint64 address = 0;
        QString module;
        quint64 moduleOffset = 0; // from the module's load address (its first mapping)
    };

    bool valid = false;
    bool complete = false; // END was written
    QString problem;       // why it is invalid

    // INFO
    quint32 signal = 0;
    qint32 code = 0;
    quint64 faultAddress = 0;
    quint32 pid = 0;
    quint32 tid = 0;
    bool mainThread = false;
    qint32 utcOffsetSeconds = 0;
    qint64 realtimeNs = 0;
    qint64 monotonicNs = 0;
    qint64 uptimeNs = 0;
    QString version, revision, buildId, executable, architecture, kernel;
    // REGS
    quint32 registerArchitecture = 0;
    QVector<quint64> registers;
    // STACK
    quint64 stackStart = 0;
    QByteArray stack;
    // MAPS, LOG
    QByteArray maps;
    QByteArray log;
    // END
    quint64 totalLength = 0;
    qint64 writtenMonotonicNs = 0;

    static CrashReport parse(const QByteArray& bytes);
    static CrashReport readFile(const QString& path); // invalid when unreadable or too large

    quint64 programCounter() const; // 0 when the registers are missing
    quint64 stackPointer() const;
    QStringList registerNames() const;
    QVector<Module> modules() const; // from MAPS, in its order
    // The module holding `address` and the offset from its load address; false when none.
    bool locate(quint64 address, QString* module, quint64* offset) const;
    // Words of the stack copy that point into executable mappings, from the stack pointer up.
    QVector<Candidate> candidates(int maxCount = 64) const;
    QString signalName() const; // "SIGSEGV"
    QString codeName() const;   // "SEGV_MAPERR"
};
