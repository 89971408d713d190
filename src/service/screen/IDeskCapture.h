#pragma once

#include <QImage>
#include <QObject>
#include <QSize>

// One screen-capture source. Frames are emitted on the source's own thread: 32-bit, red, green,
// blue, alpha in memory order, of outputSize(). The order of the virtual operations is part of
// the contract.
class IDeskCapture : public QObject
{
    Q_OBJECT
public:
    explicit IDeskCapture(QObject* parent = nullptr);
    ~IDeskCapture() override;

    virtual QSize outputSize() const = 0;
    virtual QSize sourceSize() const = 0;
    virtual void setOutputSize(int width, int height) = 0;

signals:
    void frameTick(QImage frame);
};
