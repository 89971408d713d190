#include "VirtualLedDevice.h"

#include <QElapsedTimer>
#include <QFileInfo>
#include <QProcess>
#include <QSerialPort>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

namespace {

constexpr int kWait = 10000;

QByteArray frame(uint16_t count, const QByteArray& colors)
{
    QByteArray f("Ada", 3);
    f.append(char(0));
    f.append(char(count >> 8));
    f.append(char(count & 0xff));
    return f + colors;
}

} // namespace

// The host side of these tests is a real QSerialPort on the device's pty.
class TestDevsim : public QObject
{
    Q_OBJECT
private:
    bool openHost(QSerialPort& host, const VirtualLedDevice& device)
    {
        host.setPortName(device.slavePath());
        host.setBaudRate(QSerialPort::Baud115200);
        return host.open(QIODevice::ReadWrite);
    }

private slots:
    void initTestCase() { qRegisterMetaType<QSerialPort::SerialPortError>(); }

    void answersTheSalutation()
    {
        VirtualLedDevice device;
        QVERIFY2(device.open(), qPrintable(device.errorString()));
        QVERIFY(device.slavePath().startsWith(QStringLiteral("/dev/pts/")));
        QCOMPARE(device.reply(), QByteArrayLiteral("OV5512,ABCD\r\n"));
        QSerialPort host;
        QVERIFY(openHost(host, device));
        host.write("Moni-A");
        QByteArray got;
        QTRY_VERIFY_WITH_TIMEOUT((got += host.readAll()) == "OV5512,ABCD\r\n", kWait);
        QCOMPARE(device.salutations(), 1);

        device.setReply("ov9000,0102\r\n");
        host.write("Moni-AMoni-A");
        got.clear();
        QTRY_VERIFY_WITH_TIMEOUT((got += host.readAll()) == "ov9000,0102\r\nov9000,0102\r\n", kWait);
        QCOMPARE(device.salutations(), 3);
        QCOMPARE(device.decodeErrors(), 0);
    }

    void decodesFramesAndSurplus()
    {
        VirtualLedDevice device;
        QVERIFY(device.open());
        device.setKeepFrames(true);
        QSerialPort host;
        QVERIFY(openHost(host, device));
        QSignalSpy decoded(&device, &VirtualLedDevice::frameReceived);

        host.write(frame(2, QByteArray::fromHex("010203040506")));
        QTRY_COMPARE_WITH_TIMEOUT(device.frameCount(), 1, kWait);
        QCOMPARE(device.lastCount(), uint16_t(2));
        const QVector<VirtualLedDevice::Rgb> two{{1, 2, 3}, {4, 5, 6}};
        QCOMPARE(device.lastColors(), two);

        // More colours than the count: the surplus belongs to the frame, not an error.
        const QByteArray longer = frame(3, QByteArray::fromHex("0a0b0c0d0e0f101112131415161718"));
        host.write(longer + frame(1, QByteArray::fromHex("ffeedd")));
        QTRY_COMPARE_WITH_TIMEOUT(device.frameCount(), 3, kWait);
        QTRY_COMPARE_WITH_TIMEOUT(device.frames().size(), 3, kWait);
        QCOMPARE(device.frames().at(1), longer);
        QCOMPARE(device.lastFrame(), frame(1, QByteArray::fromHex("ffeedd")));
        QCOMPARE(decoded.count(), 3);
        QCOMPARE(device.decodeErrors(), 0);

        // A frame split across writes is still one frame.
        const QByteArray big = frame(300, QByteArray(900, char(7)));
        host.write(big.left(400));
        QVERIFY(host.waitForBytesWritten(kWait));
        host.write(big.mid(400));
        QTRY_COMPARE_WITH_TIMEOUT(device.frameCount(), 4, kWait);
        QTRY_COMPARE_WITH_TIMEOUT(device.lastFrame(), big, kWait);
        QCOMPARE(device.decodeErrors(), 0);
        QVERIFY(device.frameRate() >= 1.0);
    }

    void decodeErrors_data()
    {
        QTest::addColumn<QByteArray>("bad");
        QTest::newRow("wrong magic") << QByteArray("Adb\x00\x00\x01\x01\x02\x03", 9);
        QTest::newRow("count 0") << QByteArray("Ada\x00\x00\x00", 6);
        QTest::newRow("frame shorter than its count") << frame(4, QByteArray(6, 1));
    }

    void decodeErrors()
    {
        QFETCH(QByteArray, bad);
        VirtualLedDevice device;
        QVERIFY(device.open());
        QSerialPort host;
        QVERIFY(openHost(host, device));
        QSignalSpy errors(&device, &VirtualLedDevice::decodeError);
        host.write(bad);
        QTRY_COMPARE_WITH_TIMEOUT(device.decodeErrors(), 1, kWait);
        QCOMPARE(errors.count(), 1);
        QCOMPARE(device.frameCount(), 0);
        // The device finds its feet again at the next frame.
        host.write(frame(1, QByteArray::fromHex("102030")));
        QTRY_COMPARE_WITH_TIMEOUT(device.frameCount(), 1, kWait);
        QCOMPARE(device.decodeErrors(), 1);
        QCOMPARE(device.lastColors(), (QVector<VirtualLedDevice::Rgb>{{0x10, 0x20, 0x30}}));
    }

    void headlessProgram()
    {
        QTemporaryDir dir;
        const QString link = dir.filePath(QStringLiteral("ttyStrip"));
        QProcess program;
        program.start(QStringLiteral(DEVSIM_PATH),
                      {QStringLiteral("--headless"), QStringLiteral("--link"), link,
                       QStringLiteral("--reply"), QStringLiteral("OVTEST,0102"), QStringLiteral("--leds"),
                       QStringLiteral("4")});
        QVERIFY(program.waitForStarted(kWait));
        QByteArray out;
        QTRY_VERIFY_WITH_TIMEOUT((out += program.readAllStandardOutput()).contains("link "), kWait);
        QVERIFY(out.startsWith("/dev/pts/"));
        QTRY_VERIFY_WITH_TIMEOUT(QFileInfo(link).isSymLink(), kWait);

        QSerialPort host;
        host.setPortName(link);
        QVERIFY(host.open(QIODevice::ReadWrite));
        host.write("Moni-A");
        QByteArray reply;
        QTRY_VERIFY_WITH_TIMEOUT((reply += host.readAll()) == "OVTEST,0102\r\n", kWait);
        // A bad header, then a good frame: one error, one frame.
        host.write(QByteArray("Adb\x00\x00\x01", 6) + frame(2, QByteArray::fromHex("0a0b0c0d0e0f")));
        QTRY_VERIFY_WITH_TIMEOUT(
            (out += program.readAllStandardOutput()).contains("errors=1 leds=4 first=#0a0b0c"), kWait);

        program.terminate();
        QVERIFY(program.waitForFinished(kWait));
        QCOMPARE(program.exitStatus(), QProcess::NormalExit);
        QCOMPARE(program.exitCode(), 0);
        QVERIFY(!QFileInfo(link).isSymLink());
    }
};

QTEST_GUILESS_MAIN(TestDevsim)
#include "tst_Devsim.moc"
