#include "DebianPackage.h"
#include "LocalHttpsService.h"
#include "LogCapture.h"
#include "StallProbe.h"
#include "TestFiles.h"
#include "service/config/ConfigurationManager.h"
#include "service/net/CompareVersion.h"
#include "service/net/FeedbackManager.h"
#include "service/net/NetRCManager.h"
#include "service/net/ServiceHttp.h"
#include "service/net/ServiceProxyFactory.h"
#include "service/net/VersionDocument.h"

#include <QCryptographicHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

#include <memory>

namespace {
constexpr int kWaitMs = 20000;
// The stall a window would show; a call that waits on the network blocks for seconds.
constexpr qint64 kStallLimitMs = 2000;
const QString kRunning = QStringLiteral("0.2.0.230805");
const QString kNewer = QStringLiteral("0.2.0.230901");
const QString kLatest = QStringLiteral("/v1/linux-%1/latest.json").arg(ServiceHttp::architecture());

QByteArray hexSha(const QByteArray& bytes)
{
    return QCryptographicHash::hash(bytes, QCryptographicHash::Sha256).toHex();
}

QByteArray document(const QString& version, const QString& url, const QByteArray& sha, qint64 size)
{
    return QJsonDocument(QJsonObject{{"version", version},
                                     {"url", url},
                                     {"sha256", QString::fromLatin1(sha)},
                                     {"size", size},
                                     {"notes", "n"}})
        .toJson();
}

void forgetLatest()
{
    ConfigurationManager::instance()->setGlobalValue(QStringLiteral("latestVerion"), QJsonValue::Undefined);
    ConfigurationManager::instance()->setGlobalValue(QStringLiteral("serviceUrl"), QJsonValue::Undefined);
}

QString storedLatest()
{
    return ConfigurationManager::instance()->globalValue("latestVerion/version").toString();
}
} // namespace

// The network half of the service layer against a local HTTPS service with real TLS.
class TestNet : public QObject
{
    Q_OBJECT
private:
    LocalHttpsService service;
    QTemporaryDir packages;
    QByteArray good, otherName, otherVersion;

    // A manager pointed at the service (or at `base`) and trusting its CA.
    std::unique_ptr<NetRCManager> manager(const QString& base = QString())
    {
        qputenv("ORVANTA_SERVICE_URL", (base.isNull() ? service.baseUrl().toString() : base).toUtf8());
        qputenv("ORVANTA_SERVICE_CA", service.caFile().toUtf8());
        return std::make_unique<NetRCManager>();
    }

    QString closedPortUrl()
    {
        LocalHttpsService gone;
        return gone.start() ? gone.baseUrl().toString() : QString();
    }

    // Announces `version` at a package route and checks until the manager knows it.
    void announce(NetRCManager& net, const QByteArray& sha, qint64 size, const QString& url = "package.deb")
    {
        service.setRoute(kLatest, ScriptedReply::json(document(kNewer, url, sha, size)));
        QSignalSpy newer(&net, &NetRCManager::hasNewAppVersion);
        net.checkVersion();
        QTRY_COMPARE_WITH_TIMEOUT(newer.size(), 1, kWaitMs);
    }

private slots:
    void initTestCase()
    {
        QCoreApplication::setApplicationVersion(kRunning);
        QVERIFY2(service.start(), qPrintable(service.errorString()));
        good = makeDebianPackage(packages.path(), "orvanta", kNewer);
        otherName = makeDebianPackage(packages.path(), "other", kNewer);
        otherVersion = makeDebianPackage(packages.path(), "orvanta", "0.2.0.230902");
        QVERIFY(!good.isEmpty() && !otherName.isEmpty() && !otherVersion.isEmpty());
    }

    void init()
    {
        service.setSecurity(LocalHttpsService::Security::Trusted);
        service.clearRoutes();
        service.clearRecords();
        ServiceHttp::setTimeouts({});
        forgetLatest();
        QDir(NetRCManager::updatesFolder()).removeRecursively();
    }

