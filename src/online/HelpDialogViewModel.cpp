#include "online/HelpDialogViewModel.h"

#include <QCoreApplication>

HelpDialogViewModel::HelpDialogViewModel(QObject* parent)
    : QObject(parent)
    , currentVersion_(QCoreApplication::applicationVersion())
{
}

void HelpDialogViewModel::setLatestVersion(const QString& version)
{
    if (version == latestVersion_) {
        return;
    }
    latestVersion_ = version;
    emit latestVersionChanged();
}

void HelpDialogViewModel::setUpdateHandler(const UpdateHandler& handler)
{
    if (handler) {
        updateHandler_ = handler;
    }
}

void HelpDialogViewModel::setFeedbackHandler(const FeedbackHandler& handler)
{
    if (handler) {
        feedbackHandler_ = handler;
    }
}
