#include "effects/panels/AbsWorkerWidget.h"

AbsWorkerWidget::AbsWorkerWidget(QWidget* parent)
    : QWidget(parent)
{
    qRegisterMetaType<IEffectWorkerPtr>("IEffectWorkerPtr");
}

AbsWorkerWidget::~AbsWorkerWidget() = default;

IEffectWorkerPtr AbsWorkerWidget::effectWorker() const
{
    return worker;
}

void AbsWorkerWidget::setEffectWorker(IEffectWorkerPtr newWorker)
{
    if (newWorker == worker) {
        return;
    }
    if (worker) {
        disconnect(worker.data(), nullptr, this, nullptr);
        // And the other way: the panel's and its controls' connections to the old worker, so a
        // shared panel edits only the worker it points at and never connects twice.
        disconnect(this, nullptr, worker.data(), nullptr);
        for (QObject* child : findChildren<QObject*>()) {
            disconnect(child, nullptr, worker.data(), nullptr);
        }
    }
    worker = newWorker;
    if (worker) {
        onEffectWorkerChanged(worker);
        emit effectWorkerChanged();
    } else {
        onEffectWorkerCleared();
    }
}
