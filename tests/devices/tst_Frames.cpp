#include "DeviceRig.h"

#include "ConfigurationManager.h"

#include <QSignalSpy>
#include <QtTest>

using Lines = QVector<QVector<OV_RGB>>;

namespace {

Lines rampLines(const QVector<int>& sizes)
{
    Lines lines;
    uint8_t v = 1;
    for (int n : sizes) {
        QVector<OV_RGB> line;
        for (int i = 0; i < n; ++i, v += 3) {
            line.append(OV_RGB{v, uint8_t(v + 1), uint8_t(v + 2)});
        }
        lines.append(line);
    }
    return lines;
}

QByteArray bytesOf(const Lines& lines)
{
    QByteArray out;
    for (const auto& line : lines) {
        out.append(reinterpret_cast<const char*>(line.constData()), line.size() * 3);
    }
    return out;
}

} // namespace

class TestFrames : public QObject
{
    Q_OBJECT
private slots:
    void init() { ConfigurationManager::instance()->reset(); }

    void encodesWhatTheDeviceReads_data()
    {
        QTest::addColumn<uint>("nbLeds");
        QTest::addColumn<Lines>("colors");
        QTest::addColumn<QByteArray>("expected");

        QTest::newRow("lines of 2 and 1") << 3u << Lines{{{1, 2, 3}, {4, 5, 6}}, {{7, 8, 9}}}
                                          << QByteArray::fromHex("416461000003010203040506070809");
        QTest::newRow("no colours: padded to black")
            << 2u << Lines{} << QByteArray::fromHex("416461000002000000000000");
        QTest::newRow("short line: rest padded")
            << 4u << Lines{{{9, 8, 7}}} << frameBytes(4, QByteArray::fromHex("090807") + QByteArray(9, 0));
        const Lines five = rampLines({5});
        QTest::newRow("five colours over three LEDs: not cut") << 3u << five << frameBytes(3, bytesOf(five));
        const Lines full = rampLines({200, 56});
        QTest::newRow("256 LEDs: count 01 00") << 256u << full << frameBytes(256, bytesOf(full));
        QTest::newRow("65535 LEDs: count ff ff")
            << 65535u << Lines{{{1, 1, 1}}} << frameBytes(65535, QByteArray(3, 1) + QByteArray(196602, 0));
    }

    void encodesWhatTheDeviceReads()
    {
        QFETCH(uint, nbLeds);
        QFETCH(Lines, colors);
        QFETCH(QByteArray, expected);

        DeviceRig rig;
        QVERIFY(rig.start(DeviceRig::defaultOptions(nbLeds)));
        QSignalSpy sent(rig.controller.data(), &OVController::writeToPort);
        rig.controller->writeColors(colors);
        QCOMPARE(sent.count(), 1);
        QCOMPARE(sent.at(0).at(0).toByteArray(), expected);

        // The device has it byte for byte, surplus colours included.
        QTRY_VERIFY_WITH_TIMEOUT(rig.device.frameCount() >= 1, 10000);
        QTRY_COMPARE_WITH_TIMEOUT(rig.device.frames().first(), expected, 10000);
        QCOMPARE(rig.device.frames().first().size(), expected.size());
        QCOMPARE(int(rig.device.lastCount()), int(nbLeds));
        QCOMPARE(rig.device.decodeErrors(), 0);
    }

    void silentWithoutLeds_data()
    {
        QTest::addColumn<uint>("nbLeds");
        QTest::newRow("0 LEDs") << 0u;
        QTest::newRow("65536 LEDs: count bytes 00 00") << 65536u;
    }

    void silentWithoutLeds()
    {
        QFETCH(uint, nbLeds);
        DeviceRig rig;
        QVERIFY(rig.start(DeviceRig::defaultOptions(nbLeds)));
        QSignalSpy sent(rig.controller.data(), &OVController::writeToPort);
        rig.controller->writeColors(Lines{{{1, 2, 3}}});
        rig.controller->update(QVector<OV_RGB>{{4, 5, 6}});
        QCOMPARE(sent.count(), 0);

        // A layout with LEDs brings the frames: the first one the device reads is the new layout's,
        // so nothing went out before it.
        rig.controller->setLayout(2, {2});
        rig.controller->update(QVector<OV_RGB>{{7, 8, 9}});
        QCOMPARE(sent.count(), 1);
        QTRY_VERIFY_WITH_TIMEOUT(rig.device.frameCount() >= 1, 10000);
        QCOMPARE(rig.device.frames().first(), frameBytes(2, QByteArray::fromHex("070809000000")));
    }

    void headerFollowsLayout()
    {
        DeviceRig rig;
        QVERIFY(rig.start(DeviceRig::defaultOptions(3), false));
        QSignalSpy sent(rig.controller.data(), &OVController::writeToPort);
        // No header yet: the controller cannot frame anything.
        rig.controller->writeColors(Lines{{{1, 2, 3}}});
        QCOMPARE(sent.count(), 0);

        rig.controller->updateFrameHeader();
        rig.controller->writeColors(Lines{});
        QCOMPARE(sent.takeFirst().at(0).toByteArray(), frameBytes(3, QByteArray(9, 0)));

        // A smaller layout does not cut what is delivered.
        rig.controller->setLayout(1, {1});
        rig.controller->writeColors(Lines{{{1, 2, 3}, {4, 5, 6}}});
        QCOMPARE(sent.takeFirst().at(0).toByteArray(), frameBytes(1, QByteArray::fromHex("010203040506")));

        rig.controller->setLayout(300, {100, 100, 100});
        rig.controller->writeColors(Lines{});
        const QByteArray f = sent.takeFirst().at(0).toByteArray();
        QCOMPARE(f.size(), 906);
        QCOMPARE(f.mid(4, 2), QByteArray::fromHex("012c"));
    }
};

QTEST_GUILESS_MAIN(TestFrames)
#include "tst_Frames.moc"
