#include "devices/OVController.h"

#include "devices/LedLayout.h"
#include "devices/OVSerialPort.h"
#include "service/config/SignalStack.h"

#include <QDebug>

namespace {

constexpr char kTag[] = "[OVController]:";
constexpr int kReleaseFlushMs = 500;
constexpr int kReleaseSettleMs = 15;
// Every port darkens in parallel; the lock on sleep is given back within a second in all.
constexpr int kSleepFlushMs = 500;
// Long enough for the port to try the frame after resume; a write that fails does so at once,
// and a slow device is not waited for: the ports it freed wait for this check.
constexpr int kWakeFlushMs = 100;

// Health code for a port error; false for the errors that leave the code as it is.
bool statusFor(QSerialPort::SerialPortError error, uint32_t* code)
{
    switch (error) {
    case QSerialPort::NoError:
        *code = 0;
        return true;
    case QSerialPort::WriteError:
    case QSerialPort::ReadError:
    case QSerialPort::ResourceError:
        *code = 2;
        return true;
    case QSerialPort::DeviceNotFoundError:
    case QSerialPort::PermissionError:
    case QSerialPort::OpenError:
    case QSerialPort::UnsupportedOperationError:
    case QSerialPort::UnknownError:
    case QSerialPort::TimeoutError:
    case QSerialPort::NotOpenError:
        *code = 3;
        return true;
    case QSerialPort::ParityError:
    case QSerialPort::FramingError:
    case QSerialPort::BreakConditionError:
        return false;
    }
    return false; // anything past NotOpenError
}

} // namespace

OVController::OVController(const ControlOptions& controlOptions, OVSerialPort* serialPort, QObject* parent)
    : AbsRGBController(parent)
    , port(serialPort)
{
    options = controlOptions;

    connect(this, &OVController::writeToPort, port.data(), &OVSerialPort::write, Qt::QueuedConnection);
    connect(port->serialPort(), &QSerialPort::errorOccurred, this, &OVController::onPortError,
            Qt::QueuedConnection);

    // Only an object without a parent can change threads.
    if (port->parent()) {
        port->setParent(nullptr);
    }
    portThread = new QThread(this);
    portThread->setObjectName(QStringLiteral("OVSerialPort ") + options.portName);
    port->serialPort()->moveToThread(portThread);
    port->moveToThread(portThread);
    SignalStack::watch(portThread);
    portThread->start(QThread::InheritPriority);
    QMetaObject::invokeMethod(port.data(), &OVSerialPort::startWriteTimer, Qt::QueuedConnection);
    QMetaObject::invokeMethod(port.data(), &OVSerialPort::ignoreInput, Qt::QueuedConnection);
}

OVController::~OVController()
{
    writeColors(QVector<QVector<OV_RGB>>(1, QVector<OV_RGB>(int(qMin(options.nbLeds, LedLayout::maxLeds)))));

    // The black frame is queued on the port thread; this call queues behind it and returns once
    // the frame has left the port's buffer, so the device has it before the port closes.
    bool written = false;
    if (portThread->isRunning()) {
        QMetaObject::invokeMethod(
            port.data(), [p = port.data()] { return p->flushPending(kReleaseFlushMs); },
            Qt::BlockingQueuedConnection, &written);
    }
    QThread::msleep(kReleaseSettleMs);
    port.reset(); // by deleteLater, on the port thread before it ends
    if (portThread->isRunning()) {
        portThread->quit();
        portThread->wait();
    }
    qDebug().noquote() << kTag
                       << options.id + QStringLiteral("The port is released, the black buffer is writeen: ") +
                              (written ? QStringLiteral("true") : QStringLiteral("false")) +
                              QStringLiteral(", nbLEDS:") + QString::number(options.nbLeds);
}

QByteArray OVController::frameHeaderFor(uint32_t nbLeds)
{
    QByteArray header("Ada", 3);
    header.append(char(0));
    header.append(char(uint8_t(nbLeds >> 8)));
    header.append(char(uint8_t(nbLeds)));
    return header;
}

