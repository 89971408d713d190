// The Debian package of the Release tree: its contents and control data, Debian's own checks, and
// the package installed into a throwaway root with dpkg, where the installed program runs as a
// user's desktop would start it. Nothing is installed into the machine itself.
#include "../crash/CrashSandbox.h"
#include "Command.h"
#include "TestFiles.h"
#include "service/config/AutostartEntry.h"

#include <QDirIterator>
#include <QElapsedTimer>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QSet>
#include <QTemporaryDir>
#include <QTest>

#include <QtEndian>

#include <csignal>
#include <unistd.h>
#include <xcb/xcb.h>

namespace {

// The program's waits (a first frame, a window): ten times a start's few seconds.
constexpr int kWaitMs = 60000;
const QString kRelease = QStringLiteral(ORVANTA_RELEASE_DIR);
const QString kSource = QStringLiteral(ORVANTA_SOURCE_DIR);
const QString kVersion = QStringLiteral(ORVANTA_VERSION);
const QString kDeb = kRelease + "/orvanta_" + kVersion + "_" ORVANTA_DEB_ARCH ".deb";
const QString kDdeb = kRelease + "/orvanta-dbgsym_" + kVersion + "_" ORVANTA_DEB_ARCH ".ddeb";
const QString kAppId = QStringLiteral("com.orvanta.Orvanta");
const QList<int> kIconSizes = {16, 22, 24, 32, 48, 64, 128, 256};
// The serial adapters' chips that the udev rule and the README name, vendor:product.
const QStringList kChips = {"1a86:7523", "1a86:5523", "1a86:55d3", "1a86:55d4", "10c4:ea60",
                            "10c4:ea70", "10c4:ea71", "0403:6001", "0403:6010", "0403:6011",
                            "0403:6014", "0403:6015", "067b:2303", "067b:23a3"};

using Command::run;
using Run = Command::Result;

// dpkg and dpkg-deb as root, or under fakeroot for a developer who is not.
Run asRoot(const QString& program, QStringList args)
{
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("PATH", "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin");
    if (geteuid() == 0) {
        return run(program, args, env);
    }
    if (program == "dpkg") {
        args.prepend("--force-not-root");
    }
    return run("fakeroot", QStringList{program} + args, env);
}

QString buildId(const QString& binary)
{
    const QRegularExpressionMatch m =
        QRegularExpression("Build ID: ([0-9a-f]+)").match(run("readelf", {"-n", binary}).out);
    return m.captured(1);
}

QString field(const QString& deb, const QString& name)
{
    return run("dpkg-deb", {"-f", deb, name}).out.trimmed();
}

// The files of the package, relative to its root: what data/, the built translations and the
// fixed layout hold, with every folder above them.
QMap<QString, QChar> expectedLayout()
{
    QMap<QString, QChar> kinds; // 'd' folder, 'x' program, 'l' link, 'f' file
    const auto add = [&kinds](const QString& path, QChar kind) {
        kinds.insert(path, kind);
        for (QString up = QFileInfo(path).path(); up != "."; up = QFileInfo(up).path()) {
            kinds.insert(up, 'd');
        }
    };
    for (const char* program : {"orvanta", "CrashReporter"}) {
        add(QStringLiteral("usr/lib/orvanta/") + program, 'x');
    }
    add("usr/lib/orvanta/effects", 'd');
    add("usr/lib/orvanta/deviceEnumerators", 'd');
    add("usr/bin/orvanta", 'l');
    for (const QString folder : {"effects", "controler_config", "images"}) {
        QDirIterator it(kSource + "/data/" + folder, QDir::Files | QDir::Dirs | QDir::NoDotAndDotDot,
                        QDirIterator::Subdirectories);
        while (it.hasNext()) {
            const QString path = it.next();
            add("usr/share/orvanta/" + path.mid(kSource.size() + 6), it.fileInfo().isDir() ? 'd' : 'f');
        }
    }
    for (const QString& ts : QDir(kSource + "/translations").entryList({"*.ts"})) {
        add("usr/share/orvanta/languages/" + QFileInfo(ts).completeBaseName() + ".qm", 'f');
    }
    add("usr/share/applications/" + kAppId + ".desktop", 'f');
    add("usr/share/metainfo/" + kAppId + ".metainfo.xml", 'f');
    for (int size : kIconSizes) {
        add(QString("usr/share/icons/hicolor/%1x%1/apps/%2.png").arg(size).arg(kAppId), 'f');
    }
    add("usr/share/icons/hicolor/scalable/apps/" + kAppId + ".svg", 'f');
    add("usr/share/man/man1/orvanta.1.gz", 'f');
    add("usr/share/lintian/overrides/orvanta", 'f');
    add("lib/udev/rules.d/70-orvanta-serial.rules", 'f');
    add("usr/share/doc/orvanta/copyright", 'f');
    add("usr/share/doc/orvanta/changelog.gz", 'f');
    return kinds;
}

// Every file and folder under `root` but dpkg's own records, relative to it.
QSet<QString> treeOf(const QString& root)
{
    QSet<QString> paths;
    QDirIterator it(root, QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next().mid(root.size() + 1);
        if (!path.startsWith("var/lib/dpkg") && !path.startsWith("var/log")) {
            paths << path;
        }
    }
    return paths;
}

// The WM_CLASS classes of the top-level windows of process `pid` on the X server in DISPLAY.
QStringList windowClasses(qint64 pid)
{
    QStringList classes;
    xcb_connection_t* c = xcb_connect(nullptr, nullptr);
    if (xcb_connection_has_error(c)) {
        xcb_disconnect(c);
        return classes;
    }
    const xcb_window_t root = xcb_setup_roots_iterator(xcb_get_setup(c)).data->root;
    xcb_intern_atom_reply_t* pidAtom =
        xcb_intern_atom_reply(c, xcb_intern_atom(c, 0, 11, "_NET_WM_PID"), nullptr);
    xcb_query_tree_reply_t* tree = xcb_query_tree_reply(c, xcb_query_tree(c, root), nullptr);
    const auto property = [c](xcb_window_t window, xcb_atom_t name, xcb_atom_t type) {
        QByteArray value;
        xcb_get_property_reply_t* p =
            xcb_get_property_reply(c, xcb_get_property(c, 0, window, name, type, 0, 256), nullptr);
        if (p) {
            value = QByteArray(static_cast<const char*>(xcb_get_property_value(p)),
                               xcb_get_property_value_length(p));
            free(p);
        }
        return value;
    };
    if (tree && pidAtom) {
        const xcb_window_t* children = xcb_query_tree_children(tree);
        for (int i = 0; i < xcb_query_tree_children_length(tree); ++i) {
            const QByteArray owner = property(children[i], pidAtom->atom, XCB_ATOM_CARDINAL);
            if (owner.size() != 4 || *reinterpret_cast<const quint32*>(owner.constData()) != quint32(pid)) {
                continue;
            }
            // "instance\0class\0"
            const QList<QByteArray> parts =
                property(children[i], XCB_ATOM_WM_CLASS, XCB_ATOM_STRING).split('\0');
            if (parts.size() >= 2) {
                classes << QString::fromUtf8(parts[1]);
            }
        }
    }
    free(tree);
    free(pidAtom);
    xcb_disconnect(c);
    return classes;
}

// Asks the program to quit as a session's end does, reading the strip meanwhile (its last frames
// must not fill the pseudo-terminal); kills it if it will not end.
bool stop(QProcess& process)
{
    process.terminate();
    if (Command::waitForEnd(process, kWaitMs)) {
        return true;
    }
    process.kill();
    process.waitForFinished(kWaitMs);
    return false;
}

// The live process whose program is `exe`, or 0.
qint64 processOf(const QString& exe)
{
    for (const QString& pid : QDir("/proc").entryList(QDir::Dirs)) {
        if (pid.toLongLong() > 0 && QFileInfo("/proc/" + pid + "/exe").symLinkTarget() == exe) {
            return pid.toLongLong();
        }
    }
    return 0;
}

} // namespace

