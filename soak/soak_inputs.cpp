// soak_inputs N: N hostile inputs through the real program, five a run: one file of the store
// replaced before the start (truncated, binary, nested 10,000 levels, 5 MiB, a link to a folder,
// a link to itself, unreadable), and four devices beside a good one that answer the salutation
// with random bytes, too long a reply, too late a reply, the reply twice, or nothing. Each run
// the program must stay up, log the line that names each refusal, run the replaced file's
// settings on defaults (the good strip on the model's layout, or on the default colour), find
// the good strip, and end cleanly.
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
#include <QFile>
#include <QJsonArray>
#include <QRandomGenerator>

#include <cerrno>
#include <memory>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int kDevicesPerRun = 4;
constexpr int kInputsPerRun = 1 + kDevicesPerRun;
constexpr int kRunWaitMs = 60000;
constexpr uint16_t kStoredLeds = 80;  // the good strip's stored layout
constexpr uint16_t kDefaultLeds = 72; // the model's, from its defaults file
const QString kSingleColour = QStringLiteral("com.orvanta.singleColor.singleColor1");

// The store's files a run may replace; the good strip's controller and effect among them.
enum class Target
{
    Global,
    App,
    Controller,
    Effect
};

// How a replaced file goes wrong: the first four are set aside, the others left as they are.
enum class Spoil
{
    Huge,
    Truncated,
    Binary,
    Nested,
    LinkToFolder,
    LinkToItself,
    Unreadable
};
const QStringList kSpoilNames{
    "5 MiB",     "truncated", "binary", "nested 10,000 levels", "a link to a folder", "a link to itself",
    "unreadable"};

enum class Answer
{
    RandomBytes,
    TooLong,
    TooLate,
    Twice,
    Silent
};
const QStringList kAnswerNames{"random bytes", "too long", "too late", "twice", "nothing"};

