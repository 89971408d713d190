#pragma once

#include "ui/DeviceModel.h"
#include "ui/PortNoticeBar.h"

#include <QHash>
#include <QPointer>
#include <QScopedPointer>
#include <QSet>
#include <QSharedPointer>
#include <QString>
#include <QWidget>

class QLineEdit;
class QToolButton;

namespace Ui {
class HomePage;
}

// One device button on the home page; dropping the record destroys the button and its editor.
struct DeviceButtonRecord
{
    QString name;
    QString id;
    QIcon icon;
    int32_t reserved = 0;
    QSharedPointer<QToolButton> button;
};

// The first page: a button per attached device with an in-place rename strip, and the picture
// panels.
class HomePage : public QWidget
{
    Q_OBJECT
public:
    explicit HomePage(QWidget* parent = nullptr);
    ~HomePage() override;

    bool eventFilter(QObject* watched, QEvent* event) override;

signals:
    void controllerEntryOrdered(QString id);
    void controllerOptOrdered(QString id);
    void controllerNameChanged(QString id, QString name);

public slots:
    void setControllerList(QHash<QString, DeviceModel> ctls);
    void setADBox1(QString imgFilename, QString clickUrl);
    // A port the user means did not open: a bar above the devices names it and the remedy, once
    // per port and run; closed by the user, or by clearPortNotice once a device answers there.
    void showPortNotice(const QString& port, PortNoticeBar::Reason reason, const QString& group,
                        const QString& command);
    void clearPortNotice(const QString& port);

protected:
    void changeEvent(QEvent* event) override;

private:
    void commitRename(QLineEdit* edit, QToolButton* button);
    void dropNotice(PortNoticeBar* bar);

    QScopedPointer<Ui::HomePage> ui;
    QHash<QString, DeviceButtonRecord> deviceButtons;
    QString adClickUrl;
    QWidget* noticeArea = nullptr;                   // child: the notice bars, above the device buttons
    QHash<QString, QPointer<PortNoticeBar>> notices; // by port
};
