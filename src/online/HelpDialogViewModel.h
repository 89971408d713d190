#pragma once

#include <QObject>
#include <QString>

#include <functional>

// What the help dialog shows and does: the newest version known and the running one, and the
// two functions behind its update and send buttons. One for the whole run, shared with each
// dialog; main thread.
class HelpDialogViewModel : public QObject
{
    Q_OBJECT
    Q_PROPERTY(QString latestVersion READ latestVersion WRITE setLatestVersion NOTIFY latestVersionChanged)
    Q_PROPERTY(QString currentVersion READ currentVersion CONSTANT)
public:
    using UpdateHandler = std::function<void()>;
    using FeedbackHandler = std::function<void(QString userMsg, QString userContactInfo)>;

    explicit HelpDialogViewModel(QObject* parent = nullptr);

    QString latestVersion() const { return latestVersion_; }
    // Stores and announces only a different value.
    void setLatestVersion(const QString& version);
    QString currentVersion() const { return currentVersion_; }

    UpdateHandler updateHandler() const { return updateHandler_; }
    FeedbackHandler feedbackHandler() const { return feedbackHandler_; }
    // An empty function leaves the one set before.
    void setUpdateHandler(const UpdateHandler& handler);
    void setFeedbackHandler(const FeedbackHandler& handler);

signals:
    void latestVersionChanged();

private:
    QString latestVersion_; // empty until the service has answered
    QString currentVersion_;
    UpdateHandler updateHandler_;
    FeedbackHandler feedbackHandler_;
};
