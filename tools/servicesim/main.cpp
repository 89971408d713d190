// servicesim: a local HTTPS service on 127.0.0.1 serving a folder, for trying the program's online
// services without any outside host.
#include "LocalHttpsService.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSocketNotifier>

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

// The version document announcing `version`. Its package is the folder's file of the program's
// name beside the document, described by its real size and hash; without that file the values
// stay well-formed (one zero byte) and a client that asks for it gets 404.
QByteArray versionDocument(const QString& root, const QString& folder, const QString& version)
{
    const QString package =
        QStringLiteral("orvanta_%1_%2.deb").arg(version, QStringLiteral(SERVICESIM_DEB_ARCH));
    QByteArray sha256 = QCryptographicHash::hash(QByteArray(1, '\0'), QCryptographicHash::Sha256);
    qint64 size = 1;
    QString notes = QStringLiteral("servicesim announces the running version; it holds no package.");
    QFile file(root + folder + QLatin1Char('/') + package);
    if (file.open(QIODevice::ReadOnly)) {
        QCryptographicHash hash(QCryptographicHash::Sha256);
        hash.addData(&file);
        sha256 = hash.result();
        size = file.size();
        notes = QStringLiteral("servicesim serves the package of this folder.");
    }
    const QJsonObject document{{QStringLiteral("version"), version},
                               {QStringLiteral("url"), package},
                               {QStringLiteral("sha256"), QString::fromLatin1(sha256.toHex())},
                               {QStringLiteral("size"), size},
                               {QStringLiteral("notes"), notes}};
    return QJsonDocument(document).toJson();
}

} // namespace

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("servicesim"));

    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("A local HTTPS service on 127.0.0.1 that serves a folder (GET, HEAD, and POST "
                       "answered with the file). Prints ORVANTA_SERVICE_URL=<base URL> and "
                       "ORVANTA_SERVICE_CA=<CA file> on two lines once it listens, then one line per "
                       "request on standard error. The certificates are made with openssl at start "
                       "and removed at exit (SIGINT, SIGTERM)."));
    parser.addHelpOption();
    const QCommandLineOption rootOpt(QStringLiteral("root"), QStringLiteral("The folder to serve."),
                                     QStringLiteral("DIR"));
    const QCommandLineOption portOpt(QStringLiteral("port"),
                                     QStringLiteral("The port to listen on (default: any free one)."),
                                     QStringLiteral("N"), QStringLiteral("0"));
    const QCommandLineOption latestOpt(
        QStringLiteral("latest"),
        QStringLiteral("Also answer GET /v1/linux-" SERVICESIM_DEB_ARCH "/latest.json with a version "
                       "document announcing VERSION (give the program's own, from orvanta --version, "
                       "and it sees no newer version)."),
        QStringLiteral("VERSION"));
    const QCommandLineOption untrustedOpt(QStringLiteral("untrusted"),
                                          QStringLiteral("Serve with a certificate of a CA no client is "
                                                         "given, to see a client refuse it."));
    parser.addOptions({rootOpt, portOpt, latestOpt, untrustedOpt});
    parser.process(app);

    const QString root = parser.value(rootOpt);
    if (root.isEmpty() || !QFileInfo(root).isDir()) {
        std::fprintf(stderr, "servicesim: --root wants a folder\n");
        return 2;
    }
    bool portOk = false;
    const uint port = parser.value(portOpt).toUInt(&portOk);
    if (!portOk || port > 65535) {
        std::fprintf(stderr, "servicesim: --port wants a number from 0 to 65535\n");
        return 2;
    }

    LocalHttpsService service;
    if (parser.isSet(untrustedOpt)) {
        service.setSecurity(LocalHttpsService::Security::Untrusted);
    }
    if (parser.isSet(latestOpt)) {
        const QString folder = QStringLiteral("/v1/linux-" SERVICESIM_DEB_ARCH);
        service.setRoute(folder + QStringLiteral("/latest.json"),
                         ScriptedReply::json(versionDocument(root, folder, parser.value(latestOpt))));
    }
    if (!service.start(QDir(root).absolutePath(), quint16(port))) {
        std::fprintf(stderr, "servicesim: %s\n", qUtf8Printable(service.errorString()));
        return 1;
    }
    QObject::connect(&service, &LocalHttpsService::requestServed, &app, [](const QString& summary) {
        std::fprintf(stderr, "servicesim: %s\n", qUtf8Printable(summary));
    });
    // Ready once these are out: a script reads the two lines and exports them.
    std::printf("ORVANTA_SERVICE_URL=%s\nORVANTA_SERVICE_CA=%s\n",
                qUtf8Printable(service.baseUrl().toString()), qUtf8Printable(service.caFile()));
    std::fflush(stdout);

    // SIGINT and SIGTERM end the event loop, so that the certificates' folder is removed.
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, signalPipe) == 0) {
        auto* notifier = new QSocketNotifier(signalPipe[0], QSocketNotifier::Read, &app);
        QObject::connect(notifier, &QSocketNotifier::activated, &app, [] { QCoreApplication::quit(); });
        std::signal(SIGINT, onSignal);
        std::signal(SIGTERM, onSignal);
    }
    const int rc = app.exec();
    service.stop();
    return rc;
}
