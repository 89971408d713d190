#pragma once

#include "ui/DeviceModel.h"

#include <QHash>
#include <QScopedPointer>
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

protected:
    void changeEvent(QEvent* event) override;

private:
    void commitRename(QLineEdit* edit, QToolButton* button);

    QScopedPointer<Ui::HomePage> ui;
    QHash<QString, DeviceButtonRecord> deviceButtons;
    QString adClickUrl;
};
