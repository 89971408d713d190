#pragma once

#include "TestFiles.h"
#include "VirtualLedDevice.h"

#include <QDir>
#include <QFileInfo>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

// A private home for runs of a built program beside a virtual strip: configuration, logs, lock,
// the dump folder, and the record of the recording reporter.
struct CrashSandbox
{
    QTemporaryDir root{QDir::tempPath() + "/c-XXXXXX"}; // short: the socket's path must fit in sun_path
    VirtualLedDevice device;

    CrashSandbox()
    {
        QDir().mkpath(root.filePath("tmp"));
        QDir().mkpath(root.filePath("runtime"));
        QFile::setPermissions(root.filePath("runtime"),
                              QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    }
    QString configDir() const { return root.filePath("config/orvanta"); }
    QString dumpsDir() const { return configDir() + "/dumps"; }
    QString logsDir() const { return root.filePath("data/orvanta/logs"); }
    QString recordFile() const { return root.filePath("recorder.txt"); }
    QStringList dumps(const QString& pattern = "*.dmp") const
    {
        return QDir(dumpsDir()).entryList({pattern}, QDir::Files, QDir::Time);
    }
    QString mainLog() const
    {
        QString text;
        for (const QString& name : QDir(logsDir())
                                       .entryList({"*.log"}, QDir::Files, QDir::Name)
                                       .filter(QRegularExpression("^\\d"))) {
            text += QString::fromUtf8(TestFiles::read(QDir(logsDir()).filePath(name)));
        }
        return text;
    }

    // The program in this sandbox with the strip on ORVANTA_EXTRA_PORTS; `reporter` stands in
    // for CrashReporter (empty: the program's own choice).
    void prepare(QProcess& process, const QString& program, const QStringList& args, const QString& crashTest,
                 const QString& reporter)
    {
        if (!device.isOpen()) {
            QVERIFY2(device.open(), qPrintable(device.errorString()));
        }
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("HOME", root.path());
        env.insert("XDG_CONFIG_HOME", root.filePath("config"));
        env.insert("XDG_DATA_HOME", root.filePath("data"));
        env.insert("XDG_RUNTIME_DIR", root.filePath("runtime"));
        env.insert("TMPDIR", root.filePath("tmp"));
        env.insert("QT_QPA_PLATFORM", "offscreen");
        // No desktop: the settings' folder button must open nothing on the developer's screen.
        for (const char* name : {"DISPLAY", "WAYLAND_DISPLAY", "DBUS_SESSION_BUS_ADDRESS"}) {
            env.remove(name);
        }
        env.insert("ORVANTA_SERVICE_URL", "off");
        env.insert("ORVANTA_EXTRA_PORTS", device.slavePath());
        env.insert("ORVANTA_RECORDER_OUT", recordFile());
        env.insert("ASAN_OPTIONS", "detect_leaks=0");
        if (!crashTest.isEmpty()) {
            env.insert("ORVANTA_CRASH_TEST", crashTest);
        }
        if (!reporter.isNull()) {
            env.insert("ORVANTA_CRASH_REPORTER", reporter);
        }
        process.setProcessEnvironment(env);
        process.setWorkingDirectory(root.path());
        process.setProgram(program);
        process.setArguments(args);
    }

    // The records of the recording reporter, one list of lines per start.
    QList<QStringList> records() const
    {
        QList<QStringList> out;
        for (const QString& block :
             QString::fromUtf8(TestFiles::read(recordFile())).split("end\n", Qt::SkipEmptyParts)) {
            out << block.split('\n', Qt::SkipEmptyParts);
        }
        return out;
    }
};