QByteArray randomBytes(QRandomGenerator& random, int size)
{
    QByteArray bytes(size, Qt::Uninitialized);
    for (char& c : bytes) {
        c = char(random.bounded(256));
    }
    return bytes;
}

} // namespace

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    SoakOptions options;
    if (!options.parse(app, QStringLiteral("inputs"), 2000)) {
        return 2;
    }
    SoakReport report(QStringLiteral("soak_inputs"));
    QRandomGenerator random(options.seed);
    const int runs = (options.length + kInputsPerRun - 1) / kInputsPerRun;
    report.line(QStringLiteral("%1 inputs in %2 runs, seed %3, program %4%5")
                    .arg(options.length)
                    .arg(runs)
                    .arg(options.seed)
                    .arg(options.program, options.fault.isEmpty() ? QString() : ", fault " + options.fault));

    SoakSandbox sandbox(QStringLiteral("inputs"));
    SoakDisplay xserver(QStringLiteral("640x480x24"));
    if (!sandbox.isValid() || !xserver.start()) {
        report.broken(QStringLiteral("the harness did not start: ") + xserver.errorString());
        return report.finish();
    }
    QProcessEnvironment environment = sandbox.environment(xserver.display(), QString());
    if (!options.fault.isEmpty()) {
        environment.insert(QStringLiteral("ORVANTA_SOAK_FAULT"), options.fault);
    }
    const QString store = sandbox.storeDir();
    const QString goodId = QStringLiteral("OV5512:474F4F44");
    const QColor storedColour(200, 120, 40);
    const bool root = ::geteuid() == 0;

    int inputs = 0;
    int refusals = 0;
    qint64 slowestMs = 0;
    for (int run = 1; run <= runs && !report.isBroken(); ++run) {
        // A fresh store of good files, then one of them spoilt; every kind of spoil in turn.
        QDir(store).removeRecursively();
        QDir(sandbox.logsDir()).removeRecursively();
        for (const QString& name : QDir(sandbox.path(QStringLiteral("ports"))).entryList(QDir::System)) {
            QFile::remove(sandbox.path(QStringLiteral("ports/")) + name);
        }
        QJsonArray padding;
        for (int i = 0; i < 20; ++i) {
            padding.append(QStringLiteral("value %1").arg(i));
        }
        const QMap<Target, QString> files{{Target::Global, QStringLiteral("global.json")},
                                          {Target::App, QStringLiteral("app.json")},
                                          {Target::Controller, SoakStore::controllerFile(goodId)},
                                          {Target::Effect, SoakStore::effectFile(kSingleColour)}};
        SoakStore::writeJson(store + '/' + files[Target::Global], {{"soak", padding}});
        SoakStore::writeJson(store + '/' + files[Target::App], {{"soak", padding}});
        SoakStore::writeJson(store + '/' + files[Target::Controller],
                             {{"kindName", "good"},
                              {"brightness", 1.0},
                              {"enable", true},
                              {"installDirection", 0},
                              {"workMode", "com.orvanta.singleColor"},
                              {"subMode", kSingleColour},
                              {"nbLeds", double(kStoredLeds)},
                              {"lines", QJsonArray{20, 40, 20}}});
        SoakStore::writeJson(store + '/' + files[Target::Effect],
                             {{goodId, QJsonObject{{"color", double(storedColour.rgb())}}}});

        const auto spoil = Spoil((run - 1) % kSpoilNames.size());
        const auto target = Target(random.bounded(4));
        const QString spoilt = store + '/' + files[target];
        const QByteArray path = QFile::encodeName(spoilt);
        const QByteArray good = SoakStore::read(spoilt);
        QString spoilName = kSpoilNames.at(int(spoil));
        QFile::remove(spoilt);
        bool linked = true;
        switch (spoil) {
        case Spoil::Huge:
            // Well-formed: only its size is wrong.
            SoakStore::write(spoilt, "{\"padding\": \"" + QByteArray(5 * 1024 * 1024, 'x') + "\"}\n");
            break;
        case Spoil::Truncated:
            SoakStore::write(spoilt, good.left(int(random.bounded(1, good.size() - 1))));
            break;
        case Spoil::Binary:
            SoakStore::write(spoilt, '\0' + randomBytes(random, int(random.bounded(1, 4096))));
            break;
        case Spoil::Nested:
            SoakStore::write(spoilt,
                             QByteArray("{\"a\":").repeated(10000) + "1" + QByteArray("}").repeated(10000));
            break;
        case Spoil::LinkToFolder:
            linked = ::symlink(QFile::encodeName(sandbox.path(QStringLiteral("home"))).constData(),
                               path.constData()) == 0;
            break;
        case Spoil::LinkToItself:
            linked = ::symlink(path.constData(), path.constData()) == 0;
            break;
        case Spoil::Unreadable:
            if (root) {
                // Nothing is unreadable to root: a FIFO, which no read may wait on, instead.
                ::mkfifo(path.constData(), 0600);
                spoilName += QStringLiteral(" (a FIFO, as root)");
            } else {
                SoakStore::write(spoilt, good);
                ::chmod(path.constData(), 0);
            }
            break;
        }
        if (!linked) {
            report.broken(
                QStringLiteral("cannot make the link for run %1: %2").arg(run).arg(qt_error_string(errno)));
        }
        const bool setAside = spoil == Spoil::Huge || spoil == Spoil::Truncated || spoil == Spoil::Binary ||
                              spoil == Spoil::Nested;
        struct stat before;
        ::lstat(path.constData(), &before);

        // The good strip, and four that answer badly.
        VirtualLedDevice goodDevice;
        goodDevice.setReply("OV5512,GOOD\r\n");
        std::vector<std::unique_ptr<VirtualLedDevice>> bad;
        QVector<Answer> answers;
        QStringList expected; // a line each bad device must bring
        QString twiceId;
        for (int i = 0; i < kDevicesPerRun; ++i) {
            const auto answer = Answer(random.bounded(kAnswerNames.size()));
            auto device = std::make_unique<VirtualLedDevice>();
            const QString link = sandbox.portLink(QStringLiteral("bad%1-%2").arg(run).arg(i));
            switch (answer) {
            case Answer::RandomBytes: {
                // Never a model's name first, so never a device.
                QByteArray bytes = randomBytes(random, int(random.bounded(1, 300)));
                bytes[0] = char(random.bounded(0, 'O'));
                device->setReply(bytes);
                expected.append(QStringLiteral("[%1]").arg(link));
                break;
            }
            case Answer::TooLong:
                device->setReply("OV5512," + QByteArray(int(random.bounded(60, 5000)), 'L'));
                expected.append(QStringLiteral("[%1]").arg(link));
                break;
            case Answer::TooLate:
                device->setReply("OV5512,LATE\r\n");
                device->setReplyDelayMs(7000);
                expected.append(QStringLiteral("device response timeout： ") + link);
                break;
            case Answer::Twice: {
                const QByteArray serial = "TW" + QByteArray::number(i);
                device->setReply("OV5512," + serial + "\r\nOV5512," + serial + "\r\n");
                expected.append(QStringLiteral("OVControllerEnumerator found a device: OV5512:") +
                                QString::fromLatin1(serial.toHex().toUpper()));
                break;
            }
            case Answer::Silent:
                device->setReplyMode(VirtualLedDevice::ReplyMode::Silent);
                expected.append(QStringLiteral("device response timeout： ") + link);
                break;
            }
            if (!device->open(link)) {
                report.broken(QStringLiteral("cannot open a virtual device: ") + device->errorString());
                return report.finish();
            }
            answers.append(answer);
            bad.push_back(std::move(device));
        }
        if (!goodDevice.open(sandbox.portLink(QStringLiteral("good%1").arg(run)))) {
            report.broken(QStringLiteral("cannot open the good device: ") + goodDevice.errorString());
            return report.finish();
        }

        ProgramRun program(options.program, environment);
        const qint64 startNs = SoakClock::nowNs();
        if (!program.start()) {
            report.broken(QStringLiteral("run %1: the program did not start").arg(run));
            break;
        }
        // A refusal logs the port with one of three lines: not a device, too long, or no answer.
        const auto refused = [&](const QString& link) {
            return program.logged(QStringLiteral("Failed to verify deviece <") + link + '>') +
                       program.logged(QStringLiteral("bytes without a line end on \"") + link + '"') +
                       program.logged(QStringLiteral("device response timeout： ") + link) >
                   0;
        };
        const auto seen = [&](int i) {
            const QString& line = expected.at(i);
            return line.startsWith('[') ? refused(line.mid(1, line.size() - 2)) : program.logged(line) > 0;
        };
        const uint16_t leds = target == Target::Controller ? kDefaultLeds : kStoredLeds;
        const auto goodFound = [&] { return goodDevice.frameCount() > 0 && goodDevice.lastCount() == leds; };
        const QString fileLine =
            (setAside ? QStringLiteral("Set aside unreadable file ") : QStringLiteral("Cannot read ")) +
            spoilt;
        const bool done = SoakClock::waitFor(
            [&] {
                // The store is read before the good strip's first frame: its line is there by then.
                bool all = goodFound();
                for (int i = 0; i < expected.size() && all; ++i) {
                    all = seen(i);
                }
                return all || !program.isRunning();
            },
            kRunWaitMs);
        const qint64 tookMs = (SoakClock::nowNs() - startNs) / 1000000;
        slowestMs = qMax(slowestMs, tookMs);
        const QString what =
            QStringLiteral("run %1 (%2 %3; %4)").arg(QString::number(run), files[target], spoilName, [&] {
                QStringList names;
                for (Answer a : qAsConst(answers)) {
                    names.append(kAnswerNames.at(int(a)));
                }
                return names.join(QStringLiteral(", "));
            }());
        if (!program.isRunning() && xserver.replaceAfter(program.lastWords(50))) {
            report.line(what + QStringLiteral(": the X server went away; this run again on a new one"));
            environment.insert(QStringLiteral("DISPLAY"), xserver.display());
            --run;
            continue;
        }
        if (!program.isRunning()) {
            report.broken(what + QStringLiteral(": the program ended (%1)").arg(program.endText()));
            report.line(program.lastWords(20));
        } else {
            if (!done && !goodFound()) {
                report.broken(
                    what +
                    QStringLiteral(": the good strip got no frame of %1 LEDs (%2 frames, the last of %3)")
                        .arg(leds)
                        .arg(goodDevice.frameCount())
                        .arg(goodDevice.lastCount()));
            }
            if (program.logged(fileLine) == 0) {
                report.broken(what + QStringLiteral(": no line \"%1\"").arg(fileLine));
            }
            for (int i = 0; i < expected.size(); ++i) {
                if (!seen(i)) {
                    report.broken(what + QStringLiteral(": device %1 (%2) brought no line %3")
                                             .arg(QString::number(i), kAnswerNames.at(int(answers.at(i))),
                                                  expected.at(i)));
                }
            }
        }
        // Defaults in force: the good strip's colour is the default one when its effect's file was
        // spoilt, the stored one otherwise (at full brightness, as stored).
        if (target != Target::Controller && goodFound()) {
            const QColor colour = target == Target::Effect ? QColor(Qt::white) : storedColour;
            const VirtualLedDevice::Rgb wanted{uint8_t(colour.red()), uint8_t(colour.green()),
                                               uint8_t(colour.blue())};
            if (!SoakClock::waitFor([&] { return goodDevice.lastColors().value(0) == wanted; }, 10000)) {
                const VirtualLedDevice::Rgb got = goodDevice.lastColors().value(0);
                report.broken(what + QStringLiteral(": the good strip shows %1,%2,%3, not %4")
                                         .arg(got.r)
                                         .arg(got.g)
                                         .arg(got.b)
                                         .arg(colour.name()));
            }
        }
        program.signal(SIGTERM);
        if (!program.finish(30000)) {
            report.broken(
                what +
                QStringLiteral(": the program did not end cleanly on SIGTERM (%1)").arg(program.endText()));
        }
        if (!program.faults().isEmpty()) {
            report.broken(what + QStringLiteral(": the sanitizers reported:\n") +
                          QString::fromUtf8(program.faults()));
        }
        // A file it could not read is left as it was; one set aside is kept beside.
        struct stat after;
        if (!setAside && (::lstat(path.constData(), &after) != 0 ||
                          (after.st_mode & S_IFMT) != (before.st_mode & S_IFMT))) {
            report.broken(what + QStringLiteral(": the file it could not read was not left as it was"));
        }
        if (setAside && QDir(QFileInfo(spoilt).path())
                            .entryList({QFileInfo(spoilt).fileName() + ".corrupt-*"}, QDir::Files)
                            .isEmpty()) {
            report.broken(what + QStringLiteral(": the file set aside is not beside it"));
        }
        if (!root && spoil == Spoil::Unreadable) {
            ::chmod(path.constData(), 0600);
        }
        inputs += kInputsPerRun;
        refusals += int(expected.size()) + 1;
        if (run % 5 == 0 || run == runs || report.isBroken()) {
            report.line(QStringLiteral("checkpoint %1: %2 inputs, the slowest run to every line %3 ms")
                            .arg(run)
                            .arg(inputs)
                            .arg(slowestMs));
        }
    }
    report.figure(QStringLiteral("inputs"), QString::number(inputs));
    report.figure(QStringLiteral("slowest_run_ms"), QString::number(slowestMs));
    report.figure(QStringLiteral("x_servers_replaced"), QString::number(xserver.replaced()));
    if (report.isBroken() && options.fault.isEmpty()) { // a fault run breaks on purpose
        sandbox.keep();
        report.line(QStringLiteral("sandbox kept: ") + sandbox.path());
    }
    return report.finish();
}
