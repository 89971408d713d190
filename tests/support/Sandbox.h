#pragma once

#include "TestFiles.h"

#include <QDir>
#include <QFile>
#include <QMap>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

// A private home for runs of the program: its configuration, logs, lock and socket.
struct Sandbox
{
    static constexpr int waitMs = 60000;
    QTemporaryDir root{QDir::tempPath() + "/s-XXXXXX"}; // short: the socket's path must fit in sun_path
    QString program = QStringLiteral(ORVANTA_BINARY_PATH);
    QString mainLogNames = QStringLiteral("^(?!loop_)"); // the log files `mainLog` reads

    Sandbox()
    {
        QDir().mkpath(root.filePath("tmp"));
        QDir().mkpath(root.filePath("runtime"));
        QFile::setPermissions(root.filePath("runtime"),
                              QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    }
    static QString listening() { return QStringLiteral("[SingleInstance] Listening for a second instance"); }
    // What `prepare` takes to leave the program no display to reach.
    static QMap<QString, QString> noDisplay()
    {
        return {{"QT_QPA_PLATFORM", QString()}, {"DISPLAY", QString()}, {"WAYLAND_DISPLAY", QString()}};
    }

    QString configHome() const { return root.filePath("config"); }
    QString configDir() const { return root.filePath("config/orvanta"); }
    QString logsDir() const { return root.filePath("data/orvanta/logs"); }
    QString lockFile() const { return root.filePath("runtime/OrvantaSingleApp.lock"); }
    QStringList logFiles() const { return QDir(logsDir()).entryList({"*.log"}, QDir::Files, QDir::Name); }
    QString mainLog() const
    {
        QString text;
        for (const QString& name : logFiles().filter(QRegularExpression(mainLogNames))) {
            text += QString::fromUtf8(TestFiles::read(QDir(logsDir()).filePath(name)));
        }
        return text;
    }
    void write(const QString& file, const QByteArray& json) const
    {
        QVERIFY(TestFiles::write(configDir() + '/' + file, json));
    }

    // The sandbox's folders and the offscreen platform, with `extra` on top: an empty value
    // removes the variable.
    QProcessEnvironment environment(const QMap<QString, QString>& extra = {}) const
    {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("HOME", root.path());
        env.insert("XDG_CONFIG_HOME", configHome());
        env.insert("XDG_DATA_HOME", root.filePath("data"));
        env.insert("XDG_RUNTIME_DIR", root.filePath("runtime"));
        env.insert("TMPDIR", root.filePath("tmp"));
        env.insert("QT_QPA_PLATFORM", "offscreen");
        // Full stacks, so that the offscreen platform's own leak is recognised by its library.
        env.insert("LSAN_OPTIONS", "suppressions=" ORVANTA_LSAN_SUPPRESSIONS ":fast_unwind_on_malloc=0");
        for (auto it = extra.begin(); it != extra.end(); ++it) {
            if (it.value().isEmpty()) {
                env.remove(it.key());
            } else {
                env.insert(it.key(), it.value());
            }
        }
        return env;
    }

    void prepare(QProcess& process, const QStringList& args = {},
                 const QMap<QString, QString>& extra = {}) const
    {
        process.setProcessEnvironment(environment(extra));
        process.setWorkingDirectory(root.path());
        process.setProgram(program);
        process.setArguments(args);
    }

    // Starts a first instance and waits until it listens for a second one.
    void startFirst(QProcess& process, const QStringList& args = {}) const
    {
        const int runsBefore = mainLog().count(listening());
        if (process.program().isEmpty()) {
            prepare(process, args);
        }
        process.start();
        QVERIFY2(process.waitForStarted(waitMs), qPrintable(process.errorString()));
        QTRY_VERIFY_WITH_TIMEOUT(mainLog().count(listening()) > runsBefore, waitMs);
        QVERIFY(QFile::exists(lockFile()));
    }
};
