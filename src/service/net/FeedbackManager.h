#pragma once

#include <QObject>
#include <QString>

// The two texts of one feedback, carried to NetRCManager::sendFeedback.
class FeedbackManager : public QObject
{
    Q_OBJECT
public:
    explicit FeedbackManager(QObject* parent = nullptr);

    void setUserMsg(QString message);
    void setUserContactInfo(QString contact);
    QString userMsg() const { return message; }
    QString userContactInfo() const { return contact; }

private:
    QString message;
    QString contact;
};
