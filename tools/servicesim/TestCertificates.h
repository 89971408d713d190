#pragma once

#include <QSslCertificate>
#include <QSslKey>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

// Throw-away certificates made with the openssl command in a temporary folder that goes with the
// object: a CA and a server certificate it signs for 127.0.0.1, and a second CA, trusted by no
// client, with a server certificate of its own. EC P-256, valid for two days.
class TestCertificates
{
public:
    enum class Issuer
    {
        Trusted,   // the CA a client is given (caFile)
        Untrusted, // the second CA, which no client knows
    };

    // Runs openssl; false with errorString() when it is missing or fails.
    bool create();
    QString errorString() const { return error; }

    QString caFile() const;
    QString untrustedCaFile() const;
    QSslCertificate serverCertificate(Issuer issuer) const;
    QSslKey serverKey(Issuer issuer) const;

private:
    bool openssl(const QStringList& args);
    bool makeAuthority(const QString& name, const QString& commonName);
    bool makeServer(const QString& authority, const QString& name);
    QString path(const QString& name) const { return dir.filePath(name); }
    static QString baseName(Issuer issuer);

    QTemporaryDir dir;
    QString error;
};