class TestPackage : public QObject
{
    Q_OBJECT

    QTemporaryDir work{QDir::tempPath() + "/p-XXXXXX"};
    QString unpacked;   // the .deb's files
    QString debug;      // the -dbgsym package's files
    QString root;       // the throwaway system it is installed into
    QString program;    // the installed program, in that root
    QSet<QString> bare; // the root's files before the installation

    // dpkg on the throwaway root, its maintainer scripts run outside of a chroot.
    Run dpkg(const QStringList& args) const
    {
        return asRoot("dpkg",
                      QStringList{"--root=" + root, "--force-script-chrootless", "--log=/dev/null"} + args);
    }

private slots:
    void initTestCase()
    {
        QVERIFY2(QFile::exists(kDeb) && QFile::exists(kDdeb),
                 qPrintable("No package in " + kRelease + ": make package first (make test does)"));
        unpacked = work.filePath("deb");
        debug = work.filePath("ddeb");
        root = work.filePath("root");
        program = root + "/usr/lib/orvanta/orvanta";
        QCOMPARE(run("dpkg-deb", {"-x", kDeb, unpacked}).exitCode, 0);
        QCOMPARE(run("dpkg-deb", {"-x", kDdeb, debug}).exitCode, 0);
    }

    // Exactly the layout, directories and programs 0755, other files 0644, all root's.
    void contents()
    {
        const Run listing = run("dpkg-deb", {"--contents", kDeb});
        QCOMPARE(listing.exitCode, 0);
        const QMap<QString, QChar> expected = expectedLayout();
        QSet<QString> seen;
        static const QRegularExpression line(
            R"(^(\S{10}) (\S+)/(\S+) +\d+ \S+ \S+ \./(.*?)/?(?: -> (.*))?$)");
        for (const QString& text : listing.out.split('\n', Qt::SkipEmptyParts)) {
            const QRegularExpressionMatch m = line.match(text);
            QVERIFY2(m.hasMatch(), qPrintable(text));
            const QString path = m.captured(4);
            if (path.isEmpty()) {
                continue;
            }
            seen << path;
            QVERIFY2(expected.contains(path), qPrintable("not in the layout: " + path));
            QVERIFY2(m.captured(2) == "root" && m.captured(3) == "root", qPrintable(text));
            const QChar kind = expected.value(path);
            const QString mode = kind == 'd'   ? "drwxr-xr-x"
                                 : kind == 'x' ? "-rwxr-xr-x"
                                 : kind == 'l' ? "lrwxrwxrwx"
                                               : "-rw-r--r--";
            QVERIFY2(m.captured(1) == mode, qPrintable(text));
            if (kind == 'l') {
                QCOMPARE(m.captured(5), QString("../lib/orvanta/orvanta"));
            }
        }
        for (const QString& path : expected.keys()) {
            QVERIFY2(seen.contains(path), qPrintable("missing from the package: " + path));
        }
    }

