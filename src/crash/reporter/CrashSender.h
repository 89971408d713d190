#pragma once

#include "crash/reporter/CrashReportQueue.h"

#include <QObject>
#include <QStringList>

#include <memory>

class QBreakpadHttpUploader;
class QLockFile;

// Sends the agreed reports one after the other, each under its "<id>.lock" so that two reporters
// never send the same one; reports another reporter holds or has sent already are skipped.
class CrashSender : public QObject
{
    Q_OBJECT
public:
    struct Outcome
    {
        int sent = 0;
        int failed = 0;   // kept for a later attempt, or unsent for good after the last
        int setAside = 0; // not a report: renamed ".bad"
        bool offline = false;
    };

    explicit CrashSender(CrashReportQueue* queue, QObject* parent = nullptr);
    ~CrashSender() override;

    bool online() const;
    // Sends every report agreed to now; finished() once done (also when there is nothing).
    void start();
    bool isRunning() const { return running; }
    const Outcome& outcome() const { return result; }

signals:
    void finished();

private:
    void next();
    void onDone(bool sent, const QString& cause);

    CrashReportQueue* queue;
    QBreakpadHttpUploader* uploader;
    QStringList pending;
    QString current;
    std::unique_ptr<QLockFile> lock;
    bool running = false;
    Outcome result;
};
