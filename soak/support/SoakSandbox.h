#pragma once

#include <QProcessEnvironment>
#include <QString>
#include <QTemporaryDir>

// A private world for one run of the program: its home, configuration, data, runtime folder and
// temporary folder, and the folder its virtual devices' links appear in (ORVANTA_EXTRA_PORTS
// watches it). Made under $TMPDIR and removed at the end, unless the run asks to keep it.
class SoakSandbox
{
public:
    explicit SoakSandbox(const QString& name);

    bool isValid() const { return dir.isValid(); }
    QString path(const QString& relative = QString()) const;
    // The store's folder, as the program names it under XDG_CONFIG_HOME.
    QString storeDir() const { return path(QStringLiteral("config/orvanta")); }
    QString logsDir() const { return path(QStringLiteral("data/orvanta/logs")); }
    QString portLink(const QString& name) const { return path(QStringLiteral("ports/") + name); }
    // The program's environment: this sandbox, the X display, the sound server (or none, never a
    // desktop's), every port link of ports/, and the sanitizers' settings of the tests.
    QProcessEnvironment environment(const QString& display, const QString& pulseServer) const;
    void keep() { dir.setAutoRemove(false); }

private:
    QTemporaryDir dir;
};
