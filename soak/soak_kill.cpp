// soak_kill N: the real program, started with --soak-driver settings, changes its settings as fast
// as the store takes them, through the setters the pages and panels call, and is killed with
// SIGKILL at a random moment, N times; then it is started once more. After every kill each file
// of the store parses, none is set aside, no writer's temporary is left, every value the driver
// touches is one it had set (or the one the soak stored first), and the last change made longer
// ago than kOnDiskAfterMs is on disk; a writer's temporary a kill left is gone once the program
// has started again. The store's promise that a change's write begins within its lag is counted:
// a change older than the lag and not on disk is late unless a temporary the kill left holds it
// or a newer value of its key, which shows that its write had begun.
#include "ProgramRun.h"
#include "SoakClock.h"
#include "SoakDisplay.h"
#include "SoakOptions.h"
#include "SoakReport.h"
#include "SoakSandbox.h"
#include "SoakStore.h"

#include "VirtualLedDevice.h"

#include <QColor>
#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QHash>
#include <QJsonArray>
#include <QRandomGenerator>
#include <QRegularExpression>

#include <signal.h>

namespace {

constexpr qint64 kWriteLagMs = 250; // the store's promise: a change's write begins within this
// A change older than this at the kill must be on disk: the lag, and time for the write itself
// on a loaded machine. Changes between the two are only counted.
constexpr qint64 kOnDiskAfterMs = 1000;
constexpr int kReadyWaitMs = 60000;
constexpr int kKillWithinMs = 1500;

struct Change
{
    qint64 ns = 0;
    QJsonValue value;
};

// "scope path" -> the changes of the current run, in order.
using Journal = QHash<QString, QVector<Change>>;

bool same(const QJsonValue& a, const QJsonValue& b)
{
    if (a.isDouble() && b.isDouble()) {
        return qAbs(a.toDouble() - b.toDouble()) <= 1e-6 * qMax(1.0, qAbs(a.toDouble()));
    }
    return a == b;
}

bool contains(const QVector<QJsonValue>& values, const QJsonValue& value)
{
    return std::any_of(values.begin(), values.end(), [&](const QJsonValue& v) { return same(v, value); });
}

QString text(const QJsonValue& value)
{
    if (value.isUndefined()) {
        return QStringLiteral("(absent)");
    }
    const QByteArray json = QJsonDocument(QJsonArray{value}).toJson(QJsonDocument::Compact);
    return QString::fromUtf8(json.mid(1, json.size() - 2));
}

QString fileOf(const QString& scope)
{
    if (scope == QLatin1String("global")) {
        return QStringLiteral("global.json");
    }
    if (scope.startsWith(QLatin1String("controller:"))) {
        return SoakStore::controllerFile(scope.mid(11));
    }
    return SoakStore::effectFile(scope.mid(7));
}

} // namespace

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    SoakOptions options;
    if (!options.parse(app, QStringLiteral("kills"), 1000)) {
        return 2;
    }
    SoakReport report(QStringLiteral("soak_kill"));
    QRandomGenerator random(options.seed);
    report.line(QStringLiteral("%1 kills, seed %2, program %3%4")
                    .arg(options.length)
                    .arg(options.seed)
                    .arg(options.program, options.fault.isEmpty() ? QString() : ", fault " + options.fault));

    SoakSandbox sandbox(QStringLiteral("kill"));
    SoakDisplay xserver(QStringLiteral("640x480x24"));
    VirtualLedDevice device;
    device.setReply("OV5512,KILL\r\n");
    const QString id = QStringLiteral("OV5512:4B494C4C");
    if (!sandbox.isValid() || !xserver.start() || !device.open(sandbox.portLink(QStringLiteral("strip")))) {
        report.broken(QStringLiteral("the harness did not start: ") + xserver.errorString() +
                      device.errorString());
        return report.finish();
    }
    // What the store holds before the first run: values as good as any the driver sets.
    const QJsonObject first{{"kindName", "first"},
                            {"brightness", 0.5},
                            {"enable", true},
                            {"installDirection", 0},
                            {"nbLeds", 72.0},
                            {"lines", QJsonArray{18, 36, 18}},
                            {"workMode", "com.orvanta.singleColor"},
                            {"subMode", "com.orvanta.singleColor.singleColor1"}};
    SoakStore::writeJson(sandbox.storeDir() + '/' + SoakStore::controllerFile(id), first);
    QHash<QString, QVector<QJsonValue>> allowed; // every value a key may hold
    for (auto it = first.begin(); it != first.end(); ++it) {
        allowed[QStringLiteral("controller:") + id + ' ' + it.key()].append(it.value());
    }
    // The single colour's too: without it the effect would save its default, a value never set.
    const double firstColour = double(QColor(10, 200, 90).rgb());
    SoakStore::writeJson(sandbox.storeDir() + '/' +
                             SoakStore::effectFile(QStringLiteral("com.orvanta.singleColor.singleColor1")),
                         {{id, QJsonObject{{"color", firstColour}}}});
    allowed[QStringLiteral("effect:com.orvanta.singleColor.singleColor1 ") + id + QStringLiteral("/color")]
        .append(firstColour);

    QProcessEnvironment environment = sandbox.environment(xserver.display(), QString());
    if (!options.fault.isEmpty()) {
        environment.insert(QStringLiteral("ORVANTA_SOAK_FAULT"), options.fault);
    }

    qint64 changes = 0;
    int lost = 0;      // older than kOnDiskAfterMs and not on disk
    int lateAtLag = 0; // older than the lag, not on disk, and no write of it under way at the kill
    int inFlight = 0;  // older than the lag, not on disk, in the temporary of a write the kill cut
    int unknown = 0;   // a value never set
    qint64 slowestStartMs = 0;
    int temporaries = 0; // left by a kill, each gone once the program started again
    // The names the store's writer gives its temporaries: "." + the file's name + six characters.
    const QRegularExpression temporaryName(QStringLiteral("^\\..+\\.json\\.[A-Za-z0-9]{6}$"));
    QStringList leftByKill;
    const auto checkLeft = [&] {
        for (const QString& name : qAsConst(leftByKill)) {
            if (QFileInfo::exists(sandbox.storeDir() + '/' + name)) {
                report.broken(
                    QStringLiteral("the writer's temporary %1 a kill left is still there after the restart")
                        .arg(name));
            }
        }
    };
    for (int kill = 1; kill <= options.length + 1 && !report.isBroken(); ++kill) {
        const bool last = kill == options.length + 1;
        ProgramRun program(options.program, environment);
        Journal journal;
        bool ready = false;
        QObject::connect(&program, &ProgramRun::driverLine, [&](const QByteArray& line) {
            const QList<QByteArray> parts = line.split(' ');
            if (parts.size() >= 3 && parts.at(2) == "ready") {
                ready = true;
            }
            if (parts.size() < 6 || parts.at(2) != "set") {
                return;
            }
            const QString key = QString::fromUtf8(parts.at(3) + ' ' + parts.at(4));
            const QByteArray json = '[' + parts.mid(5).join(' ') + ']';
            const QJsonValue value = QJsonDocument::fromJson(json).array().at(0);
            journal[key].append({parts.at(1).toLongLong(), value});
            allowed[key].append(value);
            ++changes;
        });
        if (last) {
            // Earlier runs' logs were looked at: what is logged now is this run's alone.
            QDir(sandbox.logsDir()).removeRecursively();
        }
        const qint64 startNs = SoakClock::nowNs();
        if (!program.start(last ? QStringList()
                                : QStringList{QStringLiteral("--soak-driver"), QStringLiteral("settings")})) {
            report.broken(QStringLiteral("run %1: the program did not start").arg(kill));
            break;
        }
        if (last) {
            // Once more, undriven: it finds its device with what the last run left.
            // Frames after it found the device: the killed run's last ones may still be decoded.
            int frames = -1;
            const QString found = QStringLiteral("OVControllerEnumerator found a device: ") + id;
            if (!SoakClock::waitFor(
                    [&] {
                        if (frames < 0 && program.logged(found) > 0) {
                            frames = device.frameCount();
                        }
                        return (frames >= 0 && device.frameCount() > frames) || !program.isRunning();
                    },
                    kReadyWaitMs) ||
                !program.isRunning()) {
                report.broken(
                    QStringLiteral("the last start never sent a frame (%1)").arg(program.endText()));
            }
            checkLeft();
            program.signal(SIGTERM);
            if (!program.finish(30000)) {
                report.broken(QStringLiteral("the last start did not end cleanly on SIGTERM (%1)")
                                  .arg(program.endText()));
            }
        } else {
            if (!SoakClock::waitFor([&] { return ready || !program.isRunning(); }, kReadyWaitMs) || !ready) {
                if (!program.isRunning() && xserver.replaceAfter(program.lastWords(50))) {
                    report.line(
                        QStringLiteral("run %1: the X server went away; again on a new one").arg(kill));
                    environment.insert(QStringLiteral("DISPLAY"), xserver.display());
                    --kill;
                    continue;
                }
                report.broken(QStringLiteral("run %1: the driver never found the device (%2)")
                                  .arg(kill)
                                  .arg(program.isRunning() ? QStringLiteral("running") : program.endText()));
                break;
            }
            slowestStartMs = qMax(slowestStartMs, (SoakClock::nowNs() - startNs) / 1000000);
            checkLeft();
            SoakClock::pause(int(random.bounded(kKillWithinMs)));
            program.signal(SIGKILL);
            program.finish(30000);
        }
        if (!program.faults().isEmpty()) {
            report.broken(QStringLiteral("run %1: the sanitizers reported:\n%2")
                              .arg(kill)
                              .arg(QString::fromUtf8(program.faults())));
        }
        if (program.logged(QStringLiteral("Set aside unreadable file")) > 0) {
            report.broken(QStringLiteral("run %1: the program set a store file aside").arg(kill));
        }

        // Every file of the store parses, and none but its own are there: a writer's temporary a
        // kill cut short may be, until the next start removes it.
        QStringList stray = SoakStore::strayFiles(sandbox.storeDir());
        leftByKill.clear();
        for (const QString& name : qAsConst(stray)) {
            if (temporaryName.match(name.section('/', -1)).hasMatch()) {
                leftByKill.append(name);
            }
        }
        temporaries += int(leftByKill.size());
        for (const QString& name : qAsConst(leftByKill)) {
            stray.removeAll(name);
        }
        if (!stray.isEmpty()) {
            report.broken(QStringLiteral("after kill %1 the store holds files of no key: %2")
                              .arg(kill)
                              .arg(stray.join(", ")));
        }
        QHash<QString, QJsonObject> files;
        for (auto it = allowed.cbegin(); it != allowed.cend(); ++it) {
            const QString scope = it.key().section(' ', 0, 0);
            const QString file = fileOf(scope);
            if (files.contains(file)) {
                continue;
            }
            const QByteArray bytes = SoakStore::read(sandbox.storeDir() + '/' + file);
            QJsonParseError error;
            const QJsonDocument document = QJsonDocument::fromJson(bytes, &error);
            if (QFileInfo::exists(sandbox.storeDir() + '/' + file) && !document.isObject()) {
                // In one pass: a file's name holds percent signs.
                report.broken(QStringLiteral("after kill %1 %2 does not parse (%3, %4 bytes)")
                                  .arg(QString::number(kill), file, error.errorString(),
                                       QString::number(bytes.size())));
            }
            files.insert(file, document.object());
        }
        // What the temporaries of file's writes the kill cut short hold at path: the write of a
        // change older than the lag had begun in time if one holds it, or a newer value.
        const auto inTemporaries = [&](const QString& file, const QStringList& path) {
            QVector<QJsonValue> held;
            const QString folder = file.section('/', 0, -2);
            for (const QString& name : qAsConst(leftByKill)) {
                if (name.section('/', 0, -2) != folder ||
                    name.section('/', -1).chopped(7) != '.' + file.section('/', -1)) {
                    continue;
                }
                QJsonValue value =
                    QJsonDocument::fromJson(SoakStore::read(sandbox.storeDir() + '/' + name)).object();
                for (const QString& level : path) {
                    value = value.toObject().value(level);
                }
                held.append(value);
            }
            return held;
        };
        // Each value one that was set; the last change older than the lag there, or a later one.
        const qint64 killedNs = last ? SoakClock::nowNs() : program.killedAtNs();
        for (auto it = allowed.cbegin(); it != allowed.cend(); ++it) {
            const QString scope = it.key().section(' ', 0, 0);
            const QStringList path = it.key().section(' ', 1).split('/');
            QJsonValue onDisk = files.value(fileOf(scope));
            for (const QString& level : path) {
                onDisk = onDisk.toObject().value(level);
            }
            if (!onDisk.isUndefined() && !contains(it.value(), onDisk)) {
                ++unknown;
                report.broken(QStringLiteral("after kill %1 %2 holds %3, never set")
                                  .arg(kill)
                                  .arg(it.key(), text(onDisk)));
            }
            const QVector<Change> made = journal.value(it.key());
            for (const qint64 ageMs : {kOnDiskAfterMs, kWriteLagMs}) {
                int lastOld = -1;
                for (int i = 0; i < made.size(); ++i) {
                    if (killedNs - made.at(i).ns > ageMs * 1000000) {
                        lastOld = i;
                    }
                }
                bool found = lastOld < 0;
                for (int i = qMax(0, lastOld); i < made.size() && !found; ++i) {
                    found = same(made.at(i).value, onDisk);
                }
                if (found) {
                    continue;
                }
                if (ageMs == kWriteLagMs) {
                    const QVector<QJsonValue> held = inTemporaries(fileOf(scope), path);
                    const bool begun =
                        std::any_of(made.begin() + lastOld, made.end(),
                                    [&](const Change& change) { return contains(held, change.value); });
                    if (begun) {
                        ++inFlight;
                        continue;
                    }
                    ++lateAtLag;
                    // In one pass: a value may hold percent signs.
                    report.line(
                        QStringLiteral("kill %1: %2 holds %3, not its change of %4 ms before the kill, "
                                       "%5, and no write of it was under way (%6 of its file)")
                            .arg(QString::number(kill), it.key(), text(onDisk),
                                 QString::number((killedNs - made.at(lastOld).ns) / 1000000),
                                 text(made.at(lastOld).value), QString::number(held.size())));
                } else {
                    ++lost;
                    report.broken(
                        QStringLiteral(
                            "after kill %1 %2 holds %3, not its change of %4 ms before the kill, %5")
                            .arg(kill)
                            .arg(it.key(), text(onDisk))
                            .arg((killedNs - made.at(lastOld).ns) / 1000000)
                            .arg(text(made.at(lastOld).value)));
                }
            }
        }
        if (kill % 10 == 0 || last) {
            report.line(
                QStringLiteral(
                    "checkpoint %1: %2 changes made, %3 lost, %4 late at the lag, %5 being written at the "
                    "kill, %6 never set, slowest start to the first change %7 ms")
                    .arg(last ? QStringLiteral("last start") : QString::number(kill))
                    .arg(changes)
                    .arg(lost)
                    .arg(lateAtLag)
                    .arg(inFlight)
                    .arg(unknown)
                    .arg(slowestStartMs));
        }
        report.figure(QStringLiteral("kills"), QString::number(last ? kill - 1 : kill));
    }
    report.figure(QStringLiteral("changes"), QString::number(changes));
    report.figure(QStringLiteral("lost"), QString::number(lost));
    report.figure(QStringLiteral("late_at_lag"), QString::number(lateAtLag));
    report.figure(QStringLiteral("in_flight_at_kill"), QString::number(inFlight));
    report.figure(QStringLiteral("never_set"), QString::number(unknown));
    report.figure(QStringLiteral("temporaries_removed"), QString::number(temporaries));
    report.figure(QStringLiteral("x_servers_replaced"), QString::number(xserver.replaced()));
    if (report.isBroken() && options.fault.isEmpty()) { // a fault run breaks on purpose
        sandbox.keep();
        report.line(QStringLiteral("sandbox kept: ") + sandbox.path());
    }
    return report.finish();
}
