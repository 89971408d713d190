#pragma once

#include "service/config/AutostartEntry.h"
#include "ui/widgets/BaseDialog.h"

#include <QMap>
#include <QScopedPointer>
#include <QString>

class HotKeyEditWidget;

namespace Ui {
class SettingsDialog;
}

// The global settings, made for each opening: language, start at login, the screen capture mode,
// the wipe of the configuration, its folder, and on the second tab the hotkey table. Every change
// applies at once; closing only closes.
class SettingsDialog : public BaseDialog
{
    Q_OBJECT
public:
    explicit SettingsDialog(QWidget* parent = nullptr);
    ~SettingsDialog() override;

    // For the caller to fill with the actions and their binding handler.
    HotKeyEditWidget* hotkeyEditor() const;

protected:
    void changeEvent(QEvent* event) override;

private slots:
    void onCheckBoxStateChanged(int state);
    void onCbxLanguageCurrentIndexChanged(int index);
    void on_btnOpenConfigDir_clicked();
    void onSliderBarCurItemChanged(int index, QString item);

private:
    void fillLanguages();
    void fillCaptureModes();
    void alignRows();
    void askForDefaults();
    void refuseAutostart(const QString& why);

    QScopedPointer<Ui::SettingsDialog> ui;
    AutostartEntry autostart;
    QString languageDir;
    QMap<QString, QString> languageNames;
};
