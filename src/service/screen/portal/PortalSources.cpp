#include "service/screen/portal/PortalSources.h"

#include <QDBusArgument>
#include <QPoint>
#include <QSet>
#include <QSize>

namespace {

// A pair of ints "(ii)" off the bus, or a QPoint / QSize handed in directly.
bool pairOf(const QVariant& value, int* a, int* b)
{
    if (value.userType() == qMetaTypeId<QDBusArgument>()) {
        const QDBusArgument argument = value.value<QDBusArgument>();
        if (argument.currentSignature() != QLatin1String("(ii)")) {
            return false;
        }
        argument.beginStructure();
        argument >> *a >> *b;
        argument.endStructure();
        return true;
    }
    if (value.userType() == QMetaType::QPoint) {
        *a = value.toPoint().x(), *b = value.toPoint().y();
        return true;
    }
    if (value.userType() == QMetaType::QSize) {
        *a = value.toSize().width(), *b = value.toSize().height();
        return true;
    }
    return false;
}

} // namespace

namespace PortalSources {

QList<PortalStreamEntry> entriesOf(const QVariant& streams)
{
    QList<PortalStreamEntry> entries;
    if (streams.userType() != qMetaTypeId<QDBusArgument>()) {
        return entries;
    }
    const QDBusArgument argument = streams.value<QDBusArgument>();
    if (argument.currentSignature() != QLatin1String("a(ua{sv})")) {
        return entries;
    }
    argument.beginArray();
    while (!argument.atEnd()) {
        PortalStreamEntry entry;
        argument.beginStructure();
        argument >> entry.node >> entry.properties;
        argument.endStructure();
        entries.append(entry);
    }
    argument.endArray();
    return entries;
}

QVector<PortalSource> sourcesOf(const QList<PortalStreamEntry>& entries)
{
    QVector<PortalSource> sources;
    QSet<QString> names;
    int nextX = 0; // where a stream without a position goes: right of the ones before
    for (int i = 0; i < entries.size(); ++i) {
        const PortalStreamEntry& entry = entries[i];
        PortalSource source;
        source.node = entry.node;
        const QVariant id = entry.properties.value(QStringLiteral("id"));
        QString name = id.userType() == QMetaType::QString && !id.toString().isEmpty()
                           ? QStringLiteral("portal:") + id.toString()
                           : QString();
        if (name.isEmpty() || names.contains(name)) {
            name = QStringLiteral("portal:%1").arg(i + 1);
        }
        names.insert(name);
        source.monitor.name = name;
        source.monitor.label = QStringLiteral("Screen %1").arg(i + 1);
        int x = 0, y = 0, w = 0, h = 0;
        const bool sized = pairOf(entry.properties.value(QStringLiteral("size")), &w, &h) && w > 0 && h > 0;
        const QSize size = sized ? QSize(w, h) : QSize();
        const QPoint position = pairOf(entry.properties.value(QStringLiteral("position")), &x, &y)
                                    ? QPoint(x, y)
                                    : QPoint(nextX, 0);
        source.monitor.geometry = QRect(position, size);
        source.monitor.primary = i == 0;
        nextX = std::max(nextX, position.x() + std::max(size.width(), 0));
        sources.append(source);
    }
    return sources;
}

} // namespace PortalSources
