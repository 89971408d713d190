// Crashes the program on purpose, beside a virtual strip, and prints how long the capture took.
// The bench is its own recording reporter: started as one (with --file), it notes the monotonic
// time its main began and leaves.
#include "VirtualLedDevice.h"
#include "crash/CrashReport.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QThread>
#include <QTimer>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <sys/resource.h>

namespace {

const QString kBin = QStringLiteral(ORVANTA_BIN_DIR);

struct Run
{
    CrashReport report;
    qint64 reportSize = 0;
    double reportMs = -1;   // fault to END
    double reporterMs = -1; // fault to the reporter's main
    double windowMs = -1;   // fault to the real reporter's window
    double setupMs = -1;    // steps 11 and 12
    double setupCpuMs = -1; // their CPU time
};

QString readAll(const QString& path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? QString::fromUtf8(f.readAll()) : QString();
}

// One crash in the home `root`; a home used before gives a start whose folders are all there.
Run crashOnce(const QTemporaryDir& root, const QString& kind, bool realReporter, const QString& self)
{
    Run run;
    QDir().mkpath(root.filePath("runtime"));
    VirtualLedDevice device;
    if (!device.open()) {
        return run;
    }
    const QString record = root.filePath("recorder.txt");
    QFile::remove(record);
    const QString dumps = root.filePath("config/orvanta/dumps");
    const QStringList before = QDir(dumps).entryList({"*.dmp"}, QDir::Files);
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("HOME", root.path());
    env.insert("XDG_CONFIG_HOME", root.filePath("config"));
    env.insert("XDG_DATA_HOME", root.filePath("data"));
    env.insert("XDG_RUNTIME_DIR", root.filePath("runtime"));
    env.insert("QT_QPA_PLATFORM", "offscreen");
    env.insert("ORVANTA_SERVICE_URL", "off");
    env.insert("ORVANTA_EXTRA_PORTS", device.slavePath());
    env.insert("ORVANTA_CRASH_TEST", kind);
    env.insert("ORVANTA_BENCH_RECORD", record);
    if (!realReporter) {
        env.insert("ORVANTA_CRASH_REPORTER", self);
    }
    QProcess process;
    process.setProcessEnvironment(env);
    process.setWorkingDirectory(root.path());
    // The reporter outlives the program: it must not write into a pipe nobody reads.
    process.setStandardOutputFile(QProcess::nullDevice());
    process.setStandardErrorFile(QProcess::nullDevice());
    process.start(kBin + "/orvanta", {"--enable_crash_test"});
    QEventLoop loop;
    QObject::connect(&process, qOverload<int, QProcess::ExitStatus>(&QProcess::finished), &loop,
                     &QEventLoop::quit);
    QTimer::singleShot(60000, &loop, &QEventLoop::quit);
    loop.exec();
    QStringList files = QDir(dumps).entryList({"*.dmp"}, QDir::Files);
    for (const QString& name : before) {
        files.removeOne(name);
    }
    if (files.isEmpty()) {
        return run;
    }
    run.report = CrashReport::readFile(dumps + "/" + files.first());
    run.reportSize = QFileInfo(dumps + "/" + files.first()).size();
    run.reportMs = (run.report.writtenMonotonicNs - run.report.monotonicNs) / 1e6;
    const QString logs = root.filePath("data/orvanta/logs");
    // Runs within one second share a log: the last line of the newest is this run's.
    for (const QString& name : QDir(logs).entryList({"2*.log"}, QDir::Files, QDir::Name)) {
        QRegularExpressionMatchIterator m =
            QRegularExpression(R"(Crash capture is ready in .* after ([0-9.]+) ms \(CPU ([0-9.]+) ms\))")
                .globalMatch(readAll(logs + "/" + name));
        while (m.hasNext()) {
            const QRegularExpressionMatch line = m.next();
            run.setupMs = line.captured(1).toDouble();
            run.setupCpuMs = line.captured(2).toDouble();
        }
    }
    if (!realReporter) {
        for (int i = 0; i < 2000 && !QFile::exists(record); ++i) {
            QThread::msleep(10);
        }
        run.reporterMs = (readAll(record).trimmed().toLongLong() - run.report.monotonicNs) / 1e6;
        return run;
    }
    // The real reporter logs its window; its time against the fault's, both on the wall clock.
    for (int i = 0; i < 1000; ++i) {
        for (const QString& name : QDir(logs).entryList({"CrashReporter_*.log"}, QDir::Files)) {
            const QString log = readAll(logs + "/" + name);
            const QRegularExpressionMatch shown =
                QRegularExpression(R"(\[([0-9: .-]+)\][^\n]*\[CrashReporter\] Window shown)").match(log);
            const QRegularExpressionMatch pid =
                QRegularExpression(R"(\[CrashReporter\] Started \(pid (\d+)\))").match(log);
            if (shown.hasMatch()) {
                const QDateTime at = QDateTime::fromString(shown.captured(1), "yyyy-MM-dd hh:mm:ss.zzz");
                run.windowMs = double(at.toMSecsSinceEpoch()) - run.report.realtimeNs / 1e6;
                if (pid.hasMatch()) {
                    ::kill(pid.captured(1).toInt(), SIGTERM);
                }
                return run;
            }
        }
        QThread::msleep(10);
    }
    std::fprintf(stderr, "no reporter window seen in %s: %s\n", qPrintable(logs),
                 qPrintable(QDir(logs).entryList(QDir::Files).join(' ')));
    return run;
}

void printFigures(const char* what, QVector<double> values, const char* target)
{
    values.erase(std::remove_if(values.begin(), values.end(), [](double v) { return v < 0; }), values.end());
    if (values.isEmpty()) {
        std::printf("  %-34s no measurement\n", what);
        return;
    }
    std::sort(values.begin(), values.end());
    const int p95 = std::min(int(values.size()) - 1, int(values.size() * 95 / 100));
    std::printf("  %-34s median %8.3f ms, p95 %8.3f ms, max %8.3f ms over %d (target %s)\n", what,
                values.at(values.size() / 2), values.at(p95), values.last(), int(values.size()), target);
}

} // namespace

