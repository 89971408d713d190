#include "LocalHttpsService.h"
#include "LogCapture.h"
#include "StallProbe.h"
#include "TestFiles.h"
#include "online/ADManager.h"
#include "online/AdReply.h"
#include "online/HelpDialogViewModel.h"
#include "ui/HomePage.h"
#include "ui/dialogs/HelpDialog.h"
#include "ui/widgets/ImageWidget.h"
#include "ui/widgets/SliderBar.h"

#include <QBuffer>
#include <QtEndian>
#include <QtTest>
#include <QtWidgets>

#include <memory>

namespace {
constexpr int kWaitMs = 20000;
constexpr qint64 kStallLimitMs = 2000; // a wait on the network would hold the window for seconds
const QString kRunning = QStringLiteral("0.2.0.230805");
const QString kAdPath = QStringLiteral("/app/get_advertisement_info.php");

QByteArray encode(const QImage& image, const char* format)
{
    QByteArray bytes;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::WriteOnly);
    image.save(&buffer, format);
    return bytes;
}

// The advertisement's picture: two flat colours, one above the other.
QImage twoColours(QColor top, QColor bottom)
{
    QImage image(298, 798, QImage::Format_RGB32);
    image.fill(top);
    QPainter(&image).fillRect(0, 399, 298, 399, bottom);
    return image;
}

quint32 crc32(const QByteArray& bytes)
{
    quint32 crc = 0xffffffffu;
    for (const char c : bytes) {
        crc ^= quint8(c);
        for (int k = 0; k < 8; ++k) {
            crc = (crc >> 1) ^ (0xedb88320u & (0u - (crc & 1u)));
        }
    }
    return ~crc;
}

QByteArray pngChunk(const QByteArray& type, const QByteArray& data)
{
    QByteArray out(4, '\0');
    qToBigEndian(quint32(data.size()), out.data());
    QByteArray crc(4, '\0');
    qToBigEndian(crc32(type + data), crc.data());
    return out + type + data + crc;
}

// A sound black-and-white PNG of 20000 x 20000 in some 60 KB: gigabytes once decoded.
QByteArray hugePng()
{
    const int side = 20000;
    QByteArray header(13, '\0');
    qToBigEndian(quint32(side), header.data());
    qToBigEndian(quint32(side), header.data() + 4);
    header[8] = 1; // one bit a pixel, grey
    const QByteArray rows(side * (1 + side / 8), '\0');
    const QByteArray zlib = qCompress(rows, 9).mid(4); // without Qt's length prefix
    return QByteArray("\x89PNG\r\n\x1a\n", 8) + pngChunk("IHDR", header) + pngChunk("IDAT", zlib) +
           pngChunk("IEND", QByteArray());
}

QByteArray adBody(int enable, int vertion, const QString& image, const QString& name, const QString& href)
{
    return QJsonDocument(QJsonObject{{"enable", enable},
                                     {"vertion", vertion},
                                     {"ad1_image_url", image},
                                     {"ad1_local_file_name", name},
                                     {"ad1_image_href", href}})
        .toJson(QJsonDocument::Compact);
}

QString dataFolder()
{
    return QStandardPaths::writableLocation(QStandardPaths::AppConfigLocation);
}
} // namespace

// The advertisement on the real home page, and the help dialog, against a local HTTPS service.
class TestOnline : public QObject
{
    Q_OBJECT
private:
    LocalHttpsService service;
    QList<QUrl> opened; // what the desktop was asked to open

    ImageWidget* panel(HomePage& page) { return page.findChild<ImageWidget*>("ADBox1"); }

    // One start of the advertisement flow, until it has said its last word.
    void runAd(HomePage& page, LogCapture& log, qint64* worstLateMs = nullptr)
    {
        ADManager ads;
        connect(&ads, &ADManager::sendUpadteDone, &page, &HomePage::setADBox1);
        log.clear();
        const int before = service.requestCount();
        StallProbe probe;
        ads.start();
        // The request, and the picture's when one is asked for, then the flow's end.
        QTRY_VERIFY_WITH_TIMEOUT(service.requestCount() > before, kWaitMs);
        QTRY_VERIFY_WITH_TIMEOUT(log.contains("Download") || log.contains("use local ad state") ||
                                     log.contains("ad enable:") || log.contains("[ADManager]", QtWarningMsg),
                                 kWaitMs);
        QTest::qWait(100);
        if (worstLateMs) {
            *worstLateMs = probe.worstLateMs();
        }
    }

private slots:
    void initTestCase()
    {
        QCoreApplication::setApplicationVersion(kRunning);
        QVERIFY2(service.start(), qPrintable(service.errorString()));
        qputenv("ORVANTA_SERVICE_URL", service.baseUrl().toString().toUtf8());
        qputenv("ORVANTA_SERVICE_CA", service.caFile().toUtf8());
    }

