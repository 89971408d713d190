#pragma once

#include <QObject>

// A valid Qt plug-in whose root object does not implement the enumerator interface.
class OtherPlugin : public QObject
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID "com.orvanta.tests.NotAnEnumerator")
public:
    explicit OtherPlugin(QObject* parent = nullptr);
};