int main(int argc, char** argv)
{
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--file") == 0) {
            // Started by the crash as its reporter: only the time.
            timespec now{};
            clock_gettime(CLOCK_MONOTONIC, &now);
            // Written aside and renamed, so that the bench never reads it half written.
            const char* out = std::getenv("ORVANTA_BENCH_RECORD");
            const std::string part = out ? std::string(out) + ".part" : std::string();
            if (FILE* f = out ? std::fopen(part.c_str(), "w") : nullptr) {
                std::fprintf(f, "%lld\n", (long long)now.tv_sec * 1000000000LL + now.tv_nsec);
                std::fclose(f);
                std::rename(part.c_str(), out);
            }
            return 0;
        }
    }
    QCoreApplication app(argc, argv);
    rlimit none{0, 0};
    setrlimit(RLIMIT_CORE, &none);
    const int runs = argc > 1 ? std::max(1, std::atoi(argv[1])) : 20;
    // Each kind's crashes share a home: its first start makes the folders, the others find them.
    QVector<double> firstSetup, laterSetup, firstSetupCpu, laterSetupCpu;
    for (const QString& kind : {QStringLiteral("segv"), QStringLiteral("abrt")}) {
        QTemporaryDir home(QDir::tempPath() + "/b-XXXXXX");
        QVector<double> report, reporter;
        Run last;
        for (int i = 0; i < runs; ++i) {
            last = crashOnce(home, kind, false, QCoreApplication::applicationFilePath());
            report << last.reportMs;
            reporter << last.reporterMs;
            (i == 0 ? firstSetup : laterSetup) << last.setupMs;
            (i == 0 ? firstSetupCpu : laterSetupCpu) << last.setupCpuMs;
        }
        std::printf("%s, %d crashes:\n", qPrintable(kind), runs);
        printFigures("fault to report complete", report, "50 ms");
        printFigures("fault to reporter's main", reporter, "200 ms");
        std::printf("  report: %lld bytes (target at most 458752): stack %d, maps %d, log %d, rest %lld\n",
                    (long long)last.reportSize, last.report.stack.size(), last.report.maps.size(),
                    last.report.log.size(),
                    (long long)(last.reportSize - last.report.stack.size() - last.report.maps.size() -
                                last.report.log.size()));
    }
    QVector<double> window;
    for (int i = 0; i < 5; ++i) {
        QTemporaryDir home(QDir::tempPath() + "/b-XXXXXX");
        window << crashOnce(home, QStringLiteral("segv"), true, QString()).windowMs;
    }
    std::printf("real reporter:\n");
    printFigures("fault to window shown", window, "none");
    std::printf("start (steps 11 and 12):\n");
    printFigures("first start, folders made", firstSetup, "1 ms");
    printFigures("first start, CPU time", firstSetupCpu, "1 ms");
    printFigures("later starts", laterSetup, "1 ms");
    printFigures("later starts, CPU time", laterSetupCpu, "1 ms");
    return 0;
}