    void init()
    {
        service.clearRoutes();
        service.clearRecords();
        QDir(dataFolder() + "/image").removeRecursively();
    }

    void adReply_data()
    {
        QTest::addColumn<QString>("image"); // resolved; unchecked when empty
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<QString>("refusal"); // a part of it; empty: sound
        const QString name = "image/ad_images/a.png";
        const auto body = [&](const QString& image, const QString& local, const QString& href) {
            return adBody(1, 3, image, local, href);
        };
        QTest::newRow("sound") << "https://s.example/app/images/a.png"
                               << body("images/a.png", name, "https://www.orvanta.example/") << "";
        QTest::newRow("sound, in a subfolder, no href")
            << "https://cdn.example/a.png" << body("https://cdn.example/a.png", "image/ad_images/x/a.png", "")
            << "";
        QTest::newRow("image by http elsewhere")
            << QString() << body("http://cdn.example/a.png", name, "") << "ad1_image_url";
        QTest::newRow("javascript: href")
            << QString() << body("a.png", name, "javascript:alert(1)") << "ad1_image_href";
        QTest::newRow("local name with ..")
            << QString() << body("a.png", "image/ad_images/../../global.json", "") << "ad1_local_file_name";
        QTest::newRow("local name absolute")
            << QString() << body("a.png", "/tmp/image/ad_images/a.png", "") << "ad1_local_file_name";
        QTest::newRow("local name elsewhere")
            << QString() << body("a.png", "global.json", "") << "ad1_local_file_name";
        QTest::newRow("local name the reply's copy")
            << QString() << body("a.png", "image/ad_images/ad.json", "") << "ad1_local_file_name";
    }
    void adReply()
    {
        QFETCH(QString, image);
        QFETCH(QByteArray, body);
        QFETCH(QString, refusal);
        const AdReply reply = AdReply::parse(body, QUrl("https://s.example/app/get_advertisement_info.php"));
        QCOMPARE(reply.enable, 1);
        QVERIFY(image.isEmpty() || reply.imageUrl.toString() == image);
        QVERIFY2(refusal.isEmpty() ? reply.refusal.isEmpty() : reply.refusal.contains(refusal),
                 qPrintable(reply.refusal));
    }

