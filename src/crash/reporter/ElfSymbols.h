#pragma once

#include <QByteArray>
#include <QString>
#include <QVector>

// The function symbols of one ELF file (its .symtab, else .dynsym) and its GNU build id, read
// from the file: enough to name a function from an offset in a module without another tool.
class ElfSymbols
{
public:
    struct Symbol
    {
        quint64 address = 0;
        quint64 size = 0;
        QString name; // demangled
    };

    // False when the file is not a readable 64-bit little-endian ELF file.
    bool load(const QString& path);
    QString buildId() const { return id; }
    // The function holding `address` (a link-time address), empty when none.
    QString functionAt(quint64 address) const;
    const QVector<Symbol>& symbols() const { return functions; }

private:
    QString id;
    QVector<Symbol> functions; // sorted by address
};
