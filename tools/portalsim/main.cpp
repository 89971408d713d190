// portalsim: the screen cast portal simulator as a program, for trying the program's Wayland
// capture by hand, for benchmarks, and for tests that kill it. Prints "bus <address>",
// "pipewire <socket>" and "ready", then every call it receives as a line of JSON.
// Lines on standard input change what a screen shows: "fill I #rrggbb", "bar I #background #bar
// WIDTH HEIGHT", "changing I" (a new colour every frame), "picture I FILE". Each is answered
// "queued I NS" once the first frame showing it has gone out (steady clock, ns; 0: none in 2 s).
#include "PortalSimulator.h"
#include "PrivatePipeWire.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSocketNotifier>
#include <QThread>
#include <QTimer>

#include <cstdio>
#include <memory>

#include <unistd.h>

namespace {

// "id=A,x=0,y=0,w=1920,h=1080,format=BGRx,fill=#ff0000" (also lw, lh, picture=PATH, bar=#rrggbb,
// noposition, nosize); false for anything it cannot read.
bool parseMonitor(const QString& description, SimulatedMonitor* monitor, ScreenContent* content)
{
    for (const QString& item : description.split(QLatin1Char(','), Qt::SkipEmptyParts)) {
        const QString key = item.section(QLatin1Char('='), 0, 0);
        const QString value = item.section(QLatin1Char('='), 1);
        bool ok = true;
        if (key == QLatin1String("id")) {
            monitor->id = value;
        } else if (key == QLatin1String("x")) {
            monitor->position.setX(value.toInt(&ok));
        } else if (key == QLatin1String("y")) {
            monitor->position.setY(value.toInt(&ok));
        } else if (key == QLatin1String("w")) {
            monitor->size.setWidth(value.toInt(&ok));
        } else if (key == QLatin1String("h")) {
            monitor->size.setHeight(value.toInt(&ok));
        } else if (key == QLatin1String("lw")) {
            monitor->logicalSize.setWidth(value.toInt(&ok));
        } else if (key == QLatin1String("lh")) {
            monitor->logicalSize.setHeight(value.toInt(&ok));
        } else if (key == QLatin1String("format")) {
            monitor->order = PixelOrders::fromName(value, &ok);
        } else if (key == QLatin1String("fill")) {
            content->kind = ScreenContent::Kind::Fill;
            content->colour = QColor(value);
            ok = content->colour.isValid();
        } else if (key == QLatin1String("picture")) {
            content->kind = ScreenContent::Kind::Picture;
            ok = content->picture.load(value);
        } else if (key == QLatin1String("bar")) {
            content->kind = ScreenContent::Kind::MovingBar;
            content->bar = QColor(value);
            ok = content->bar.isValid();
        } else if (key == QLatin1String("noposition")) {
            monitor->sendPosition = false;
        } else if (key == QLatin1String("nosize")) {
            monitor->sendSize = false;
        } else {
            ok = false;
        }
        if (!ok || monitor->size.isEmpty()) {
            return false;
        }
    }
    return true;
}

// One command line of standard input; false for anything it cannot read.
bool runCommand(PortalSimulator& portal, const QString& line)
{
    const QStringList words = line.split(QLatin1Char(' '), Qt::SkipEmptyParts);
    bool ok = words.size() >= 2;
    const int index = ok ? words[1].toInt(&ok) : -1;
    if (!ok || index < 0) {
        return false;
    }
    const QString& verb = words[0];
    if (verb == QLatin1String("fill") && words.size() == 3 && QColor(words[2]).isValid()) {
        portal.fill(index, QColor(words[2]));
    } else if (verb == QLatin1String("bar") && words.size() == 6 && QColor(words[2]).isValid() &&
               QColor(words[3]).isValid() && words[4].toInt() > 0 && words[5].toInt() >= 0) {
        portal.showMovingBar(index, QColor(words[2]), QColor(words[3]), words[4].toInt(), words[5].toInt());
    } else if (verb == QLatin1String("changing") && words.size() == 2) {
        portal.showChanging(index);
    } else if (verb == QLatin1String("picture") && words.size() == 3 && !QImage(words[2]).isNull()) {
        portal.showPicture(index, QImage(words[2]));
    } else {
        return false;
    }
    qint64 queued = 0;
    QElapsedTimer clock;
    clock.start();
    while ((queued = portal.streams().value(index).contentQueuedNs) == 0 && clock.elapsed() < 2000) {
        QThread::usleep(200);
    }
    std::printf("queued %d %lld\n", index, static_cast<long long>(queued));
    std::fflush(stdout);
    return true;
}

QJsonObject toJson(const PortalCall& call)
{
    return QJsonObject{{QStringLiteral("method"), call.method},
                       {QStringLiteral("sender"), call.sender},
                       {QStringLiteral("object"), call.objectPath},
                       {QStringLiteral("parentWindow"), call.parentWindow},
                       {QStringLiteral("options"), QJsonObject::fromVariantMap(call.options)},
                       {QStringLiteral("restored"), call.restored},
                       {QStringLiteral("dialogShown"), call.dialogShown}};
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("portalsim"));
    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("A screen cast desktop portal serving painted PipeWire screens."));
    parser.addHelpOption();
    parser.addOptions({
        {QStringLiteral("bus"), QStringLiteral("The bus to serve on (default: the private session's)."),
         QStringLiteral("address")},
        {QStringLiteral("pipewire"), QStringLiteral("A running PipeWire's socket (default: a private one)."),
         QStringLiteral("socket")},
        {QStringLiteral("tokens"), QStringLiteral("Where lasting restore tokens are kept."),
         QStringLiteral("file")},
        {QStringLiteral("monitor"),
         QStringLiteral(
             "A monitor the dialog offers: id=,x=,y=,w=,h=,lw=,lh=,format=BGRx|RGBx|xBGR|xRGB|BGRA|RGBA,"
             "fill=#rrggbb|picture=FILE|bar=#rrggbb,noposition,nosize (repeatable)."),
         QStringLiteral("description")},
        {QStringLiteral("answer"), QStringLiteral("The dialog's answer: share, decline or cancel."),
         QStringLiteral("answer"), QStringLiteral("share")},
        {QStringLiteral("portal-version"), QStringLiteral("The interface version to announce."),
         QStringLiteral("n"), QStringLiteral("4")},
    });
    parser.process(app);

    PortalChoice choice;
    choice.monitors.clear();
    QVector<ScreenContent> contents;
    for (const QString& description : parser.values(QStringLiteral("monitor"))) {
        SimulatedMonitor monitor;
        ScreenContent content;
        content.colour = QColor(128, 128, 128);
        if (!parseMonitor(description, &monitor, &content)) {
            std::fprintf(stderr, "portalsim: cannot read the monitor \"%s\"\n", qPrintable(description));
            return 2;
        }
        choice.monitors << monitor;
        contents << content;
    }
    if (choice.monitors.isEmpty()) {
        choice.monitors << SimulatedMonitor();
        contents << ScreenContent();
    }
    const QString answer = parser.value(QStringLiteral("answer"));
    choice.answer = answer == QLatin1String("decline")  ? PortalChoice::Decline
                    : answer == QLatin1String("cancel") ? PortalChoice::Cancel
                                                        : PortalChoice::Share;

    std::unique_ptr<PrivatePipeWire> session;
    QString bus = parser.value(QStringLiteral("bus"));
    QString socket = parser.value(QStringLiteral("pipewire"));
    if (socket.isEmpty() || bus.isEmpty()) {
        session = std::make_unique<PrivatePipeWire>();
        if (!session->start()) {
            std::fprintf(stderr, "portalsim: %s\n", qPrintable(session->errorString()));
            return 1;
        }
        socket = socket.isEmpty() ? session->socketPath() : socket;
        bus = bus.isEmpty() ? session->busAddress() : bus;
    }
    PortalSimulator portal;
    portal.setChoice(choice);
    portal.setVersion(parser.value(QStringLiteral("portal-version")).toUInt());
    for (int i = 0; i < contents.size(); ++i) {
        if (contents[i].kind == ScreenContent::Kind::Picture) {
            portal.showPicture(i, contents[i].picture);
        } else if (contents[i].kind == ScreenContent::Kind::MovingBar) {
            portal.showMovingBar(i, contents[i].colour, contents[i].bar, contents[i].barWidth);
        } else {
            portal.fill(i, contents[i].colour);
        }
    }
    if (!portal.start(bus, socket, parser.value(QStringLiteral("tokens")))) {
        std::fprintf(stderr, "portalsim: %s\n", qPrintable(portal.errorString()));
        return 1;
    }
    std::printf("bus %s\npipewire %s\nready\n", qPrintable(bus), qPrintable(socket));
    std::fflush(stdout);

    int printed = 0;
    QTimer calls;
    QObject::connect(&calls, &QTimer::timeout, [&] {
        const QList<PortalCall> all = portal.calls();
        for (; printed < all.size(); ++printed) {
            std::printf("%s\n",
                        QJsonDocument(toJson(all[printed])).toJson(QJsonDocument::Compact).constData());
        }
        std::fflush(stdout);
    });
    calls.start(100);

    QByteArray input;
    QSocketNotifier commands(STDIN_FILENO, QSocketNotifier::Read);
    QObject::connect(&commands, &QSocketNotifier::activated, [&] {
        char chunk[4096];
        const ssize_t got = ::read(STDIN_FILENO, chunk, sizeof(chunk));
        if (got <= 0) {
            commands.setEnabled(false); // closed: no more commands, the screens go on
            return;
        }
        input.append(chunk, int(got));
        for (int end = input.indexOf('\n'); end >= 0; end = input.indexOf('\n')) {
            const QString line = QString::fromUtf8(input.left(end)).trimmed();
            input.remove(0, end + 1);
            if (!line.isEmpty() && !runCommand(portal, line)) {
                std::fprintf(stderr, "portalsim: cannot read the command \"%s\"\n", qPrintable(line));
            }
        }
    });
    return app.exec();
}
