#pragma once

#include <QObject>

class QSocketNotifier;

// Turns the termination signals of the platform into a Qt signal on the thread that made this
// object, so that a polite kill ends the event loop and the normal exit path runs.
// One object per process.
class ShutdownSignals : public QObject
{
    Q_OBJECT

public:
    explicit ShutdownSignals(QObject* parent = nullptr);
    ~ShutdownSignals() override;

    bool install();

signals:
    void shutdownRequested(int signalNumber);

private:
    void onNotified();

    QSocketNotifier* notifier = nullptr;
};
