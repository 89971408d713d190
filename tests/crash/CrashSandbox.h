#pragma once

#include "Sandbox.h"
#include "VirtualLedDevice.h"

// A sandbox for runs of a built program beside a virtual strip, with the dump folder and the
// record of the recording reporter.
struct CrashSandbox : Sandbox
{
    VirtualLedDevice device;

    CrashSandbox() { mainLogNames = QStringLiteral("^\\d"); } // not the reporter's own log
    QString dumpsDir() const { return configDir() + "/dumps"; }
    QString recordFile() const { return root.filePath("recorder.txt"); }
    QStringList dumps(const QString& pattern = "*.dmp") const
    {
        return QDir(dumpsDir()).entryList({pattern}, QDir::Files, QDir::Time);
    }

    // `program` in this sandbox with the strip on ORVANTA_EXTRA_PORTS and no desktop (the
    // settings' folder button must open nothing on the developer's screen); `reporter` stands in
    // for CrashReporter (null: the program's own choice).
    void prepare(QProcess& process, const QString& program, const QStringList& args, const QString& crashTest,
                 const QString& reporter)
    {
        if (!device.isOpen()) {
            QVERIFY2(device.open(), qPrintable(device.errorString()));
        }
        QProcessEnvironment env = environment({{"DISPLAY", {}},
                                               {"WAYLAND_DISPLAY", {}},
                                               {"DBUS_SESSION_BUS_ADDRESS", {}},
                                               {"ORVANTA_CRASH_TEST", crashTest},
                                               {"ORVANTA_SERVICE_URL", "off"},
                                               {"ORVANTA_EXTRA_PORTS", device.slavePath()},
                                               {"ORVANTA_RECORDER_OUT", recordFile()},
                                               {"ASAN_OPTIONS", "detect_leaks=0"}});
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
