// Prints what the package costs: the sizes of the .deb, of its -dbgsym package and the
// Installed-Size it declares (targets: the .deb at most 5 MB, installed at most 15 MB); process
// start to the first colour frame on a virtual strip present at start (median of 5) for the
// program unpacked from the package and for the build tree's (target: within 10 %); and the time
// CPack takes to make the package again on this built tree (make package's last step).
// Run it from a Release tree after make package.
#include "../BenchSpin.h"
#include "Sandbox.h"
#include "VirtualLedDevice.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>

#include <algorithm>
#include <cstdio>

namespace {

const QString kRelease = QStringLiteral(ORVANTA_RELEASE_DIR);
const QString kDeb = kRelease + "/orvanta_" ORVANTA_VERSION "_" ORVANTA_DEB_ARCH ".deb";
const QString kDdeb = kRelease + "/orvanta-dbgsym_" ORVANTA_VERSION "_" ORVANTA_DEB_ARCH ".ddeb";

double median(QVector<double> values)
{
    std::sort(values.begin(), values.end());
    const int n = values.size();
    return n == 0 ? 0.0 : (n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2.0);
}

QString output(const QString& program, const QStringList& args, const QString& dir = {})
{
    QProcess process;
    process.setWorkingDirectory(dir);
    process.start(program, args);
    process.waitForFinished(600000);
    return QString::fromUtf8(process.readAllStandardOutput()).trimmed();
}

// Milliseconds from the start of `program` (from an empty working folder) to the strip's first
// frame, five times: the median and the runs.
void startToFirstFrame(const QString& label, const QString& program, const QString& linkDir)
{
    QVector<double> totals;
    for (int run = 0; run < 5; ++run) {
        Sandbox box;
        box.program = program;
        VirtualLedDevice device;
        const QString link = linkDir + QString("/tty%1%2").arg(label.left(1)).arg(run);
        if (!device.open(link)) {
            std::printf("cannot open a virtual strip: %s\n", qPrintable(device.errorString()));
            return;
        }
        QProcess process;
        box.prepare(process, {"--auto_startup"},
                    {{"ORVANTA_EXTRA_PORTS", link}, {"ORVANTA_SERVICE_URL", "off"}});
        QElapsedTimer clock;
        clock.start();
        process.start();
        if (spinUntil([&] { return device.frameCount() > 0; }, 15000)) {
            totals << double(clock.elapsed());
        } else {
            std::printf("%s run %d: no frame within 15 s\n", qPrintable(label), run);
        }
        process.terminate();
        process.waitForFinished(10000);
    }
    if (totals.isEmpty()) {
        std::printf("%s: no run reached a first frame\n", qPrintable(label));
        return;
    }
    std::printf("%s: start to first frame (median of %d) %.0f ms (runs:", qPrintable(label),
                int(totals.size()), median(totals));
    for (double t : totals) {
        std::printf(" %.0f", t);
    }
    std::printf(")\n");
}

} // namespace

int main(int argc, char* argv[])
{
    QTemporaryDir root;
    qputenv("HOME", root.path().toUtf8());
    QCoreApplication app(argc, argv);
    if (!QFileInfo::exists(kDeb) || !QFileInfo::exists(kDdeb)) {
        std::printf("no package in %s: make package first\n", qPrintable(kRelease));
        return 1;
    }
    const double mb = 1024.0 * 1024.0;
    const double installedKb = output("dpkg-deb", {"-f", kDeb, "Installed-Size"}).toDouble();
    std::printf(
        ".deb %.2f MB (target at most 5), -dbgsym %.2f MB, Installed-Size %.2f MB (target at most 15)\n",
        QFileInfo(kDeb).size() / mb, QFileInfo(kDdeb).size() / mb, installedKb / 1024.0);

    const QString unpacked = root.path() + "/root";
    output("dpkg-deb", {"-x", kDeb, unpacked});
    startToFirstFrame("installed program", unpacked + "/usr/bin/orvanta", root.path());
    startToFirstFrame("build tree's program", kRelease + "/bin/orvanta", root.path());

    // The package again, over a tree with nothing left to build: CPack's own time.
    QElapsedTimer clock;
    clock.start();
    output("cpack", {"-G", "DEB"}, kRelease);
    std::printf("make package on a built tree (cpack): %.1f s\n", clock.elapsed() / 1000.0);
    return 0;
}
