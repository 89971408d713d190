#include "service/net/PackageDownload.h"

#include "service/net/BoundedReader.h"
#include "service/net/ServiceHttp.h"

#include <QDebug>
#include <QDir>
#include <QStorageInfo>

namespace {
// Logs under the manager's name: the update has one name in the log, whichever class speaks.
constexpr char kTag[] = "[NetRCManager]:";
// Room left on the disk beyond the package itself.
constexpr qint64 kSpareBytes = 16 * 1024 * 1024;
// dpkg-deb reads a few headers; a minute means it hangs.
constexpr int kInspectorMs = 60000;
} // namespace

PackageDownload::PackageDownload(ServiceHttp& http, const VersionDocument& document, const QString& folder,
                                 QObject* parent)
    : QObject(parent)
    , http(http)
    , document(document)
    , target(QDir(folder).filePath(fileName(document.version)))
    , partPath(target + QStringLiteral(".part"))
    , part(partPath)
{
    inspectorLimit.setSingleShot(true);
    connect(&inspectorLimit, &QTimer::timeout, this, [this] {
        inspector.kill();
        fail(QStringLiteral("dpkg-deb did not answer within %1 s").arg(kInspectorMs / 1000));
    });
    connect(&inspector, QOverload<int, QProcess::ExitStatus>::of(&QProcess::finished), this,
            &PackageDownload::onInspected);
    connect(&inspector, &QProcess::errorOccurred, this, [this](QProcess::ProcessError error) {
        if (error == QProcess::FailedToStart) {
            fail(QStringLiteral("dpkg-deb could not be started: ") + inspector.errorString());
        }
    });
}

PackageDownload::~PackageDownload()
{
    reported = true; // nothing is reported from here on
    delete reader.data();
    part.close();
    QFile::remove(partPath); // the inspector, if any, is killed with its QProcess
}

bool PackageDownload::start()
{
    const QString folder = QFileInfo(target).absolutePath();
    if (!QDir().mkpath(folder)) {
        qWarning().noquote() << kTag << "Cannot make the updates folder" << folder;
        return false;
    }
    const QStorageInfo storage(folder);
    if (storage.bytesAvailable() < document.size + kSpareBytes) {
        qWarning().noquote() << kTag << "Not enough free space in" << folder
                             << "for the update:" << storage.bytesAvailable() << "bytes free,"
                             << document.size + kSpareBytes << "needed";
        return false;
    }
    // A link or anything else standing at the name goes first: the file is always a new one.
    part.remove();
    if (!part.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        qWarning().noquote() << kTag << "Cannot write" << part.fileName() << ":" << part.errorString();
        return false;
    }
    reader = http.get(document.url, ServiceHttp::Kind::Package, document.size);
    if (!reader) {
        part.close();
        part.remove();
        return false;
    }
    reader->setStreaming(true);
    connect(reader, &BoundedReader::received, this, &PackageDownload::onReceived);
    connect(reader, &BoundedReader::finished, this, &PackageDownload::onTransferred);
    return true;
}

QString PackageDownload::fileName(const QString& version)
{
    return QStringLiteral("orvanta_%1_%2.deb").arg(version, ServiceHttp::architecture());
}

QMap<QString, QString> PackageDownload::fields(const QByteArray& output)
{
    QMap<QString, QString> map;
    for (const QByteArray& line : output.split('\n')) {
        const int colon = line.indexOf(':');
        if (colon > 0 && !line.startsWith(' ')) {
            map.insert(QString::fromUtf8(line.left(colon)), QString::fromUtf8(line.mid(colon + 1)).trimmed());
        }
    }
    return map;
}

void PackageDownload::onReceived(const QByteArray& bytes)
{
    hash.addData(bytes);
    if (part.write(bytes) != bytes.size()) {
        reader->fail(QNetworkReply::UnknownContentError,
                     QStringLiteral("cannot write %1: %2").arg(part.fileName(), part.errorString()));
    }
}

void PackageDownload::onTransferred(const ServiceReply& reply)
{
    reader->deleteLater();
    reader.clear();
    if (!reply.ok()) {
        return fail(reply.cause);
    }
    if (reply.bytes != document.size) {
        return fail(
            QStringLiteral("short: %1 of the %2 bytes announced").arg(reply.bytes).arg(document.size));
    }
    if (hash.result() != document.sha256) {
        return fail(
            QStringLiteral("SHA-256 mismatch: got %1").arg(QString::fromLatin1(hash.result().toHex())));
    }
    if (!part.flush()) {
        return fail(QStringLiteral("cannot write %1: %2").arg(part.fileName(), part.errorString()));
    }
    part.close();
    // By its full name, and with the system's own tools (it runs tar): PATH is the user's.
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("PATH"), QStringLiteral("/usr/sbin:/usr/bin:/sbin:/bin"));
    inspector.setProcessEnvironment(environment);
    inspector.setProgram(QStringLiteral("/usr/bin/dpkg-deb"));
    inspector.setArguments(
        {QStringLiteral("--field"), part.fileName(), QStringLiteral("Package"), QStringLiteral("Version")});
    inspector.setProcessChannelMode(QProcess::SeparateChannels);
    inspectorLimit.start(kInspectorMs);
    inspector.start(QIODevice::ReadOnly);
}

void PackageDownload::onInspected(int exitCode, QProcess::ExitStatus status)
{
    inspectorLimit.stop();
    if (reported) {
        return;
    }
    if (status != QProcess::NormalExit || exitCode != 0) {
        return fail(QStringLiteral("not a Debian package: dpkg-deb says ") +
                    QString::fromLocal8Bit(inspector.readAllStandardError()).trimmed());
    }
    const QMap<QString, QString> found = fields(inspector.readAllStandardOutput());
    const QString package = found.value(QStringLiteral("Package"));
    const QString version = found.value(QStringLiteral("Version"));
    if (package != QLatin1String("orvanta") || version != document.version) {
        return fail(QStringLiteral("the package is \"%1\" version \"%2\", not \"orvanta\" version \"%3\"")
                        .arg(package, version, document.version));
    }
    QFile::remove(target);
    if (!part.rename(target)) {
        return fail(
            QStringLiteral("cannot rename %1 to %2: %3").arg(part.fileName(), target, part.errorString()));
    }
    reported = true;
    emit finished(target);
}

void PackageDownload::fail(const QString& cause)
{
    if (reported) {
        return;
    }
    reported = true;
    inspectorLimit.stop();
    if (reader) {
        reader->deleteLater();
        reader.clear();
    }
    part.close();
    QFile::remove(partPath);
    emit failed(cause);
}
