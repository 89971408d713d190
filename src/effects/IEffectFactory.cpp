#include "effects/IEffectFactory.h"

IEffectFactory::IEffectFactory(QObject* parent)
    : QObject(parent)
{
}

IEffectFactory::~IEffectFactory() = default;
