#include "effects/FrameGuard.h"

#include "effects/IEffectWorker.h"

#include <QtDebug>

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
        qCritical().noquote() << QStringLiteral("[%1]: A frame failed (%2); the last good frame is sent "
                                                "again, and further failures are not logged.")
                                     .arg(QLatin1String(worker->metaObject()->className()),
                                          QString::fromLocal8Bit(what));
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
