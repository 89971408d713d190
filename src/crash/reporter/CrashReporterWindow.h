#pragma once

#include "crash/CrashReport.h"
#include "crash/reporter/CrashReportQueue.h"

#include <QDialog>
#include <QStringList>

class CrashSender;
class QCheckBox;
class QLabel;
class QPushButton;
class QWidget;

// The window after a crash: what happened, what the report holds, and the user's choice, which
// covers the earlier undecided reports too. Nothing is sent without "Send report".
class CrashReporterWindow : public QDialog
{
    Q_OBJECT
public:
    // No "Restart" offered by default for a crash this soon after the start: it could loop.
    static constexpr qint64 kEarlyCrashNs = 10000000000LL;

    // `report` is the newest; `reports` every undecided one, newest first.
    CrashReporterWindow(CrashReportQueue* queue, const QString& reportPath, const CrashReport& report,
                        const QStringList& reports, QWidget* parent = nullptr);

    bool restartChecked() const;

signals:
    // The user chose; `restart` when the program is to be started again.
    void decided(bool send, bool restart);

protected:
    void changeEvent(QEvent* event) override;

private:
    void onSend();
    void onDontSend();
    void onSenderFinished();
    void retranslate();
    void fitToContents();
    QString detailsText() const;

    CrashReportQueue* queue;
    QString reportPath;
    CrashReport report;
    QStringList reports;
    CrashSender* sender;
    QLabel* headline;
    QLabel* explanation;
    QLabel* contents;
    QLabel* status;
    QWidget* detailsBox;
    QLabel* details;
    QPushButton* detailsButton;
    QPushButton* openFolderButton;
    QCheckBox* restartCheck;
    QPushButton* sendButton;
    QPushButton* dontSendButton;
    QPushButton* closeButton;
    enum class State
    {
        Asking,
        Sending,
        Done,
    } state = State::Asking;
};
