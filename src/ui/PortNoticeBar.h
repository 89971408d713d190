#pragma once

#include <QFrame>
#include <QString>

class QLabel;
class QPushButton;
class QToolButton;

// A closable bar that names a serial port which did not open and what would let it open, with a
// button that copies the command to run where there is one.
class PortNoticeBar : public QFrame
{
    Q_OBJECT
public:
    enum class Reason
    {
        LogInAgain, // in the group, this session not yet
        NoAccess,   // plug in again now the rule is installed, or join the group
        InUse,      // another program holds the port
    };

    PortNoticeBar(const QString& port, Reason reason, const QString& group, const QString& command,
                  QWidget* parent = nullptr);

    QString port() const { return portName; }
    QString text() const;

signals:
    void closeClicked();

protected:
    void changeEvent(QEvent* event) override;

private:
    void retranslate();

    QString portName;
    Reason reason;
    QString group;
    QString command;
    QLabel* label = nullptr;       // child
    QPushButton* copy = nullptr;   // child, only with a command
    QToolButton* closer = nullptr; // child
};
