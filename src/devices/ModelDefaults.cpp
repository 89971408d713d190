#include "devices/ModelDefaults.h"

#include "devices/LedLayout.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonParseError>

ModelDefaults ModelDefaults::parse(const QByteArray& bytes, const QString& model)
{
    ModelDefaults defaults;
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(bytes, &error);
    if (error.error != QJsonParseError::NoError) {
        defaults.parseError = error.errorString();
        return defaults;
    }
    defaults.parsed = true;
    // A model without an entry, or a document that is no object, gives an empty layout.
    const QJsonObject entry = document.object().value(model).toObject();
    defaults.layoutInRange =
        LedLayout::read(entry, &defaults.nbLeds, &defaults.lines, &defaults.layoutProblem);
    defaults.icon = entry.value(QLatin1String("icon")).toString();
    defaults.image = entry.value(QLatin1String("image")).toString();
    defaults.brightness = float(entry.value(QLatin1String("brightness")).toDouble(0.8));
    return defaults;
}
