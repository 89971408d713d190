#pragma once

#include "ui/WorkGroupModel.h"
#include "ui/WorkerModel.h"

#include <QImage>
#include <QMap>
#include <QScopedPointer>
#include <QSharedPointer>
#include <QString>
#include <QWidget>

class QRadioButton;

namespace Ui {
class ControlPage;
}

// Everything the user sets for one device. It talks to the application controller through setter
// slots that never echo (the page blocks its own signals) and signals sent on user actions only.
class ControlPage : public QWidget
{
    Q_OBJECT
public:
    explicit ControlPage(QWidget* parent = nullptr);
    ~ControlPage() override;

    QString currentControllerId() const { return controllerId; }
    QString currentGroupId() const { return currentGroup; }
    QString currentWorkerId() const { return currentWorker; }
    // The large device picture shown while the effect has no large panel.
    void setProductImage(QImage image);

signals:
    void dirChanged(int dir);
    void enableChanged(bool enable);
    void brightnessChanged(float brightness);
    void workGoupChanged(QString id);
    void workerChanged(QString id);

public slots:
    void setDir(int dir);
    void setEnable(bool enable);
    void setBrightness(float brightness);
    void setWorkGroups(QMap<QString, WorkGroupModel> groups, QString current);
    void setWorkGroups(QMap<QString, WorkGroupModel> groups);
    void setWorkers(QMap<QString, WorkerModel> workers, QString current);
    void setWorkers(QMap<QString, WorkerModel> workers);
    void setCurrentGroup(QString id);
    void setCurrentWorker(QString id);
    // `sOperateWidget` goes under "other options", `lOperateWidget` (or the device picture when
    // null) to the right. The panels stay owned by their effect: they are only parked here.
    void setOperateWidget(QWidget* sOperateWidget, QWidget* lOperateWidget);
    void setControllerName(QString name);
    void setControllerId(QString id);

protected:
    void changeEvent(QEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;

private slots:
    void onInstallDirRadioBtnChanged(bool checked);
    void onLEDSwitchBtnChanged(bool checked);
    void onBrightnessChanged(int value);

private:
    struct GroupEntry
    {
        WorkGroupModel model;
        QSharedPointer<QRadioButton> button;
    };
    struct WorkerEntry
    {
        WorkerModel model;
        QSharedPointer<QRadioButton> button;
    };

    void updateHeader();
    // Scrolls the left column so that the options region shows.
    void revealOptions();
    void followChoice();

    QScopedPointer<Ui::ControlPage> ui;
    QMap<QString, WorkerEntry> workers;
    QMap<QString, GroupEntry> groups;
    QString currentGroup;
    QString currentWorker;
    QString controllerName;
    QString controllerId;
    QImage productImage;
    // Set by the user's choice of a group or an effect until the user scrolls.
    bool optionsFollowChoice = false;
};
