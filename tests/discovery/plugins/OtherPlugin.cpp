#include <QObject>

// A valid Qt plug-in whose root object is not an enumerator.
class OtherPlugin : public QObject
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID "com.orvanta.tests.NotAnEnumerator")
};

#include "OtherPlugin.moc"
