#include "TestCertificates.h"

#include <QFile>
#include <QProcess>
#include <QRandomGenerator>

namespace {

// Qt 5 compares the host with the common name and the DNS names, never with the IP address
// names: "127.0.0.1" appears as both, and as an IP address for every other client.
const QByteArray kServerExtensions = QByteArrayLiteral("basicConstraints = critical, CA:FALSE\n"
                                                       "keyUsage = critical, digitalSignature\n"
                                                       "extendedKeyUsage = serverAuth\n"
                                                       "subjectAltName = DNS:127.0.0.1, IP:127.0.0.1\n"
                                                       "subjectKeyIdentifier = hash\n"
                                                       "authorityKeyIdentifier = keyid\n");
const QString kDays = QStringLiteral("2");

} // namespace

bool TestCertificates::create()
{
    if (!dir.isValid()) {
        error = QStringLiteral("cannot make a temporary folder: ") + dir.errorString();
        return false;
    }
    QFile extensions(path(QStringLiteral("server.ext")));
    if (!extensions.open(QIODevice::WriteOnly) ||
        extensions.write(kServerExtensions) != kServerExtensions.size()) {
        error = QStringLiteral("cannot write ") + extensions.fileName();
        return false;
    }
    extensions.close();
    return makeAuthority(QStringLiteral("ca"), QStringLiteral("servicesim test CA")) &&
           makeServer(QStringLiteral("ca"), QStringLiteral("server")) &&
           makeAuthority(QStringLiteral("untrusted-ca"), QStringLiteral("servicesim untrusted CA")) &&
           makeServer(QStringLiteral("untrusted-ca"), QStringLiteral("untrusted-server"));
}

QString TestCertificates::caFile() const
{
    return path(QStringLiteral("ca.pem"));
}

QString TestCertificates::untrustedCaFile() const
{
    return path(QStringLiteral("untrusted-ca.pem"));
}

QSslCertificate TestCertificates::serverCertificate(Issuer issuer) const
{
    const QList<QSslCertificate> certs =
        QSslCertificate::fromPath(path(baseName(issuer) + QStringLiteral(".pem")));
    return certs.isEmpty() ? QSslCertificate() : certs.first();
}

QSslKey TestCertificates::serverKey(Issuer issuer) const
{
    QFile file(path(baseName(issuer) + QStringLiteral(".key")));
    if (!file.open(QIODevice::ReadOnly)) {
        return QSslKey();
    }
    return QSslKey(&file, QSsl::Ec);
}

QString TestCertificates::baseName(Issuer issuer)
{
    return issuer == Issuer::Trusted ? QStringLiteral("server") : QStringLiteral("untrusted-server");
}

bool TestCertificates::openssl(const QStringList& args)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(QStringLiteral("openssl"), args);
    // A tool at start-up, before anything else runs: waiting here stalls nobody.
    if (!process.waitForFinished(30000) || process.exitStatus() != QProcess::NormalExit ||
        process.exitCode() != 0) {
        const QString why = process.error() == QProcess::FailedToStart
                                ? QStringLiteral("not found (install the openssl package)")
                                : QString::fromLocal8Bit(process.readAll()).trimmed();
        error = QStringLiteral("openssl %1: %2").arg(args.first(), why);
        return false;
    }
    return true;
}

bool TestCertificates::makeAuthority(const QString& name, const QString& commonName)
{
    const QString key = path(name + QStringLiteral(".key"));
    return openssl({QStringLiteral("genpkey"), QStringLiteral("-algorithm"), QStringLiteral("EC"),
                    QStringLiteral("-pkeyopt"), QStringLiteral("ec_paramgen_curve:P-256"),
                    QStringLiteral("-out"), key}) &&
           openssl({QStringLiteral("req"), QStringLiteral("-x509"), QStringLiteral("-new"),
                    QStringLiteral("-sha256"), QStringLiteral("-days"), kDays, QStringLiteral("-key"), key,
                    QStringLiteral("-subj"), QStringLiteral("/CN=") + commonName, QStringLiteral("-addext"),
                    QStringLiteral("basicConstraints=critical,CA:TRUE"), QStringLiteral("-addext"),
                    QStringLiteral("keyUsage=critical,keyCertSign,cRLSign"), QStringLiteral("-out"),
                    path(name + QStringLiteral(".pem"))});
}

bool TestCertificates::makeServer(const QString& authority, const QString& name)
{
    const QString key = path(name + QStringLiteral(".key"));
    const QString request = path(name + QStringLiteral(".csr"));
    // A serial of its own, so that openssl keeps no serial file beside the CA.
    const QString serial =
        QStringLiteral("0x%1").arg(QRandomGenerator::global()->generate64() >> 1, 16, 16, QLatin1Char('0'));
    return openssl({QStringLiteral("genpkey"), QStringLiteral("-algorithm"), QStringLiteral("EC"),
                    QStringLiteral("-pkeyopt"), QStringLiteral("ec_paramgen_curve:P-256"),
                    QStringLiteral("-out"), key}) &&
           openssl({QStringLiteral("req"), QStringLiteral("-new"), QStringLiteral("-key"), key,
                    QStringLiteral("-subj"), QStringLiteral("/CN=127.0.0.1"), QStringLiteral("-out"),
                    request}) &&
           openssl({QStringLiteral("x509"), QStringLiteral("-req"), QStringLiteral("-sha256"),
                    QStringLiteral("-days"), kDays, QStringLiteral("-in"), request, QStringLiteral("-CA"),
                    path(authority + QStringLiteral(".pem")), QStringLiteral("-CAkey"),
                    path(authority + QStringLiteral(".key")), QStringLiteral("-set_serial"), serial,
                    QStringLiteral("-extfile"), path(QStringLiteral("server.ext")), QStringLiteral("-out"),
                    path(name + QStringLiteral(".pem"))});
}