    void compareVersion_data()
    {
        QTest::addColumn<QString>("a");
        QTest::addColumn<bool>("aNewer");
        QTest::addColumn<QString>("b");
        QTest::addColumn<bool>("bNewer");
        QTest::newRow("later build") << kNewer << true << kRunning << false;
        QTest::newRow("equal") << kRunning << false << kRunning << false;
        QTest::newRow("0.10 against 0.9: text order lies") << "0.10.0.1" << true << "0.9.0.1" << false;
        QTest::newRow("230901 against 1230805: text order lies")
            << kNewer << false << "0.2.0.1230805" << true;
        QTest::newRow("leading zeros are equal") << "0.2.0.0230805" << false << kRunning << false;
        QTest::newRow("nine digits") << "0.2.0.999999999" << true << kRunning << false;
        QTest::newRow("ten digits") << "0.2.0.1000000000" << false << kRunning << false;
        QTest::newRow("three parts") << "0.3.0" << false << kRunning << false;
        QTest::newRow("five parts") << "0.3.0.1.1" << false << kRunning << false;
        QTest::newRow("empty part") << "0..0.1" << false << "0.0.0.0" << false;
        QTest::newRow("letters") << "0.3.0.1a" << false << kRunning << false;
        QTest::newRow("sign") << "0.3.0.+1" << false << kRunning << false;
        QTest::newRow("v prefix") << "v0.3.0.1" << false << kRunning << false;
        QTest::newRow("space, which toUInt() takes") << "0.3.0.1 " << false << kRunning << false;
    }
    void compareVersion()
    {
        QFETCH(QString, a);
        QFETCH(bool, aNewer);
        QFETCH(QString, b);
        QFETCH(bool, bNewer);
        QCOMPARE(::compareVersion(a, b), aNewer);
        QCOMPARE(::compareVersion(b, a), bNewer);
    }

    void urlRule_data()
    {
        QTest::addColumn<QString>("url");
        QTest::addColumn<bool>("allowed");
        QTest::newRow("https to any host") << "https://updates.orvanta.example/v1/x" << true;
        QTest::newRow("http to 127.0.0.1") << "http://127.0.0.1:8080/x" << true;
        QTest::newRow("http to [::1]") << "http://[::1]:8080/x" << true;
        QTest::newRow("http to localhost") << "http://localhost/x" << false;
        QTest::newRow("http to a name starting 127.0.0.1") << "http://127.0.0.1.orvanta.example/" << false;
        QTest::newRow("http elsewhere") << "http://updates.orvanta.example/x" << false;
        QTest::newRow("file") << "file:///etc/passwd" << false;
        QTest::newRow("ftp") << "ftp://updates.orvanta.example/x" << false;
        QTest::newRow("https without host") << "https:///x" << false;
        QTest::newRow("relative") << "images/a.png" << false;
    }
    void urlRule()
    {
        QFETCH(QString, url);
        QFETCH(bool, allowed);
        QString why;
        QCOMPARE(ServiceHttp::urlAllowed(QUrl(url), &why), allowed);
        QCOMPARE(why.isEmpty(), allowed);
        // A redirect keeps to the rule, and from https never to http, even to the loopback.
        QCOMPARE(ServiceHttp::redirectAllowed(QUrl("https://a.example/"), QUrl(url)),
                 allowed && url.startsWith("https"));
    }

    void versionDocument_data()
    {
        QTest::addColumn<QString>("url"); // resolved, or empty when refused
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<QString>("cause");
        const QString p = "https://s.example/v1/p.deb";
        const auto doc = [](qint64 size, const QString& url = "p.deb",
                            const QByteArray& sha = QByteArray(64, 'a')) {
            return document(kNewer, url, sha, size);
        };
        QTest::newRow("sound, relative url") << p << doc(10) << "";
        QTest::newRow("up two folders") << "https://s.example/.bashrc" << doc(10, "../../.bashrc") << "";
        QTest::newRow("512 MiB") << p << doc(512 * 1024 * 1024) << "";
        QTest::newRow("unknown keys") << p << doc(10).replace("{", "{\"x\":[1],") << "";
        QTest::newRow("garbage") << QString() << QByteArray("<html>") << "not JSON";
        QTest::newRow("an array") << QString() << QByteArray("[1]") << "not a JSON object";
        QTest::newRow("version a number")
            << QString() << doc(10).replace("\"0.2.0.230901\"", "20230901") << "\"version\"";
        QTest::newRow("sha256 of 63 digits")
            << QString() << doc(10, "p.deb", QByteArray(63, 'a')) << "\"sha256\"";
        QTest::newRow("sha256 not hex") << QString() << doc(10, "p.deb", QByteArray(64, 'g')) << "\"sha256\"";
        QTest::newRow("size 0") << QString() << doc(0) << "\"size\"";
        QTest::newRow("size 512 MiB + 1") << QString() << doc(512 * 1024 * 1024 + 1) << "\"size\"";
        QTest::newRow("size 1.5") << QString() << doc(10).replace(": 10", ": 1.5") << "\"size\"";
        QTest::newRow("size a string") << QString() << doc(10).replace(": 10", ": \"10\"") << "\"size\"";
        QTest::newRow("url to http elsewhere") << QString() << doc(10, "http://s.example/p.deb") << "\"url\"";
    }
    void versionDocument()
    {
        QFETCH(QString, url);
        QFETCH(QByteArray, body);
        QFETCH(QString, cause);
        QString error;
        const VersionDocument parsed =
            VersionDocument::parse(body, QUrl("https://s.example/v1/latest.json"), &error);
        QCOMPARE(parsed.isValid(), cause.isEmpty());
        QCOMPARE(parsed.url.toString(), url);
        QVERIFY2(error.contains(cause), qPrintable(error));
    }

