#pragma once

#include "TestFiles.h"

#include <QFile>
#include <QProcess>
#include <QString>

// A small real Debian package made with dpkg-deb in `dir`: its bytes, or empty when that failed.
inline QByteArray makeDebianPackage(const QString& dir, const QString& package, const QString& version)
{
    const QString tree = dir + "/" + package + "_" + version;
    const QByteArray control = "Package: " + package.toUtf8() + "\nVersion: " + version.toUtf8() +
                               "\nArchitecture: all\nMaintainer: Tests <tests@orvanta.example>\n"
                               "Description: a package for the update tests\n";
    if (!TestFiles::write(tree + "/DEBIAN/control", control) ||
        !TestFiles::write(tree + "/usr/share/orvanta-tests/payload", QByteArray(20000, 'p'))) {
        return QByteArray();
    }
    // dpkg-deb wants the control folder 0755, whatever the umask.
    QFile::setPermissions(tree + "/DEBIAN", QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner |
                                                QFile::ReadGroup | QFile::ExeGroup | QFile::ReadOther |
                                                QFile::ExeOther);
    const int rc =
        QProcess::execute("dpkg-deb", {"--root-owner-group", "-Znone", "--build", tree, tree + ".deb"});
    return rc == 0 ? TestFiles::read(tree + ".deb") : QByteArray();
}
