#pragma once

#include "ui/widgets/BaseDialog.h"

#include <QScopedPointer>
#include <QString>

#include <memory>

class HelpDialogViewModel;

namespace Ui {
class HelpDialog;
}

// The help dialog: the running and the newest version with the update button, the feedback
// form, and the contact links. It reads and calls the view model the application owns.
class HelpDialog : public BaseDialog
{
    Q_OBJECT
public:
    HelpDialog(std::shared_ptr<HelpDialogViewModel> viewModel, QWidget* parent = nullptr);
    ~HelpDialog() override;

signals:
    // Declared for the form's users; the feedback goes through the view model.
    void requestSendFeedback(QString userMsg, QString userContactInfo);

protected:
    void changeEvent(QEvent* event) override;

private slots:
    void currentItemChanged(int index, QString item);
    void onSendFeedbackBtnClicked();
    void onLatestVersionChanged();
    void onUpdateBtnClicked();

private:
    QScopedPointer<Ui::HelpDialog> ui;
    std::shared_ptr<HelpDialogViewModel> viewModel;
};