    void baseChoice_data()
    {
        QTest::addColumn<QString>("environment");
        QTest::addColumn<QJsonValue>("stored");
        QTest::addColumn<QString>("base");
        QTest::addColumn<bool>("refused");
        QTest::addColumn<QString>("builtIn");
        const QJsonValue none;
        QTest::newRow("environment first") << "https://e.example/" << QJsonValue("https://s.example")
                                           << "https://e.example" << false << "https://b.example";
        QTest::newRow("stored next") << " " << QJsonValue("https://s.example/api/") << "https://s.example/api"
                                     << false << "https://b.example";
        QTest::newRow("the build's last")
            << "" << none << "https://b.example" << false << "https://b.example";
        QTest::newRow("none") << "" << none << "" << false << "";
        QTest::newRow("environment off") << "off" << QJsonValue("https://s.example") << "" << false << "";
        QTest::newRow("stored OFF") << "" << QJsonValue("OFF") << "" << false << "https://b.example";
        QTest::newRow("stored not a string") << "" << QJsonValue(7) << "" << true << "https://b.example";
        QTest::newRow("refused scheme") << "ftp://e.example" << none << "" << true << "";
    }
    void baseChoice()
    {
        QFETCH(QString, environment);
        QFETCH(QJsonValue, stored);
        QFETCH(QString, base);
        QFETCH(bool, refused);
        QFETCH(QString, builtIn);
        const ServiceHttp::Base chosen = ServiceHttp::chooseBase(environment, stored, builtIn);
        QCOMPARE(chosen.url.toString(), base);
        QCOMPARE(chosen.refused, refused);
        QCOMPARE(chosen.problem.isEmpty(), !base.isEmpty());
    }

    void proxy_data()
    {
        QTest::addColumn<QString>("url");
        QTest::addColumn<QByteArray>("httpsProxy");
        QTest::addColumn<QByteArray>("noProxy");
        QTest::addColumn<QString>("proxy"); // host:port, or empty for none
        QTest::newRow("https through it") << "https://s.example/" << QByteArray("http://p.example:8080")
                                          << QByteArray() << "p.example:8080";
        QTest::newRow("no_proxy domain") << "https://a.s.example/" << QByteArray("p.example:1")
                                         << QByteArray("x.example, .s.example") << "";
        QTest::newRow("loopback never")
            << "https://127.0.0.1:9/" << QByteArray("p.example:1") << QByteArray() << "";
        QTest::newRow("socks unused")
            << "https://s.example/" << QByteArray("socks5://p.example:1") << QByteArray() << "";
    }
    void proxy()
    {
        QFETCH(QString, url);
        QFETCH(QByteArray, httpsProxy);
        QFETCH(QByteArray, noProxy);
        QFETCH(QString, proxy);
        const QNetworkProxy p = ServiceProxyFactory::proxyFor(QUrl(url), httpsProxy, noProxy);
        QCOMPARE(p.type() == QNetworkProxy::NoProxy ? QString()
                                                    : p.hostName() + ':' + QString::number(p.port()),
                 proxy);
    }

