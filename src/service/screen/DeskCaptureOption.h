#pragma once

#include <QObject>

#include <atomic>

// The capture mode shared by all screen sources: 0 scales on the X server, 1 reads full size and
// scales on the CPU. Sources read it at each frame from their own threads.
class DeskCaptureOption : public QObject
{
    Q_OBJECT
public:
    // startMode: the mode of this run, already checked by the caller.
    explicit DeskCaptureOption(int startMode, QObject* parent = nullptr);

    int totalOfMode() const;
    int curMode() const;
    void setCurMode(int mode);

signals:
    void curModeChanged(int mode);

private:
    std::atomic<int> mode;
};
