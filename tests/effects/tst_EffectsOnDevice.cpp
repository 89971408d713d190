#include "ConfigurationManager.h"
#include "DeviceRig.h"
#include "EffectsManager.h"
#include "FlowingEffect.h"
#include "TestFiles.h"

#include <QColor>
#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QImage>
#include <QJsonArray>
#include <QJsonObject>
#include <QtTest>

#include <memory>

using Rgb = VirtualLedDevice::Rgb;
Q_DECLARE_METATYPE(QVector<Rgb>)

namespace {

Rgb half(int r, int g, int b)
{
    // The controller scales by brightness 0.5 and truncates.
    return Rgb{uint8_t(int(r * 0.5f)), uint8_t(int(g * 0.5f)), uint8_t(int(b * 0.5f))};
}

bool near(const Rgb& a, const Rgb& b)
{
    return qAbs(a.r - b.r) <= 1 && qAbs(a.g - b.g) <= 1 && qAbs(a.b - b.b) <= 1;
}

QString show(const QVector<Rgb>& colors)
{
    QStringList parts;
    for (const Rgb& c : colors) {
        parts << QStringLiteral("(%1,%2,%3)").arg(c.r).arg(c.g).arg(c.b);
    }
    return parts.join(' ');
}

} // namespace

// Each colour effect bound to a serial controller on a virtual strip behind a pseudo-terminal.
class TestEffectsOnDevice : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase()
    {
        ConfigurationManager::instance()->reset();
        const QString colorful = QCoreApplication::applicationDirPath() + "/effects/colorful";
        QDir(QCoreApplication::applicationDirPath() + "/effects").removeRecursively();
        QVERIFY(QDir().mkpath(colorful));
        QVERIFY(
            TestFiles::write(QCoreApplication::applicationDirPath() + "/effects/groups.json", R"({"groups": [
        {"id": "com.orvanta.singleColor", "defaultEffect": "com.orvanta.singleColor.singleColor1", "order": 0},
        {"id": "com.orvanta.colorful", "defaultEffect": "com.orvanta.colorful.flowingEffect", "order": 1}]})"));
        // A one-colour picture, so that every row and column gives the same LED colour.
        QImage picture(16, 12, QImage::Format_RGB32);
        picture.fill(QColor(100, 200, 60));
        QVERIFY(picture.save(colorful + "/ColorMap_3.png"));

        ConfigurationManager* store = ConfigurationManager::instance();
        store->setEffectVariant("com.orvanta.singleColor.singleColor1", "OV5512:E2E1", "color",
                                QVariant(QColor(200, 100, 50).rgb()));
        const QJsonArray teal{0, 200, 100};
        store->setEffectJsonValue(
            "com.orvanta.colorful.colorStraps", "__all__", "colorStrapList",
            QJsonArray{QJsonObject{{"name", "teal"},
                                   {"speed", 0.5},
                                   {"range", 0.5},
                                   {"endsColor", teal},
                                   {"keyColors", QJsonArray{QJsonObject{{"key", 0.5}, {"color", teal}}}},
                                   {"uuid", "{55555555-5555-5555-5555-555555555555}"}}});
    }

    void cleanup() { QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete); }

    void effectOnStrip_data()
    {
        QTest::addColumn<QString>("effectId");
        QTest::addColumn<double>("nominalRate");
        QTest::addColumn<QVector<Rgb>>("expected");

        QTest::newRow("single colour")
            << "com.orvanta.singleColor.singleColor1" << 25.0 << QVector<Rgb>(6, half(200, 100, 50));
        // Speed 0: the rainbow stands at hue 0, the first LED one sixth round.
        QTest::newRow("flowing") << "com.orvanta.colorful.flowingEffect" << 30.0
                                 << QVector<Rgb>{half(255, 255, 0), half(0, 255, 0),   half(0, 255, 255),
                                                 half(0, 0, 255),   half(255, 0, 255), half(255, 0, 0)};
        QTest::newRow("colour map") << "com.orvanta.colorful.ColorMap_3" << 30.0
                                    << QVector<Rgb>(6, half(100, 200, 60));
        QTest::newRow("mood shadow") << "com.orvanta.colorful.moodShadow" << 30.0
                                     << QVector<Rgb>(6, half(0, 200, 100));
    }

    void effectOnStrip()
    {
        QFETCH(QString, effectId);
        QFETCH(double, nominalRate);
        QFETCH(QVector<Rgb>, expected);

        DeviceRig rig;
        ControlOptions options = DeviceRig::defaultOptions(6);
        options.serial = "E2E1";
        options.id = "OV5512:E2E1";
        options.brightness = 0.5f;
        QVERIFY(rig.start(options));
        VirtualLedDevice& device = rig.device;
        AbsRGBControllerPtr controller = rig.controller;

        {
            EffectsManager manager;
            IEffectWorkerPtr worker = manager.bind(controller, effectId);
            QVERIFY(worker);
            if (auto* flowing = qobject_cast<FlowingEffect*>(worker.data())) {
                flowing->setSpeed(0);
            }
            worker.clear();

            // Frames at the effect's pace, counted over at least 40 of them; the bounds are wide.
            QTRY_VERIFY_WITH_TIMEOUT(device.frameCount() >= 3, 10000);
            const int first = device.frameCount();
            QElapsedTimer clock;
            clock.start();
            QTRY_VERIFY_WITH_TIMEOUT(device.frameCount() >= first + 40, 20000);
            const double rate = (device.frameCount() - first) * 1000.0 / qMax<qint64>(1, clock.elapsed());
            qInfo().noquote() << effectId << "frames per second:" << rate;
            QVERIFY2(rate > nominalRate * 0.3 && rate < nominalRate * 1.6, qPrintable(QString::number(rate)));
            QCOMPARE(device.decodeErrors(), 0);
            QCOMPARE(int(device.lastCount()), 6);

            const QVector<Rgb> colors = device.lastColors();
            QVERIFY2(colors.size() == expected.size(), qPrintable(show(colors)));
            for (int i = 0; i < colors.size(); ++i) {
                QVERIFY2(near(colors.at(i), expected.at(i)),
                         qPrintable(show(colors) + " / " + show(expected)));
            }
            manager.unbind(options.id);
        }
        controller.clear();
        rig.controller.clear();
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }
};

QTEST_GUILESS_MAIN(TestEffectsOnDevice)
#include "tst_EffectsOnDevice.moc"