    // Each failure stores and announces nothing, says why in one warning, and never stalls.
    void versionCheck_data()
    {
        QTest::addColumn<QString>("setup");
        QTest::addColumn<bool>("newer");
        QTest::addColumn<QString>("cause"); // empty: no warning
        QTest::newRow("newer") << "newer" << true << "";
        QTest::newRow("newer behind three redirects") << "moved" << true << "";
        QTest::newRow("same") << "same" << false << "";
        QTest::newRow("older") << "older" << false << "";
        QTest::newRow("closed port") << "closed" << false << "connection refused";
        QTest::newRow("garbage") << "garbage" << false << "not JSON";
        QTest::newRow("wrong types") << "types" << false << "refused key \"version\"";
        QTest::newRow("1 MiB body without a length") << "1 MiB" << false << "body goes past the 65536 bytes";
        QTest::newRow("Content-Length of 1 GiB") << "1 GiB" << false << "Content-Length 1073741824";
        QTest::newRow("one byte a second") << "slow" << false << "time-out";
        QTest::newRow("untrusted certificate") << "untrusted" << false << "TLS error";
        QTest::newRow("redirect to http") << "redirect" << false << "from https to http";
        QTest::newRow("redirect to itself") << "loop" << false << "too many redirects";
    }
    void versionCheck()
    {
        QFETCH(QString, setup);
        QFETCH(bool, newer);
        QFETCH(QString, cause);
        const QByteArray sha = hexSha(good);
        const QMap<QString, QString> versions{
            {"newer", kNewer}, {"same", kRunning}, {"older", "0.2.0.230804"}};
        ScriptedReply reply = ScriptedReply::json(document(versions.value(setup, kNewer), "p.deb", sha, 10));
        if (setup == "garbage") {
            reply.body = "<html>not json</html>";
        } else if (setup == "types") {
            reply.body = R"({"version": 20230901, "url": 1, "sha256": [], "size": "10"})";
        } else if (setup == "1 MiB") {
            reply.body = QByteArray(1024 * 1024, ' ');
            reply.contentLength = ScriptedReply::kNoLength;
        } else if (setup == "1 GiB") {
            reply.contentLength = qint64(1) << 30;
        } else if (setup == "slow") {
            ServiceHttp::setTimeouts({2000, 2000, 2000});
            reply.chunkBytes = 1;
            reply.chunkIntervalMs = 1000;
        } else if (setup == "redirect") {
            reply =
                ScriptedReply::redirect(302, "http://127.0.0.1:" + QByteArray::number(service.port()) + "/x");
        } else if (setup == "loop") {
            reply = ScriptedReply::redirect(302, kLatest.toUtf8());
        } else if (setup == "moved") {
            service.setRoute("/moved3.json", reply);
            service.setRoute("/moved2.json", ScriptedReply::redirect(307, "moved3.json"));
            service.setRoute("/moved1.json", ScriptedReply::redirect(302, "/moved2.json"));
            reply = ScriptedReply::redirect(301, "/moved1.json");
        } else if (setup == "untrusted") {
            service.setSecurity(LocalHttpsService::Security::Untrusted);
        }
        service.setRoute(kLatest, reply);
        LogCapture log;
        auto net = manager(setup == "closed" ? closedPortUrl() : QString());
        QSignalSpy announced(net.get(), &NetRCManager::hasNewAppVersion);
        StallProbe probe;
        net->checkVersion();
        const QString done =
            cause.isEmpty() ? (newer ? "A newer version" : "No newer version") : "Version check failed";
        QTRY_VERIFY_WITH_TIMEOUT(log.contains(done), kWaitMs);
        qInfo("%s: the main loop was held up %lld ms at most", qPrintable(setup), probe.worstLateMs());
        QVERIFY(probe.worstLateMs() < kStallLimitMs);
        QCOMPARE(announced.size(), newer ? 1 : 0);
        QCOMPARE(storedLatest(), newer ? kNewer : QString());
        QCOMPARE(log.count("[NetRCManager]", QtWarningMsg), cause.isEmpty() ? 0 : 1);
        QVERIFY2(cause.isEmpty() || log.count(cause, QtWarningMsg) == 1, qPrintable(log.lines().join('\n')));
        QVERIFY(cause.isEmpty() || log.count(service.baseUrl().host(), QtWarningMsg) == 1);
    }