    void control_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("pattern");
        const auto row = [](const char* tag, const char* name, const QString& pattern) {
            QTest::newRow(tag) << QString(name) << pattern;
        };
        row("Package", "Package", "^orvanta$");
        row("Version", "Version", "^" + QRegularExpression::escape(kVersion) + "$");
        row("Architecture", "Architecture", "^" ORVANTA_DEB_ARCH "$");
        row("Section", "Section", "^utils$");
        row("Priority", "Priority", "^optional$");
        row("Maintainer", "Maintainer", "^Orvanta developers <packages@orvanta\\.example>$");
        row("Description", "Description", "^\\S.{10,79}\\n( \\S.*\\n?){2,}$");
        row("Recommends", "Recommends", "^xdg-utils, ca-certificates$");
        row("Suggests", "Suggests", "^gnome-shell-extension-appindicator$");
        row("serial port library", "Depends", "(^|, )libqt5serialport5 \\(>= [^)]+\\)");
        row("udev", "Depends", "(^|, )libudev1 \\(>= [^)]+\\)");
        row("C library", "Depends", "(^|, )libc6 \\(>= [^)]+\\)");
        row("pkexec", "Depends", "(^|, )pkexec(,|$)");
    }
    void control()
    {
        QFETCH(QString, name);
        QFETCH(QString, pattern);
        const QString value = field(kDeb, name);
        QVERIFY2(QRegularExpression(pattern).match(value).hasMatch(), qPrintable(name + ": " + value));
    }

    // Nothing names the source or build tree (the build tree lies inside the source tree).
    void noBuildPaths()
    {
        const QByteArray source = kSource.toUtf8();
        QDirIterator it(unpacked, QDir::Files, QDirIterator::Subdirectories);
        int files = 0;
        while (it.hasNext()) {
            const QString path = it.next();
            if (!it.fileInfo().isSymLink()) {
                QVERIFY2(!TestFiles::read(path).contains(source), qPrintable(path + " holds " + kSource));
                ++files;
            }
        }
        QVERIFY(files > 10);
    }

    // Stripped, hardened, without a run path, with its debug information in the -dbgsym package by
    // build id.
    void programs_data()
    {
        QTest::addColumn<QString>("name");
        QTest::newRow("orvanta") << "orvanta";
        QTest::newRow("CrashReporter") << "CrashReporter";
    }
    void programs()
    {
        QFETCH(QString, name);
        const QString path = unpacked + "/usr/lib/orvanta/" + name;
        const QString sections = run("readelf", {"-S", "-W", path}).out;
        QVERIFY2(sections.contains(".text") && !sections.contains(".symtab") &&
                     !sections.contains(".debug_info"),
                 qPrintable(sections));
        const QString dynamic = run("readelf", {"-d", path}).out;
        QVERIFY2(dynamic.contains("NEEDED") && !dynamic.contains("RPATH") && !dynamic.contains("RUNPATH"),
                 qPrintable(dynamic));
        // Debian's hardening: read-only relocations bound at start, the stack protector and the
        // checked C functions; and no library linked that nothing uses.
        QVERIFY2(dynamic.contains("BIND_NOW") && run("readelf", {"-l", "-W", path}).out.contains("GNU_RELRO"),
                 qPrintable(dynamic));
        const QString symbols = run("readelf", {"--dyn-syms", "-W", path}).out;
        QVERIFY(symbols.contains("__stack_chk_fail") && symbols.contains("_chk@"));
        const Run unused = run("ldd", {"-u", "-r", path});
        QVERIFY2(unused.exitCode == 0 && !unused.out.contains("Unused"), qPrintable(unused.out));
        const QString id = buildId(path);
        QVERIFY(id.size() > 8);
        const QString file = debug + "/usr/lib/debug/.build-id/" + id.left(2) + "/" + id.mid(2) + ".debug";
        QVERIFY2(QFile::exists(file), qPrintable(file));
        QCOMPARE(buildId(file), id);
        QVERIFY(run("readelf", {"-S", "-W", file}).out.contains(".debug_info"));
    }

    // Debian's checks, with no error or warning left.
    void linters_data()
    {
        QTest::addColumn<QString>("program");
        QTest::addColumn<QStringList>("args");
        QStringList lintian = {"--fail-on", "error,warning", "--display-info"};
        if (geteuid() == 0) {
            lintian << "--allow-root";
        }
        QTest::newRow("lintian") << "lintian" << (lintian << kDeb);
        QTest::newRow("desktop-file-validate")
            << "desktop-file-validate" << QStringList{"usr/share/applications/" + kAppId + ".desktop"};
        QTest::newRow("appstreamcli")
            << "appstreamcli"
            << QStringList{"validate", "--no-net", "usr/share/metainfo/" + kAppId + ".metainfo.xml"};
    }
    void linters()
    {
        QFETCH(QString, program);
        QFETCH(QStringList, args);
        const Run result = run(program, args, QProcessEnvironment::systemEnvironment(), unpacked);
        qInfo().noquote() << program << "said:" << result.out.trimmed();
        QVERIFY2(result.exitCode == 0, qPrintable(result.out));
        QVERIFY2(
            !QRegularExpression("^[EW]: ", QRegularExpression::MultilineOption).match(result.out).hasMatch(),
            qPrintable(result.out));
    }

    // Each override says why, on the comment line above it.
    void lintianOverrides()
    {
        const QStringList lines =
            QString::fromUtf8(TestFiles::read(unpacked + "/usr/share/lintian/overrides/orvanta")).split('\n');
        int overrides = 0;
        for (int i = 0; i < lines.size(); ++i) {
            if (!lines[i].isEmpty() && !lines[i].startsWith('#')) {
                QVERIFY2(i > 0 && lines[i - 1].startsWith("# "), qPrintable(lines[i]));
                ++overrides;
            }
        }
        QVERIFY(overrides > 0);
    }

    void icons_data()
    {
        QTest::addColumn<int>("size");
        for (int size : kIconSizes) {
            QTest::addRow("%d px", size) << size;
        }
    }
    void icons()
    {
        QFETCH(int, size);
        const QByteArray png = TestFiles::read(
            unpacked + QString("/usr/share/icons/hicolor/%1x%1/apps/%2.png").arg(size).arg(kAppId));
        QVERIFY2(png.startsWith("\x89PNG\r\n\x1a\n") && png.mid(12, 4) == "IHDR", "not a PNG");
        QCOMPARE(qFromBigEndian<qint32>(png.constData() + 16), size); // width
        QCOMPARE(qFromBigEndian<qint32>(png.constData() + 20), size); // height
    }

    // Only comments, blanks and one uaccess line per chip; the README names the same chips.
    void udevRule()
    {
        const QString text =
            QString::fromUtf8(TestFiles::read(unpacked + "/lib/udev/rules.d/70-orvanta-serial.rules"));
        static const QRegularExpression rule(
            R"re(^SUBSYSTEM=="tty", SUBSYSTEMS=="usb", ATTRS\{idVendor\}=="([0-9a-f]{4})", )re"
            R"re(ATTRS\{idProduct\}=="([0-9a-f]{4})", TAG\+="uaccess"$)re");
        QStringList ruled;
        for (const QString& line : text.split('\n')) {
            if (line.trimmed().isEmpty() || line.startsWith('#')) {
                continue;
            }
            const QRegularExpressionMatch m = rule.match(line);
            QVERIFY2(m.hasMatch(), qPrintable("not a rule of the list: " + line));
            ruled << m.captured(1) + ":" + m.captured(2);
        }
        QCOMPARE(ruled, kChips);
        const QString readme = QString::fromUtf8(TestFiles::read(kSource + "/README.md"));
        const int from = readme.indexOf("### Serial access");
        QVERIFY(from > 0);
        const QString section = readme.mid(from, readme.indexOf("\n#", from + 4) - from);
        QStringList listed;
        QRegularExpressionMatchIterator it =
            QRegularExpression("`([0-9a-f]{4}:[0-9a-f]{4})`").globalMatch(section);
        while (it.hasNext()) {
            listed << it.next().captured(1);
        }
        QCOMPARE(listed, kChips);
    }

    // dpkg installs it into a root whose database is the machine's: dependencies are real, and
    // the maintainer scripts see DPKG_ROOT and leave the machine's udev alone. apt would remove
    // and break nothing to install it here.
    void install()
    {
        for (const char* dir :
             {"var/lib/dpkg/info", "var/lib/dpkg/updates", "var/lib/dpkg/triggers", "var/log"}) {
            QVERIFY(QDir().mkpath(root + "/" + dir));
        }
        QString status;
        for (const QString& stanza :
             QString::fromUtf8(TestFiles::read("/var/lib/dpkg/status")).split("\n\n")) {
            if (!QRegularExpression("^Package: orvanta(-dbgsym)?$", QRegularExpression::MultilineOption)
                     .match(stanza)
                     .hasMatch()) {
                status += stanza.trimmed() + "\n\n";
            }
        }
        QVERIFY(TestFiles::write(root + "/var/lib/dpkg/status", status.toUtf8()));
        // Empty file lists: the machine's packages own nothing in the root, and dpkg says nothing
        // of lists it misses.
        for (const QString& list : QDir("/var/lib/dpkg/info").entryList({"*.list"})) {
            if (!list.startsWith("orvanta")) {
                QVERIFY(TestFiles::write(root + "/var/lib/dpkg/info/" + list, QByteArray()));
            }
        }
        QVERIFY(TestFiles::write(root + "/var/lib/dpkg/available", QByteArray()));
        bare = treeOf(root);
        const Run installed = dpkg({"-i", kDeb});
        QVERIFY2(installed.exitCode == 0, qPrintable(installed.out));
        const QMap<QString, QChar> layout = expectedLayout();
        QCOMPARE(treeOf(root) - bare, QSet<QString>(layout.keyBegin(), layout.keyEnd()));

        const Run apt = run("apt-get", {"install", "--simulate", "-q", kDeb});
        QVERIFY2(apt.exitCode == 0 && apt.out.contains("Inst orvanta"), qPrintable(apt.out));
        QVERIFY2(!QRegularExpression("^(Remv|E:)|[Bb]roken", QRegularExpression::MultilineOption)
                      .match(apt.out)
                      .hasMatch(),
                 qPrintable(apt.out));
    }

    void versionAndLibraries()
    {
        QVERIFY(QFileInfo::exists(program));
        const Run version = run(root + "/usr/bin/orvanta", {"--version"});
        QCOMPARE(version.exitCode, 0);
        QVERIFY2(version.out.contains(kVersion), qPrintable(version.out));
        for (const QString name : {"orvanta", "CrashReporter"}) {
            const Run ldd = run("ldd", {root + "/usr/lib/orvanta/" + name});
            QVERIFY2(ldd.exitCode == 0 && ldd.out.contains("libQt5Core") && !ldd.out.contains("not found"),
                     qPrintable(ldd.out));
        }
    }

    // From an empty folder, as the user: the strip gets frames of its model's size in one colour,
    // and the data comes from the root's share folder.
    void lightsDevice()
    {
        CrashSandbox box;
        QProcess process;
        box.prepare(process, root + "/usr/bin/orvanta", {}, QString(), QString());
        QProcessEnvironment env = process.processEnvironment();
        env.insert("LANG", "en_US.UTF-8");
        for (const char* name : {"LANGUAGE", "LC_ALL", "LC_MESSAGES"}) {
            env.remove(name);
        }
        process.setProcessEnvironment(env);
        QElapsedTimer clock;
        clock.start();
        process.start();
        const bool lit = QTest::qWaitFor([&box] { return box.device.frameCount() > 0; }, kWaitMs);
        qInfo() << "first frame after" << clock.elapsed() << "ms";
        QVERIFY(stop(process));
        const QString log = box.mainLog();
        QVERIFY2(lit, qPrintable(log));
        const int leds = QJsonDocument::fromJson(
                             TestFiles::read(root + "/usr/share/orvanta/controler_config/OVController.json"))
                             .object()
                             .value("OV5512")
                             .toObject()
                             .value("nbLeds")
                             .toInt();
        QVERIFY(leds > 0);
        QCOMPARE(int(box.device.lastCount()), leds);
        const QVector<VirtualLedDevice::Rgb> colors = box.device.lastColors();
        QCOMPARE(colors.size(), leds);
        QCOMPARE(colors.count(colors.first()), leds);
        QVERIFY2(log.contains(root + "/usr/share/orvanta"), qPrintable(log));
        QVERIFY2(log.contains("成功载入了 4 个组信息"), qPrintable(log));
        QVERIFY2(log.contains("InstallTranslator: " + root + "/usr/share/orvanta/languages/orvanta_en.qm"),
                 qPrintable(log));
        // The "not found" lines of a file or folder that no place has.
        QVERIFY2(!log.contains("找不到") && !log.contains("Not found") && !log.contains("No such file"),
                 qPrintable(log));
    }

    // The entry the settings write for the installed program, started as a desktop does: its
    // command parsed by the desktop entry rules, in its Path folder.
    void autostartEntry()
    {
        CrashSandbox box;
        QVERIFY(box.device.open());
        qputenv("XDG_CONFIG_HOME", box.configHome().toUtf8());
        AutostartEntry entry("orvanta", program, "--auto_startup");
        QString why;
        QCOMPARE(entry.enable(&why), AutostartEntry::Result::Done);
        const AutostartEntry::Contents contents = AutostartEntry::parse(TestFiles::read(entry.filePath()));
        qunsetenv("XDG_CONFIG_HOME");
        bool ok = false;
        const QStringList command = AutostartEntry::execArguments(contents.values.value("Exec"), &ok);
        QVERIFY(ok);
        QCOMPARE(command, QStringList({program, "--auto_startup"}));
        QCOMPARE(contents.values.value("TryExec"), program);
        QProcess process;
        box.prepare(process, command.first(), command.mid(1), QString(), QString());
        process.setWorkingDirectory(contents.values.value("Path"));
        process.start();
        const bool lit = QTest::qWaitFor([&box] { return box.device.frameCount() > 0; }, kWaitMs);
        QVERIFY(stop(process));
        QVERIFY2(lit, qPrintable(box.mainLog()));
    }

    // A crash starts the root's reporter, and the -dbgsym package's file names the function.
    void crashReport()
    {
        CrashSandbox box;
        QProcess process;
        box.prepare(process, root + "/usr/bin/orvanta", {"--enable_crash_test"}, "segv", QString());
        process.start();
        QVERIFY(process.waitForFinished(kWaitMs));
        QCOMPARE(process.exitStatus(), QProcess::CrashExit);
        const QString reporter = root + "/usr/lib/orvanta/CrashReporter";
        qint64 pid = 0;
        QVERIFY2(QTest::qWaitFor([&] { return (pid = processOf(reporter)) != 0; }, 20000),
                 qPrintable("no " + reporter + " started"));
        ::kill(pid_t(pid), SIGKILL);
        QCOMPARE(box.dumps().size(), 1);
        const QString id = buildId(unpacked + "/usr/lib/orvanta/orvanta");
        const Run symbols =
            run(kSource + "/scripts/symbolize-crash",
                {box.dumpsDir() + "/" + box.dumps().first(),
                 debug + "/usr/lib/debug/.build-id/" + id.left(2) + "/" + id.mid(2) + ".debug"});
        QVERIFY2(symbols.exitCode == 0 && symbols.out.contains("Fault PC: 0x") &&
                     symbols.out.contains("CrashTest::crashSegv()"),
                 qPrintable(symbols.out));
    }

    // On the X server, the window's class is the one the desktop entry names.
    void windowClass()
    {
        if (qEnvironmentVariableIsEmpty("DISPLAY")) {
            QSKIP("runs under tests/with-xvfb");
        }
        const QString desktop =
            QString::fromUtf8(TestFiles::read(root + "/usr/share/applications/" + kAppId + ".desktop"));
        const QString wmClass =
            QRegularExpression("^StartupWMClass=(.*)$", QRegularExpression::MultilineOption)
                .match(desktop)
                .captured(1);
        QVERIFY(!wmClass.isEmpty());
        // A loaded machine's X server may turn a client away at once: such a start is tried up to
        // three times.
        for (int attempt = 1;; ++attempt) {
            CrashSandbox box;
            QProcess process;
            box.prepare(process, root + "/usr/bin/orvanta", {}, QString(), QString());
            QProcessEnvironment env = process.processEnvironment();
            env.insert("DISPLAY", qEnvironmentVariable("DISPLAY"));
            env.insert("QT_QPA_PLATFORM", "xcb");
            env.insert("QT_XCB_GL_INTEGRATION", "none");
            process.setProcessEnvironment(env);
            process.setProcessChannelMode(QProcess::MergedChannels);
            process.start();
            const qint64 pid = process.processId();
            const bool shown =
                QTest::qWaitFor(
                    [&process, pid] {
                        return process.state() == QProcess::NotRunning || !windowClasses(pid).isEmpty();
                    },
                    kWaitMs) &&
                process.state() == QProcess::Running;
            const QStringList shownClasses = windowClasses(pid);
            const bool ended = stop(process);
            const QByteArray output = process.readAll();
            if (!shown && attempt < 3 &&
                (output.contains("could not connect to display") || output.contains("does not answer"))) {
                qInfo() << "the X server turned the program away; starting it again";
                continue;
            }
            QVERIFY(ended);
            qInfo() << "window classes of the program:" << shownClasses;
            QVERIFY2(shown && shownClasses.contains(wmClass), qPrintable(output + box.mainLog().right(3000)));
            break;
        }
    }

    // A newer copy upgrades it; removing and purging leave nothing of it in the root.
    void upgradeRemovePurge()
    {
        const QString tree = work.filePath("newer");
        QCOMPARE(asRoot("dpkg-deb", {"-R", kDeb, tree}).exitCode, 0);
        const QString newer = kVersion + "+1";
        QByteArray control = TestFiles::read(tree + "/DEBIAN/control");
        control.replace("Version: " + kVersion.toUtf8() + "\n", "Version: " + newer.toUtf8() + "\n");
        QVERIFY(TestFiles::write(tree + "/DEBIAN/control", control));
        const QString newerDeb = work.filePath("newer.deb");
        const Run built = asRoot("dpkg-deb", {"--root-owner-group", "-b", tree, newerDeb});
        QVERIFY2(built.exitCode == 0, qPrintable(built.out));
        const QString admin = "--admindir=" + root + "/var/lib/dpkg";
        const auto installed = [&admin] {
            return run("dpkg-query", {admin, "-W", "-f", "${Status} ${Version}", "orvanta"}).out.trimmed();
        };
        const QSet<QString> withOld = treeOf(root);
        const Run upgrade = dpkg({"-i", newerDeb});
        QVERIFY2(upgrade.exitCode == 0, qPrintable(upgrade.out));
        QCOMPARE(installed(), "install ok installed " + newer);
        QCOMPARE(treeOf(root), withOld);

        const Run remove = dpkg({"-r", "orvanta"});
        QVERIFY2(remove.exitCode == 0, qPrintable(remove.out));
        const QSet<QString> left = treeOf(root) - bare;
        QVERIFY2(left.isEmpty(), qPrintable(QStringList(left.values()).join(", ")));
        const Run purge = dpkg({"-P", "orvanta"});
        QVERIFY2(purge.exitCode == 0, qPrintable(purge.out));
        QVERIFY2(!installed().contains("installed"), qPrintable(installed()));
        QVERIFY(QDir(root + "/var/lib/dpkg/info").entryList({"orvanta.*"}).isEmpty());
    }
};

QTEST_GUILESS_MAIN(TestPackage)
#include "tst_Package.moc"
