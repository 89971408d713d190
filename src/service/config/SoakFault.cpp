#include "service/config/SoakFault.h"

#include <QByteArray>
#include <QList>
#include <QtGlobal>

bool SoakFault::on(Kind kind)
{
    static const QList<QByteArray> names = qgetenv("ORVANTA_SOAK_FAULT").split(',');
    switch (kind) {
    case Kind::StoreInPlace:
        return names.contains("store-in-place");
    case Kind::StoreAnySize:
        return names.contains("store-any-size");
    case Kind::PortFdPerUnplug:
        return names.contains("port-fd-per-unplug");
    case Kind::PortEveryFrame:
        return names.contains("port-every-frame");
    }
    return false;
}
