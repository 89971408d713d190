#include "devices/IDeviceEnumerator.h"

namespace {

class MemoryController : public AbsRGBController
{
public:
    explicit MemoryController(const ControlOptions& initial) { options = initial; }
    void updateFrameHeader() override {}
    void writeColors(const QVector<QVector<OV_RGB>>&) override {}
};

} // namespace

// An enumerator plug-in whose devices appear on request, so that the suite drives the device
// manager through the real plug-in path.
class TestEnumeratorPlugin : public IDeviceEnumerator
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID "com.Orvanta.DeviceManagerInterface")
    Q_INTERFACES(IDeviceEnumerator)
public:
    QSet<AbsRGBControllerPtr> controllers() override { return {}; }
    bool removeController(const QString& id) override { return ids.remove(id); }

    // Announces a new device "MODEL:SERIAL", or a null pointer for the model "null".
    Q_INVOKABLE void announce(const QString& model, const QString& serial)
    {
        ControlOptions options;
        options.model = model;
        options.serial = serial;
        options.id = model.isEmpty() ? QString() : model + ':' + serial;
        AbsRGBControllerPtr controller;
        if (model != "null") {
            controller.reset(new MemoryController(options), &QObject::deleteLater);
            ids.insert(options.id);
        }
        emit deviceEnabled(controller);
    }

private:
    QSet<QString> ids;
};

#include "TestEnumeratorPlugin.moc"
