#include "crash/reporter/ElfSymbols.h"

#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <cxxabi.h>
#include <elf.h>

namespace {

constexpr qint64 kMaxElfBytes = 1024LL * 1024 * 1024;

QString demangle(const char* name)
{
    int status = 0;
    char* plain = abi::__cxa_demangle(name, nullptr, nullptr, &status);
    const QString out = QString::fromUtf8(status == 0 && plain ? plain : name);
    std::free(plain);
    return out;
}

template <typename T> bool readAt(const uchar* base, qint64 size, quint64 offset, T* out)
{
    if (offset > quint64(size) || quint64(size) - offset < sizeof(T)) {
        return false;
    }
    std::memcpy(out, base + offset, sizeof(T));
    return true;
}

} // namespace

bool ElfSymbols::load(const QString& path)
{
    id.clear();
    functions.clear();
    QFile file(path);
    if (!QFileInfo(path).isFile() || file.size() > kMaxElfBytes || !file.open(QIODevice::ReadOnly)) {
        return false;
    }
    const qint64 size = file.size();
    const uchar* base = file.map(0, size);
    Elf64_Ehdr header;
    if (!base || !readAt(base, size, 0, &header) || std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0 ||
        header.e_ident[EI_CLASS] != ELFCLASS64 || header.e_ident[EI_DATA] != ELFDATA2LSB ||
        header.e_shentsize != sizeof(Elf64_Shdr)) {
        return false;
    }
    QVector<Elf64_Shdr> sections(header.e_shnum);
    for (int i = 0; i < header.e_shnum; ++i) {
        if (!readAt(base, size, header.e_shoff + quint64(i) * sizeof(Elf64_Shdr), &sections[i])) {
            return false;
        }
    }
    bool haveSymtab = false;
    for (const Elf64_Shdr& s : qAsConst(sections)) {
        haveSymtab = haveSymtab || s.sh_type == SHT_SYMTAB;
    }
    for (const Elf64_Shdr& s : qAsConst(sections)) {
        if (s.sh_type == SHT_NOTE && s.sh_offset < quint64(size) &&
            s.sh_size <= quint64(size) - s.sh_offset) {
            quint64 at = s.sh_offset;
            const quint64 end = s.sh_offset + s.sh_size;
            Elf64_Nhdr note;
            while (at + sizeof(note) <= end && readAt(base, size, at, &note)) {
                const quint64 name = at + sizeof(note);
                const quint64 desc = name + ((note.n_namesz + 3) & ~3u);
                if (desc + note.n_descsz > end) {
                    break;
                }
                if (note.n_type == NT_GNU_BUILD_ID && note.n_namesz == 4 &&
                    std::memcmp(base + name, "GNU", 4) == 0) {
                    id = QString::fromLatin1(
                        QByteArray(reinterpret_cast<const char*>(base + desc), int(note.n_descsz)).toHex());
                }
                at = desc + ((note.n_descsz + 3) & ~3u);
            }
        }
        const bool wanted = haveSymtab ? s.sh_type == SHT_SYMTAB : s.sh_type == SHT_DYNSYM;
        if (!wanted || int(s.sh_link) >= sections.size() || s.sh_entsize != sizeof(Elf64_Sym)) {
            continue;
        }
        const Elf64_Shdr& strings = sections.at(int(s.sh_link));
        for (quint64 at = 0; at + sizeof(Elf64_Sym) <= s.sh_size; at += sizeof(Elf64_Sym)) {
            Elf64_Sym sym;
            if (!readAt(base, size, s.sh_offset + at, &sym)) {
                break;
            }
            if (ELF64_ST_TYPE(sym.st_info) != STT_FUNC || sym.st_value == 0 ||
                sym.st_name >= strings.sh_size || strings.sh_offset + strings.sh_size > quint64(size)) {
                continue;
            }
            const char* name = reinterpret_cast<const char*>(base + strings.sh_offset + sym.st_name);
            const size_t maxLength = size_t(strings.sh_size - sym.st_name);
            if (::strnlen(name, maxLength) == maxLength) {
                continue;
            }
            functions.append({sym.st_value, sym.st_size, demangle(name)});
        }
    }
    std::sort(functions.begin(), functions.end(),
              [](const Symbol& a, const Symbol& b) { return a.address < b.address; });
    return true;
}

QString ElfSymbols::functionAt(quint64 address) const
{
    auto it = std::upper_bound(functions.begin(), functions.end(), address,
                               [](quint64 a, const Symbol& s) { return a < s.address; });
    while (it != functions.begin()) {
        --it;
        if (address >= it->address && address < it->address + qMax<quint64>(it->size, 1)) {
            return it->name;
        }
        if (it->size != 0) {
            break;
        }
    }
    return QString();
}
