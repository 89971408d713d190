#include "ConfigurationManager.h"
#include "TestFiles.h"

#include <QJsonArray>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>
#include <QUrl>

#include <signal.h>

using TestFiles::read;
using TestFiles::readJson;

// The configuration store on its real folder.
class TestConfiguration : public QObject
{
    Q_OBJECT

    ConfigurationManager* store = ConfigurationManager::instance();

private slots:
    void init()
    {
        store->reset();
        QDir(store->configPath()).removeRecursively(); // set-aside copies too
    }

    // The four-string read: the store first, then the defaults file; a null key gives the whole
    // entry, or the whole file.
    void effectValueDefaultsFile()
    {
        QTemporaryDir dir;
        const QString file = dir.filePath("defaults.json");
        QVERIFY(TestFiles::write(file, R"({"list": [1, 2]})"));
        const QJsonValue fromFile(QJsonArray{1, 2});
        QCOMPARE(store->effectJsonValue("com.x.y", "__all__", "list", file), fromFile);
        QCOMPARE(store->effectJsonValue("com.x.y", "__all__", QString(), file),
                 QJsonValue(QJsonObject({{"list", fromFile}})));
        QVERIFY(
            store->effectJsonValue("com.x.y", "__all__", "list", dir.filePath("none.json")).isUndefined());
        store->setEffectJsonValue("com.x.y", "__all__", "other", 1);
        QCOMPARE(store->effectJsonValue("com.x.y", "__all__", "list", file), fromFile);
        store->setEffectJsonValue("com.x.y", "__all__", "list", 9);
        QCOMPARE(store->effectJsonValue("com.x.y", "__all__", "list", file), QJsonValue(9));
        QCOMPARE(store->effectJsonValue("com.x.y", "__all__", QString(), file),
                 QJsonValue(QJsonObject({{"other", 1}, {"list", 9}})));
    }

    void corruptFileIsSetAside_data()
    {
        QTest::addColumn<QString>("relativePath");
        QTest::newRow("global") << "global.json";
        QTest::newRow("app") << "app.json";
        QTest::newRow("controller") << "controllers/OV5512%3AA1.json";
        QTest::newRow("effect") << "effects/com.orvanta.colorful.flowing.json";
    }

    // Unparsable: renamed aside with a warning, the scope at its defaults, and the copy never
    // overwritten by the values saved next.
    void corruptFileIsSetAside()
    {
        QFETCH(QString, relativePath);
        const QString path = store->configPath() + "/" + relativePath;
        const QByteArray bytes = R"({"fresh": 1.)";
        QVERIFY(TestFiles::write(path, bytes));
        QTest::ignoreMessage(QtWarningMsg,
                             QRegularExpression(R"(^\[ConfigurationManager\] Set aside unreadable file)"));
        const QJsonValue values[] = {
            store->globalValue("fresh"), store->AppConfigJsonObj().value("fresh"),
            store->controllerJsonObj("OV5512:A1").value("fresh"),
            store->effectJsonValue("com.orvanta.colorful.flowing", "OV5512:A1", "fresh")};
        for (const QJsonValue& value : values) {
            QVERIFY(value.isUndefined());
        }
        const QFileInfo info(path);
        const QStringList aside = info.dir().entryList({info.fileName() + ".corrupt-*"}, QDir::Files);
        QCOMPARE(aside.size(), 1);
        store->setGlobalValue("fresh", 2);
        store->AppConfigJsonObj().insert("fresh", 2);
        store->controllerJsonObj("OV5512:A1").insert("fresh", 2);
        store->setEffectJsonValue("com.orvanta.colorful.flowing", "OV5512:A1", "fresh", 2);
        store->save();
        QVERIFY(QJsonDocument::fromJson(read(path)).isObject());
        QCOMPARE(read(info.dir().filePath(aside.first())), bytes);
    }

    // A controller key comes from a device's reply: whatever it holds, its file stays in the
    // controllers folder.
    void deviceKeyStaysInItsFolder()
    {
        const QString key = QStringLiteral("OV/../../../escaped:..");
        store->controllerJsonObj(key).insert("nbLeds", 3);
        store->saveControllerJsonObj(key);
        store->flush();
        const QStringList files = QDir(store->configPath() + "/controllers").entryList(QDir::Files);
        QCOMPARE(files, QStringList{QString::fromLatin1(QUrl::toPercentEncoding(key)) + ".json"});
        QVERIFY(!QFile::exists(store->configPath() + "/../escaped:...json")); // where the raw key leads
    }

