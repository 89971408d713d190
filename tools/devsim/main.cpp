// devsim: a virtual LED strip on a pseudo-terminal, shown in a window or as statistics.
#include "StripView.h"
#include "VirtualLedDevice.h"

#include <QApplication>
#include <QCommandLineParser>
#include <QCoreApplication>
#include <QScopedPointer>
#include <QSocketNotifier>
#include <QTimer>

#include <csignal>
#include <cstdio>
#include <sys/socket.h>
#include <unistd.h>

namespace {

int signalPipe[2] = {-1, -1};

void onSignal(int)
{
    const char c = 1;
    [[maybe_unused]] const ssize_t n = ::write(signalPipe[1], &c, 1);
}

// C-style escapes, so that "--reply 'OV1234,00FF\r\n'" can be typed in a shell.
QByteArray unescape(const QString& text)
{
    const QByteArray in = text.toUtf8();
    QByteArray out;
    for (int i = 0; i < in.size(); ++i) {
        if (in[i] != '\\' || i + 1 >= in.size()) {
            out.append(in[i]);
            continue;
        }
        const char e = in[++i];
        switch (e) {
        case 'r':
            out.append('\r');
            break;
        case 'n':
            out.append('\n');
            break;
        case 't':
            out.append('\t');
            break;
        case 'x':
            if (i + 2 < in.size()) {
                bool ok = false;
                const int v = in.mid(i + 1, 2).toInt(&ok, 16);
                if (ok) {
                    out.append(char(v));
                    i += 2;
                    break;
                }
            }
            out.append("\\x");
            break;
        default:
            out.append(e);
            break;
        }
    }
    return out;
}

QString colorText(const QVector<VirtualLedDevice::Rgb>& colors)
{
    if (colors.isEmpty()) {
        return QStringLiteral("-");
    }
    return QStringLiteral("#%1%2%3")
        .arg(colors[0].r, 2, 16, QLatin1Char('0'))
        .arg(colors[0].g, 2, 16, QLatin1Char('0'))
        .arg(colors[0].b, 2, 16, QLatin1Char('0'));
}

} // namespace

int main(int argc, char* argv[])
{
    bool headless = false;
    for (int i = 1; i < argc; ++i) {
        if (qstrcmp(argv[i], "--headless") == 0) {
            headless = true;
        }
    }
    QScopedPointer<QCoreApplication> app(headless ? new QCoreApplication(argc, argv)
                                                  : new QApplication(argc, argv));
    QCoreApplication::setApplicationName(QStringLiteral("devsim"));

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("A virtual LED strip on a pseudo-terminal."));
    parser.addHelpOption();
    const QCommandLineOption linkOpt(QStringLiteral("link"),
                                     QStringLiteral("Place a symlink to the port at PATH."),
                                     QStringLiteral("PATH"));
    const QCommandLineOption replyOpt(
        QStringLiteral("reply"),
        QStringLiteral("Answer to \"Moni-A\" (escapes \\r \\n \\t \\xHH; \\r\\n is added when the text "
                       "does not end with a newline). Default: OV5512,ABCD\\r\\n"),
        QStringLiteral("TEXT"));
    const QCommandLineOption ledsOpt(
        QStringLiteral("leds"), QStringLiteral("LEDs to draw (display only; default: the frame's count)."),
        QStringLiteral("N"));
    const QCommandLineOption headlessOpt(QStringLiteral("headless"),
                                         QStringLiteral("No window: print one statistics line per second."));
    parser.addOptions({linkOpt, replyOpt, ledsOpt, headlessOpt});
    parser.process(*app);

    VirtualLedDevice device;
    if (parser.isSet(replyOpt)) {
        QByteArray reply = unescape(parser.value(replyOpt));
        if (!reply.endsWith('\n')) {
            reply.append("\r\n");
        }
        device.setReply(reply);
    }
    int leds = 0;
    if (parser.isSet(ledsOpt)) {
        bool ok = false;
        leds = parser.value(ledsOpt).toInt(&ok);
        if (!ok || leds < 0 || leds > 65535) {
            std::fprintf(stderr, "devsim: --leds wants a number from 0 to 65535\n");
            return 2;
        }
    }
    if (!device.open(parser.value(linkOpt))) {
        std::fprintf(stderr, "devsim: %s\n", qUtf8Printable(device.errorString()));
        return 1;
    }
    std::printf("%s\n", qUtf8Printable(device.slavePath()));
    if (!device.linkPath().isEmpty()) {
        std::printf("link %s -> %s\n", qUtf8Printable(device.linkPath()), qUtf8Printable(device.slavePath()));
    }
    std::fflush(stdout);

    // SIGINT and SIGTERM end the event loop so that the link is removed on the way out.
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, signalPipe) == 0) {
        auto* sn = new QSocketNotifier(signalPipe[0], QSocketNotifier::Read, app.data());
        QObject::connect(sn, &QSocketNotifier::activated, app.data(), [] { QCoreApplication::quit(); });
        std::signal(SIGINT, onSignal);
        std::signal(SIGTERM, onSignal);
    }

    QScopedPointer<StripView> view;
    QTimer statsTimer;
    if (headless) {
        QObject::connect(&statsTimer, &QTimer::timeout, &device, [&device, leds] {
            std::printf("frames=%d fps=%.1f errors=%d leds=%d first=%s\n", device.frameCount(),
                        device.frameRate(), device.decodeErrors(), leds > 0 ? leds : int(device.lastCount()),
                        qUtf8Printable(colorText(device.lastColors())));
            std::fflush(stdout);
        });
        statsTimer.start(1000);
    } else {
        view.reset(new StripView(&device, leds));
        view->setWindowTitle(QStringLiteral("devsim - ") + device.slavePath());
        view->show();
    }
    const int rc = app->exec();
    view.reset();
    device.close();
    return rc;
}