    void pictureProblem_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<bool>("sound");
        const QImage small = twoColours(Qt::red, Qt::blue);
        QTest::newRow("PNG") << encode(small, "PNG") << true;
        QTest::newRow("JPEG") << encode(small, "JPEG") << true;
        QTest::newRow("4096 wide") << encode(QImage(4096, 2, QImage::Format_RGB32), "PNG") << true;
        QTest::newRow("4097 wide") << encode(QImage(4097, 2, QImage::Format_RGB32), "PNG") << false;
        QTest::newRow("BMP") << encode(small, "BMP") << false;
        QTest::newRow("PNG cut short") << encode(small, "PNG").left(300) << false;
        QTest::newRow("20000 x 20000 declared") << hugePng() << false;
    }
    void pictureProblem()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(bool, sound);
        const QString problem = ADManager::pictureProblem(bytes);
        QVERIFY2(problem.isEmpty() == sound, qPrintable(problem));
    }

    // A new "vertion" stores the reply and the picture and shows it; the same one shows the stored
    // picture without fetching; the first run keeps the product picture. Anything unsound writes
    // no picture and leaves the panel, says why once, and a later good "vertion" still works.
    void advertisement_data()
    {
        QTest::addColumn<QString>("setup");
        QTest::addColumn<bool>("replyStored");
        QTest::addColumn<QString>("cause"); // empty: no warning
        QTest::newRow("new vertion") << "new" << true << "";
        QTest::newRow("same vertion") << "same" << true << "";
        QTest::newRow("first run, vertion 0") << "first" << false << "";
        QTest::newRow("enable true") << "enable" << false << "";
        QTest::newRow("garbage") << "garbage" << false << "";
        QTest::newRow("javascript: href") << "href" << false << "ad1_image_href";
        QTest::newRow("local name with ..") << "dots" << false << "ad1_local_file_name";
        QTest::newRow("undecodable picture") << "undecodable" << true << "undecodable";
        QTest::newRow("5 MiB picture") << "5 MiB" << true << "Content-Length 5242880";
        QTest::newRow("20000 x 20000 declared") << "huge" << true << "20000 x 20000";
    }
    void advertisement()
    {
        QFETCH(QString, setup);
        QFETCH(bool, replyStored);
        QFETCH(QString, cause);
        const QImage served = twoColours(QColor(200, 30, 30), QColor(20, 40, 220));
        const QImage stored = twoColours(QColor(10, 160, 10), QColor(240, 240, 0));
        const QString name = "image/ad_images/ad1.png";
        const QString href = "https://www.orvanta.example/";
        int vertion = setup == "first" ? 0 : 1;
        if (setup == "same") {
            QVERIFY(TestFiles::write(dataFolder() + "/" + name, encode(stored, "PNG")));
            QVERIFY(TestFiles::write(dataFolder() + "/image/ad_images/ad.json",
                                     adBody(1, 1, "x.png", name, href)));
        }
        QByteArray reply =
            adBody(1, vertion, "images/ad1.png", name, setup == "href" ? "javascript:alert(1)" : href);
        if (setup == "enable") {
            reply.replace("\"enable\":1", "\"enable\":true");
        } else if (setup == "garbage") {
            reply = "<html>";
        } else if (setup == "dots") {
            reply.replace("image/ad_images/ad1.png", "image/ad_images/../../global.json");
        }
        service.setRoute(kAdPath, ScriptedReply::json(reply));
        ScriptedReply picture;
        picture.body = encode(served, "PNG");
        if (setup == "undecodable") {
            picture.body = "\x89PNG\r\n\x1a\n but nothing more";
        } else if (setup == "5 MiB") {
            picture.body = QByteArray(5 * 1024 * 1024, '\0');
        } else if (setup == "huge") {
            picture.body = hugePng();
        }
        service.setRoute("/app/images/ad1.png", picture);

        HomePage page;
        const QImage product = panel(page)->img();
        opened.clear();
        QDesktopServices::setUrlHandler("https", this, "record");
        LogCapture log;
        qint64 worst = 0;
        runAd(page, log, &worst);
        qInfo("%s: the main loop was held up %lld ms at most", qPrintable(setup), worst);
        QVERIFY(worst < kStallLimitMs);

        const RecordedRequest request = service.requests().first();
        QCOMPARE(request.method, QByteArray("POST"));
        QCOMPARE(request.path, kAdPath.toUtf8());
        QCOMPARE(QJsonDocument::fromJson(request.body).object(),
                 QJsonObject({{"var", kRunning},
                              {"app_name", QFileInfo(QCoreApplication::applicationFilePath()).fileName()}}));
        const bool shows = setup == "new" || setup == "same";
        const QImage expected = setup == "new" ? served : setup == "same" ? stored : product;
        QCOMPARE(panel(page)->img().convertToFormat(QImage::Format_RGB32),
                 expected.convertToFormat(QImage::Format_RGB32));
        QCOMPARE(service.requestCount(), setup == "same" || !replyStored ? 1 : 2);
        QCOMPARE(QFile::exists(dataFolder() + "/" + name), shows);
        QCOMPARE(TestFiles::read(dataFolder() + "/image/ad_images/ad.json"),
                 setup == "same" ? adBody(1, 1, "x.png", name, href)
                 : replyStored   ? reply
                                 : QByteArray());
        QCOMPARE(QDir(dataFolder()).entryList({"global.json"}, QDir::Files), QStringList());
        QCOMPARE(log.count("[ADManager]", QtWarningMsg), cause.isEmpty() ? 0 : 1);
        QVERIFY2(cause.isEmpty() || log.contains(cause, QtWarningMsg), qPrintable(log.lines().join('\n')));
        // The panel's click opens nothing, whatever it shows.
        QTest::mouseClick(panel(page), Qt::LeftButton);
        QCOMPARE(opened, QList<QUrl>());
        QDesktopServices::unsetUrlHandler("https");

        if (!shows && setup != "first") { // a later good "vertion" works
            service.setRoute(kAdPath, ScriptedReply::json(adBody(1, 7, "images/ad1.png", name, href)));
            picture.body = encode(served, "PNG");
            service.setRoute("/app/images/ad1.png", picture);
            runAd(page, log);
            QCOMPARE(panel(page)->img().convertToFormat(QImage::Format_RGB32),
                     served.convertToFormat(QImage::Format_RGB32));
        }
    }

    // What the first tab shows for the newest version known, against the running one.
    void helpVersions_data()
    {
        QTest::addColumn<QString>("latest");
        QTest::addColumn<bool>("offered");
        QTest::newRow("before any check") << "" << false;
        QTest::newRow("newer") << "0.2.0.230901" << true;
        QTest::newRow("newer by numbers, older as text") << "0.10.0.1" << true;
        QTest::newRow("the same") << kRunning << false;
        QTest::newRow("older") << "0.2.0.230804" << false;
    }
    void helpVersions()
    {
        QFETCH(QString, latest);
        QFETCH(bool, offered);
        auto model = std::make_shared<HelpDialogViewModel>();
        model->setLatestVersion(latest);
        HelpDialog dialog(model);
        dialog.show();
        QCOMPARE(dialog.findChild<QLabel*>("currentVerLabel")->text(), kRunning);
        QCOMPARE(dialog.findChild<QLabel*>("latestVerDescLabel")->text(),
                 offered ? QString("最新版本号：") : QString("已是最新版本"));
        QCOMPARE(dialog.findChild<QLabel*>("latestVerLabel")->isVisible(), offered);
        QCOMPARE(dialog.findChild<QPushButton*>("updateBtn")->isVisible(), offered);
        if (offered) {
            QCOMPARE(dialog.findChild<QLabel*>("latestVerLabel")->text(), latest);
        }
    }

    // The dialog follows the view model while open and calls its two functions as they are set.
    void helpDialog()
    {
        auto model = std::make_shared<HelpDialogViewModel>();
        QSignalSpy changed(model.get(), &HelpDialogViewModel::latestVersionChanged);
        HelpDialog dialog(model);
        dialog.show();
        auto* update = dialog.findChild<QPushButton*>("updateBtn");
        auto* send = dialog.findChild<QPushButton*>("pushButton_send");
        QVERIFY(!update->isVisible());
        send->click(); // no function set: nothing to call

        int updates = 0;
        QStringList sent;
        model->setUpdateHandler([&] { ++updates; });
        model->setFeedbackHandler([&](QString msg, QString contact) { sent << msg + "|" + contact; });
        model->setUpdateHandler({}); // an empty one leaves the one there
        model->setLatestVersion("0.2.0.230901");
        model->setLatestVersion("0.2.0.230901");
        QCOMPARE(changed.size(), 1);
        QVERIFY(update->isVisible());
        QCOMPARE(dialog.findChild<QLabel*>("latestVerLabel")->text(), QString("0.2.0.230901"));
        QTest::mouseClick(update, Qt::LeftButton);
        QCOMPARE(updates, 1);

        auto* tabs = dialog.findChild<SliderBar*>("sliderBar");
        tabs->setCurrentIndex(1);
        QCOMPARE(dialog.findChild<QStackedWidget*>("stackedWidget")->currentWidget()->objectName(),
                 QString("page_2"));
        send->click(); // both fields empty: sent all the same
        dialog.findChild<QTextEdit*>("userMsgEdit")->setPlainText("光不亮");
        QTest::keyClicks(dialog.findChild<QLineEdit*>("userContactInfoEdit"), "me@orvanta.example");
        send->click();
        dialog.findChild<QCheckBox*>("checkBox_2")->setChecked(true);
        send->click();
        QCOMPARE(sent, QStringList({"|", "光不亮|me@orvanta.example", "光不亮|me@orvanta.example"}));
        QVERIFY(dialog.isVisible());
        QCOMPARE(dialog.findChild<QTextEdit*>("userMsgEdit")->toPlainText(), QString("光不亮"));
        QCOMPARE(dialog.findChild<QLabel*>("label_email")->text().contains("mailto:"), true);
    }

public slots:
    void record(const QUrl& url) { opened << url; }
};

QTEST_MAIN(TestOnline)
#include "tst_Online.moc"
