#include "service/screen/DeskCapturer.h"

#include "service/config/SignalStack.h"
#include "service/screen/DeskCaptureRunner.h"

#include <QMetaMethod>
#include <QtDebug>

#include <algorithm>

// Logs under DeskDuplManager's name: the log texts of this part are fixed that way.
constexpr char kTag[] = "[DeskDuplManager]:";

DeskCapturer::DeskCapturer(const DeskCaptureBackend* backend, const DeskCaptureOption* option,
                           const QString& monitor, const QRect& geometry, QObject* parent)
    : IDeskCapture(parent)
    , backend(backend)
    , option(option)
    , monitor(monitor)
    , area(geometry)
    , output(defaultOutputSize(geometry.size()))
    , runner(new DeskCaptureRunner(this))
{
    thread.setObjectName(QStringLiteral("capture"));
    runner->moveToThread(&thread);
    connect(&thread, &QThread::finished, runner, &QObject::deleteLater);
    SignalStack::watch(&thread);
    thread.start();
}

DeskCapturer::~DeskCapturer()
{
    stop();
}

void DeskCapturer::stop()
{
    if (stopped.exchange(true)) {
        return;
    }
    // The runner closes its connection on its own thread, then the thread ends and deletes it.
    QMetaObject::invokeMethod(runner, &DeskCaptureRunner::shutdown, Qt::QueuedConnection);
    thread.quit();
    thread.wait();
}

int DeskCapturer::aspectHeight(int width, const QSize& source)
{
    if (source.width() <= 0 || source.height() <= 0) {
        return 1;
    }
    return std::max(1, int(width / (double(source.width()) / double(source.height()))));
}

QSize DeskCapturer::defaultOutputSize(const QSize& source)
{
    // 120 wide at the source's aspect: 120 x 67 at 16:9.
    return QSize(120, aspectHeight(120, source));
}

QSize DeskCapturer::outputSize() const
{
    QMutexLocker locker(&mutex);
    return output;
}

QSize DeskCapturer::sourceSize() const
{
    QMutexLocker locker(&mutex);
    return area.size();
}

QRect DeskCapturer::geometry() const
{
    QMutexLocker locker(&mutex);
    return area;
}

void DeskCapturer::setOutputSize(int width, int height)
{
    QMutexLocker locker(&mutex);
    if (width < 1 || height < 1 || width > area.width() || height > area.height()) {
        qWarning().noquote() << kTag << "Refused output size" << width << "x" << height << "for a source of"
                             << area.width() << "x" << area.height();
        return;
    }
    output = QSize(width, height);
}

void DeskCapturer::setGeometry(const QRect& geometry)
{
    QMutexLocker locker(&mutex);
    const bool resized = geometry.size() != area.size();
    area = geometry;
    if (resized) {
        // The width asked for stays; the height follows the new aspect.
        const int width = std::max(1, std::min(output.width(), area.width()));
        output = QSize(width, std::min(aspectHeight(width, area.size()), std::max(1, area.height())));
    }
}

void DeskCapturer::setActive(bool active, bool blackFrame)
{
    if (stopped) {
        return;
    }
    QMetaObject::invokeMethod(
        runner, [r = runner, active, blackFrame] { r->setActive(active, blackFrame); }, Qt::QueuedConnection);
}

bool DeskCapturer::hasListeners() const
{
    static const QMetaMethod tick = QMetaMethod::fromSignal(&IDeskCapture::frameTick);
    return isSignalConnected(tick);
}

// A wildcard disconnect names no signal, so every change posts a re-check.
void DeskCapturer::connectNotify(const QMetaMethod&)
{
    if (stopped) {
        return;
    }
    QMetaObject::invokeMethod(runner, &DeskCaptureRunner::recheck, Qt::QueuedConnection);
}

void DeskCapturer::disconnectNotify(const QMetaMethod&)
{
    if (stopped) {
        return;
    }
    QMetaObject::invokeMethod(runner, &DeskCaptureRunner::recheck, Qt::QueuedConnection);
}