QByteArray OVController::encodeFrame(const QByteArray& header, uint32_t nbLeds,
                                     const QVector<QVector<OV_RGB>>& colors)
{
    // A header not built yet reads as zero LEDs, like a count whose two bytes are both 0; a count
    // the header cannot carry is never framed.
    if (header.size() < 6 || (header.at(4) == 0 && header.at(5) == 0) || nbLeds > LedLayout::maxLeds) {
        return QByteArray();
    }
    const int wanted = 3 * int(nbLeds);
    int colorBytes = 0;
    for (const QVector<OV_RGB>& line : colors) {
        colorBytes += line.size() * int(sizeof(OV_RGB));
    }
    QByteArray frame;
    frame.reserve(header.size() + qMax(wanted, colorBytes));
    frame.append(header);
    for (const QVector<OV_RGB>& line : colors) {
        frame.append(reinterpret_cast<const char*>(line.constData()), line.size() * int(sizeof(OV_RGB)));
    }
    if (colorBytes < wanted) {
        frame.append(wanted - colorBytes, char(0));
    }
    return frame;
}

void OVController::updateFrameHeader()
{
    frameHeader = frameHeaderFor(options.nbLeds);
}

void OVController::writeColors(const QVector<QVector<OV_RGB>>& colors)
{
    const QByteArray frame = encodeFrame(frameHeader, options.nbLeds, colors);
    if (!frame.isEmpty()) {
        emit writeToPort(frame);
    }
}

void OVController::afterDrain(int msecs, std::function<void(bool drained, bool works)> done)
{
    QMetaObject::invokeMethod(
        port.data(),
        [this, msecs, done] {
            port->whenDrained(msecs, [this, done](bool drained) {
                const bool works = port->lineWorks();
                QMetaObject::invokeMethod(
                    this, [done, drained, works] { done(drained, works); }, Qt::QueuedConnection);
            });
        },
        Qt::QueuedConnection);
}

void OVController::sendDarkFrame()
{
    writeColors(blackFrame());
    afterDrain(kSleepFlushMs, [this](bool drained, bool) { emit darkened(drained); });
}

void OVController::checkAfterSleep()
{
    QMetaObject::invokeMethod(
        port.data(),
        [this] {
            const SerialLine::Node node = port->nodeCheck();
            QMetaObject::invokeMethod(
                this, [this, node] { onNodeChecked(node); }, Qt::QueuedConnection);
        },
        Qt::QueuedConnection);
}

void OVController::onNodeChecked(SerialLine::Node node)
{
    if (node == SerialLine::Node::Gone) {
        releaseAfterSleep(3, QStringLiteral("its port is gone"));
        return;
    }
    if (node == SerialLine::Node::Other) {
        releaseAfterSleep(3, QStringLiteral("another device stands at its port now"));
        return;
    }
    resumeFrames(); // the current colours go out, and tell whether the line works
    // A slow device may take longer than this to read the frame: only a failed write counts.
    afterDrain(kWakeFlushMs, [this](bool, bool works) {
        if (works) {
            emit woken(true);
        } else {
            releaseAfterSleep(2, QStringLiteral("writing to it failed"));
        }
    });
}

void OVController::onPortError(QSerialPort::SerialPortError error)
{
    uint32_t code = 0;
    if (!statusFor(error, &code)) {
        return;
    }
    if (code == options.status) {
        return;
    }
    options.status = code;
    // The text lives with the port on its thread; ask there unless the thread is gone.
    QString text;
    if (portThread->isRunning()) {
        QMetaObject::invokeMethod(
            port.data(), [p = port.data()] { return p->errorText(); }, Qt::BlockingQueuedConnection, &text);
    } else {
        text = port->errorText();
    }
    emit statusChanged(code, text);
}