    // Only a package of the size, hash, name and version announced lands, under the program's name.
    void download_data()
    {
        QTest::addColumn<QString>("setup");
        QTest::addColumn<bool>("lands");
        QTest::addColumn<QString>("cause");
        QTest::newRow("good") << "good" << true << "";
        QTest::newRow("url up to ~/.bashrc") << "bashrc" << true << "";
        QTest::newRow("hash mismatch") << "hash" << false << "SHA-256 mismatch";
        QTest::newRow("short body") << "short" << false << "short";
        QTest::newRow("long body") << "long" << false << "goes past";
        QTest::newRow("cut connection") << "cut" << false << "closed by the server";
        QTest::newRow("other Package") << "name" << false << "\"other\"";
        QTest::newRow("other Version") << "version" << false << "0.2.0.230902";
    }
    void download()
    {
        QFETCH(QString, setup);
        QFETCH(bool, lands);
        QFETCH(QString, cause);
        const QByteArray served = setup == "name" ? otherName : setup == "version" ? otherVersion : good;
        ScriptedReply package;
        package.body = served;
        QByteArray sha = hexSha(served);
        qint64 size = served.size();
        if (setup == "hash") {
            sha = QByteArray(64, '0');
        } else if (setup == "short") {
            package.body.chop(100);
        } else if (setup == "long") {
            package.body += "x";
            package.contentLength = ScriptedReply::kNoLength;
        } else if (setup == "cut") {
            package.cutAfterBytes = served.size() / 2;
        }
        const QString path = setup == "bashrc"
                                 ? QString("/.bashrc")
                                 : QString("/v1/linux-" + ServiceHttp::architecture() + "/package.deb");
        service.setRoute(path, package);
        LogCapture log;
        auto net = manager();
        announce(*net, sha, size, setup == "bashrc" ? "../../.bashrc" : "package.deb");
        QSignalSpy landed(net.get(), &NetRCManager::newInstallationFileDownloaded);
        StallProbe probe;
        net->downloadLatestApp();
        QTRY_VERIFY_WITH_TIMEOUT(!landed.isEmpty() || log.contains("Download failed"), kWaitMs);
        qInfo("%s: the main loop was held up %lld ms at most", qPrintable(setup), probe.worstLateMs());
        QVERIFY(probe.worstLateMs() < kStallLimitMs);
        const QString file =
            NetRCManager::updatesFolder() + "/orvanta_" + kNewer + "_" + ServiceHttp::architecture() + ".deb";
        const QStringList left = QDir(NetRCManager::updatesFolder()).entryList(QDir::Files | QDir::Hidden);
        if (lands) {
            QCOMPARE(landed.size(), 1);
            QCOMPARE(landed.first().first().toString(), file);
            QCOMPARE(TestFiles::read(file), good);
            QCOMPARE(left, QStringList(QFileInfo(file).fileName()));
        } else {
            QVERIFY2(left.isEmpty(), qPrintable(left.join(' ')));
            QVERIFY2(log.count(cause, QtWarningMsg) == 1, qPrintable(log.lines().join('\n')));
            QTest::qWait(100);
            QVERIFY(landed.isEmpty());
        }
        QCOMPARE(log.count("Download failed", QtWarningMsg), cause.isEmpty() ? 0 : 1);
        QVERIFY(!QFile::exists(QDir::homePath() + "/.bashrc"));
        // The next check clears what this one left.
        net->checkVersion();
        QCOMPARE(QDir(NetRCManager::updatesFolder()).entryList(QDir::Files | QDir::Hidden), QStringList());
    }

    // No package request before a newer version is known, and one only while a download runs.
    void downloadOnlyOnce()
    {
        const QString path = "/v1/linux-" + ServiceHttp::architecture() + "/package.deb";
        ScriptedReply slow;
        slow.body = good;
        slow.chunkBytes = 4096;
        slow.chunkIntervalMs = 20;
        service.setRoute(path, slow);
        auto net = manager();
        net->downloadLatestApp();
        announce(*net, hexSha(good), good.size());
        QSignalSpy landed(net.get(), &NetRCManager::newInstallationFileDownloaded);
        net->downloadLatestApp();
        net->downloadLatestApp();
        QTRY_COMPARE_WITH_TIMEOUT(landed.size(), 1, kWaitMs);
        int packageRequests = 0;
        for (const RecordedRequest& r : service.requests()) {
            packageRequests += r.path == path.toUtf8() ? 1 : 0;
        }
        QCOMPARE(packageRequests, 1);
    }

