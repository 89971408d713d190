#include "AbsWorkerWidget.h"

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
    }
    worker = newWorker;
    if (worker) {
        onEffectWorkerChanged(worker);
        emit effectWorkerChanged();
    }
}
