// Runs a fuzz target once over every file of the folders and files given (its corpus and the
// regressions the fuzzer found), without the fuzzer: a plain test of every make test.
#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <cstdint>
#include <cstdio>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

int main(int argc, char* argv[])
{
    if (LLVMFuzzerInitialize) {
        LLVMFuzzerInitialize(&argc, &argv);
    }
    int replayed = 0;
    for (int i = 1; i < argc; ++i) {
        const QString path = QString::fromLocal8Bit(argv[i]);
        QStringList files;
        if (QFileInfo(path).isDir()) {
            const QDir dir(path);
            for (const QString& name : dir.entryList(QDir::Files | QDir::Hidden, QDir::Name)) {
                files << dir.filePath(name);
            }
        } else if (QFileInfo::exists(path)) {
            files << path;
        }
        for (const QString& file : files) {
            QFile input(file);
            if (!input.open(QIODevice::ReadOnly)) {
                std::fprintf(stderr, "cannot read %s\n", qPrintable(file));
                return 1;
            }
            const QByteArray bytes = input.readAll();
            LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.constData()), size_t(bytes.size()));
            ++replayed;
        }
    }
    std::printf("replayed %d inputs\n", replayed);
    // A target whose corpus went missing would pass without looking at anything.
    return replayed > 0 ? 0 : 1;
}
