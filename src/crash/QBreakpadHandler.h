#pragma once

#include <QObject>
#include <QString>
#include <QStringList>
#include <QUrl>

#include <memory>

class CrashCapture;

// Sets up crash capture for a dump folder, lists the reports there and can send them. One per
// process (instance()); main thread.
class QBreakpadHandler : public QObject
{
    Q_OBJECT
public:
    using CrashHook = void (*)(const char* dumpPath);

    static QBreakpadHandler* instance();
    ~QBreakpadHandler() override;

    // A relative path is taken from the program's folder. Made if missing (mode 0700); capture
    // starts on it, except in sanitizer builds.
    void setDumpPath(const QString& path);
    QString dumpPath() const;
    void setUploadUrl(const QUrl& url); // kept only when valid and not empty
    QUrl uploadUrl() const;
    void setCrashHook(CrashHook hook);
    QStringList dumpFileList() const;
    // Where the next report will be written; empty while nothing captures.
    QString nextReportPath() const;
    bool capturing() const;
    static QString version();

public slots:
    void sendDumps();

private:
    QBreakpadHandler() = default;

    struct Private
    {
        std::unique_ptr<CrashCapture> exceptionHandler; // the Linux capture; null until a path is set
        QString dumpPath;
        QUrl uploadUrl;
    };
    Private d;
};
