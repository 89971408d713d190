#include "effects/FrameGuard.h"

#include "effects/IEffectWorker.h"

#include <QtDebug>

namespace {

// Filled in with the failing worker's class name: the reader knows the effect by it.
constexpr char kTag[] = "[%1]:";

} // namespace

FrameGuard::FrameGuard(IEffectWorker* worker)
    : worker(worker)
{
    // Direct: the copy is a reference count, made on the thread that sends.
    QObject::connect(
        worker, qOverload<QVector<QVector<OV_RGB>>>(&IEffectWorker::updateColors), worker,
        [this](const QVector<QVector<OV_RGB>>& colors) {
            lastLines = colors;
            lastWasFlat = false;
            anySent = true;
        },
        Qt::DirectConnection);
    QObject::connect(
        worker, qOverload<QVector<OV_RGB>>(&IEffectWorker::updateColors), worker,
        [this](const QVector<OV_RGB>& colors) {
            lastFlat = colors;
            lastWasFlat = true;
            anySent = true;
        },
        Qt::DirectConnection);
}

void FrameGuard::failed(const char* what)
{
    if (!reported) {
        reported = true;
        qCritical().noquote() << QString::fromLatin1(kTag).arg(
                                     QLatin1String(worker->metaObject()->className()))
                              << QStringLiteral("A frame failed (%1); the last good frame is sent again, and "
                                                "further failures are not logged.")
                                     .arg(QString::fromLocal8Bit(what));
    }
    if (!anySent) {
        return;
    }
    if (lastWasFlat) {
        emit worker->updateColors(lastFlat);
    } else {
        emit worker->updateColors(lastLines);
    }
}
