#pragma once

#include <QByteArray>
#include <QCoreApplication>
#include <QMutex>
#include <QString>
#include <QStringList>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

// What every fuzz target shares: the input taken apart into values, a check that stops the run
// with its reason, and log lines kept in memory instead of printed at every input.

// Takes values off the front of an input; past its end every value is 0.
class FuzzInput
{
public:
    FuzzInput(const uint8_t* data, size_t size)
        : data(data)
        , size(size)
    {
    }

    uint8_t byte() { return at < size ? data[at++] : 0; }
    // 0 to max, from as many bytes as max needs.
    uint32_t number(uint32_t max)
    {
        uint64_t value = 0;
        for (uint64_t range = max; range > 0; range >>= 8) {
            value = (value << 8) | byte();
        }
        return uint32_t(value % (uint64_t(max) + 1));
    }
    QByteArray take(size_t n)
    {
        n = n < size - at ? n : size - at;
        const QByteArray out(reinterpret_cast<const char*>(data + at), int(n));
        at += n;
        return out;
    }
    QByteArray rest() { return take(size - at); }
    bool atEnd() const { return at >= size; }

private:
    const uint8_t* data;
    size_t size;
    size_t at = 0;
};

// A broken promise: said on standard error, then abort(), which the fuzzer and the replay both
// report as a crash with this input.
[[noreturn]] inline void fuzzFail(const char* file, int line, const char* condition, const QString& what)
{
    std::fprintf(stderr, "%s:%d: broken promise: %s\n  %s\n", file, line, condition, qPrintable(what));
    std::abort();
}
#define FUZZ_EXPECT(condition, what)                                                                         \
    do {                                                                                                     \
        if (!(condition)) {                                                                                  \
            fuzzFail(__FILE__, __LINE__, #condition, (what));                                                \
        }                                                                                                    \
    } while (false)

// Keeps the log lines of the current input (any thread) instead of printing them.
class FuzzLog
{
public:
    static void install() { qInstallMessageHandler(&FuzzLog::handler); }
    static void clear()
    {
        QMutexLocker locker(&mutex());
        lines().clear();
    }
    static bool contains(const QString& text)
    {
        QMutexLocker locker(&mutex());
        for (const QString& line : lines()) {
            if (line.contains(text)) {
                return true;
            }
        }
        return false;
    }

private:
    static void handler(QtMsgType, const QMessageLogContext&, const QString& message)
    {
        QMutexLocker locker(&mutex());
        // A pathological input may log without end; the first lines say enough.
        if (lines().size() < 1000) {
            lines().append(message);
        }
    }
    static QMutex& mutex()
    {
        static QMutex lock;
        return lock;
    }
    static QStringList& lines()
    {
        static QStringList kept;
        return kept;
    }
};

// The application object some parsers need (translations, the store's writer thread), made once.
inline void fuzzApplication()
{
    static int argc = 1;
    static char name[] = "orvanta";
    static char* argv[] = {name, nullptr};
    static QCoreApplication* app = nullptr;
    if (!app) {
        app = new QCoreApplication(argc, argv);
    }
}