    // Exactly one function runs, on the main thread, after the call returned; the texts reach the
    // server as six keys, though their carrier died at once.
    void feedback_data()
    {
        QTest::addColumn<QString>("setup");
        QTest::addColumn<int>("error"); // QNetworkReply::NoError: the success function
        QTest::newRow("sent") << "sent" << int(QNetworkReply::NoError);
        QTest::newRow("HTTP 500") << "500" << int(QNetworkReply::InternalServerError);
        QTest::newRow("time-out") << "slow" << int(QNetworkReply::TimeoutError);
        QTest::newRow("closed port") << "closed" << int(QNetworkReply::ConnectionRefusedError);
        QTest::newRow("untrusted certificate") << "untrusted" << int(QNetworkReply::SslHandshakeFailedError);
        QTest::newRow("manager destroyed in flight")
            << "destroyed" << int(QNetworkReply::OperationCanceledError);
        QTest::newRow("services off") << "off" << int(QNetworkReply::ProtocolUnknownError);
        QTest::newRow("no feedback") << "null" << int(QNetworkReply::ProtocolInvalidOperationError);
    }
    void feedback()
    {
        QFETCH(QString, setup);
        QFETCH(int, error);
        ScriptedReply reply = ScriptedReply::json("{}", setup == "500" ? 500 : 201);
        if (setup == "slow") {
            ServiceHttp::setTimeouts({1000, 1000, 1000});
            reply.delayMs = 3000;
        } else if (setup == "destroyed") {
            reply.delayMs = 60000;
        } else if (setup == "untrusted") {
            service.setSecurity(LocalHttpsService::Security::Untrusted);
        }
        service.setRoute("/v1/feedback", reply);
        ConfigurationManager::instance()->AppConfigJsonObj().insert("language", "en");
        bool returned = false;
        QStringList calls;
        const auto record = [&](const QString& what) {
            calls << what + (returned ? "" : " inside the call") +
                         (QThread::currentThread() == qApp->thread() ? "" : " off the main thread");
        };
        LogCapture log;
        auto net = manager(setup == "closed" ? closedPortUrl() : setup == "off" ? "off" : QString());
        const QString message = QString::fromUtf8("灯带不亮了 \"quoted\"\n");
        {
            auto feedback = std::make_unique<FeedbackManager>();
            feedback->setUserMsg(message);
            feedback->setUserContactInfo("me@orvanta.example");
            net->sendFeedback(
                setup == "null" ? nullptr : QPointer<FeedbackManager>(feedback.get()),
                [&] { record("success"); },
                [&](QNetworkReply::NetworkError e) { record("error " + QString::number(e)); });
            returned = true;
        }
        if (setup == "destroyed") {
            QTRY_COMPARE_WITH_TIMEOUT(service.requestCount(), 1, kWaitMs);
            net.reset();
        }
        const QString expected =
            error == QNetworkReply::NoError ? QString("success") : QString("error " + QString::number(error));
        QTRY_COMPARE_WITH_TIMEOUT(calls, QStringList(expected), kWaitMs);
        QTest::qWait(200);
        QCOMPARE(calls, QStringList(expected));
        QVERIFY(!log.lines().join('\n').contains(QString::fromUtf8("灯带")));
        if (setup == "sent") {
            const QJsonObject sent = QJsonDocument::fromJson(service.requests().last().body).object();
            QCOMPARE(sent.keys(),
                     QStringList({"appVersion", "arch", "contact", "language", "message", "os"}));
            QCOMPARE(sent.value("message").toString(), message);
            QCOMPARE(sent.value("language").toString(), QString("en"));
            QCOMPARE(sent.value("appVersion").toString(), kRunning);
            QCOMPARE(service.requests().last().header("Content-Type"), QByteArray("application/json"));
            QCOMPARE(service.requests().last().header("User-Agent"),
                     "Orvanta/" + kRunning.toUtf8() + " (Linux; " + ServiceHttp::architecture().toUtf8() +
                         ")");
        }
        if (setup == "off" || setup == "null") {
            QCOMPARE(service.connectionCount(), 0);
        }
    }

    // A message too long for 64 KiB is shortened, the rest stays whole.
    void feedbackFits()
    {
        const QString message = QString(40000, QChar(0x706f)); // 120000 bytes in UTF-8
        const QByteArray body = NetRCManager::feedbackDocument(message, "c");
        QVERIFY(body.size() <= 64 * 1024 && body.size() > 60 * 1024);
        const QJsonObject sent = QJsonDocument::fromJson(body).object();
        QVERIFY(message.startsWith(sent.value("message").toString()));
        QCOMPARE(sent.value("contact").toString(), QString("c"));
    }
};

QTEST_GUILESS_MAIN(TestNet)
#include "tst_Net.moc"
