#include "effects/IEffectWorker.h"

IEffectWorker::IEffectWorker(QObject* parent)
    : QObject(parent)
{
}

IEffectWorker::~IEffectWorker() = default;