    void resetForgetsEverything()
    {
        store->setGlobalValue(QStringList{"lastBinding", "a", "b"}, "c");
        store->AppConfigJsonObj().insert("language", "en");
        store->setEffectJsonValue("com.x.y", "OV5512:A1", "speed", 3);
        store->save();
        // Asked for and not yet written: the wipe must win.
        store->controllerJsonObj("OV5512:A1").insert("nbLeds", 11);
        store->saveControllerJsonObj("OV5512:A1");
        store->reset();
        QVERIFY(store->globalValue("lastBinding").isUndefined());
        QVERIFY(store->AppConfigJsonObj().isEmpty());
        QVERIFY(store->controllerJsonObj("OV5512:A1").isEmpty());
        QVERIFY(store->effectJsonValue("com.x.y", "OV5512:A1", "speed").isUndefined());
        store->flush();
        QVERIFY(!QDirIterator(store->configPath(), {"*.json"}, QDir::Files, QDirIterator::Subdirectories)
                     .hasNext());
    }

    // Screen workers read and write effect values from their own thread.
    void concurrentEffectAccess()
    {
        const QString shared = "com.orvanta.screenSync.fullScreen";
        // The worker through the variant calls, this thread through the JSON calls.
        QThread* worker = QThread::create([this, shared] {
            for (int i = 0; i < 300; ++i) {
                store->setEffectVariant(shared, "worker", "n", i);
                store->effectVariant(shared, "worker", "n");
                if (i % 25 == 0) {
                    store->saveEffectJsonObj(shared);
                }
            }
        });
        worker->start();
        for (int i = 0; i < 300; ++i) {
            store->setEffectJsonValue(shared, "main", "n", i);
            QCOMPARE(store->effectJsonValue(shared, "main", "n"), QJsonValue(i));
            if (i % 25 == 0) {
                store->saveEffectJsonObj(shared);
            }
        }
        QVERIFY(worker->wait(60000));
        delete worker;
        // Neither thread's writes were lost to the other's.
        store->save();
        const QJsonObject onDisk = readJson(store->configPath() + "/effects/" + shared + ".json");
        QCOMPARE(onDisk.value("main").toObject().value("n"), QJsonValue(299));
        QCOMPARE(onDisk.value("worker").toObject().value("n"), QJsonValue(299));
    }

    // A process killed at different points of its saves leaves every file whole, holding the last
    // round it reported or the one in progress.
    void killedWriterLeavesWholeFiles()
    {
        for (int target : {3, 17, 40}) {
            QTemporaryDir home;
            QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
            env.insert("XDG_CONFIG_HOME", home.filePath("config"));
            QProcess child;
            child.setProcessEnvironment(env);
            child.start(CONFIG_SAVE_LOOP_PATH, QStringList());
            QByteArray out;
            QTRY_VERIFY_WITH_TIMEOUT((out += child.readAllStandardOutput(), out.count('\n') >= target),
                                     60000);
            QCOMPARE(::kill(pid_t(child.processId()), SIGKILL), 0);
            QVERIFY(child.waitForFinished(30000));
            out += child.readAllStandardOutput();
            const qint64 lastSaved = out.trimmed().split('\n').last().mid(6).toLongLong();
            const QString root = home.filePath("config/config_save_loop/");
            for (const char* name : {"global.json", "app.json", "controllers/OV5512%3AA1.json"}) {
                const qint64 round = readJson(root + name).value("round").toVariant().toLongLong();
                QVERIFY2(round == lastSaved || round == lastSaved + 1, qPrintable(name));
            }
            const QJsonObject effect = readJson(root + "effects/com.orvanta.test.effect.json");
            const qint64 round = effect.value("OV5512:A1").toObject().value("round").toVariant().toLongLong();
            QVERIFY(round == lastSaved || round == lastSaved + 1);
        }
    }
};

QTEST_GUILESS_MAIN(TestConfiguration)
#include "tst_Configuration.moc"
