#include "service/net/FeedbackManager.h"

FeedbackManager::FeedbackManager(QObject* parent)
    : QObject(parent)
{
}

void FeedbackManager::setUserMsg(QString message)
{
    this->message = message;
}

void FeedbackManager::setUserContactInfo(QString contact)
{
    this->contact = contact;
}
