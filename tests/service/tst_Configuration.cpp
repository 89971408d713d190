#include "ConfigurationManager.h"
#include "LogCapture.h"
#include "TestFiles.h"

#include <QCoreApplication>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

#include <signal.h>

#include <atomic>

namespace {

using TestFiles::read;
using TestFiles::readJson;

void writeBytes(const QString& path, const QByteArray& bytes)
{
    QVERIFY(TestFiles::write(path, bytes));
}

QStringList storeFiles()
{
    ConfigurationManager::instance()->flush();
    QStringList files;
    QDirIterator all(ConfigurationManager::instance()->configPath(), {"*.json"}, QDir::Files | QDir::Hidden,
                     QDirIterator::Subdirectories);
    while (all.hasNext()) {
        files << all.next();
    }
    return files;
}

} // namespace

class TestConfiguration : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        store->reset();
        // Start every case from an empty folder, set-aside copies included.
        QDir(store->configPath()).removeRecursively();
    }

    void globalPaths()
    {
        store->setGlobalValue("lastBinding", QJsonObject{{"a", QJsonObject{{"c", "old"}}}});
        store->setGlobalValue("scalar", "text");
        store->setGlobalValue(QStringList{"lastBinding", "a", "b"}, "x");
        store->setGlobalValue(QStringList{"scalar", "a"}, "y"); // a level in the way becomes an object
        QCOMPARE(store->globalValue("lastBinding/a/b"), QJsonValue("x"));
        QCOMPARE(store->globalValue("lastBinding/a/c"), QJsonValue("old"));
        QCOMPARE(store->globalValue("scalar/a"), QJsonValue("y"));
        QVERIFY(store->globalValue("lastBinding/a/b/deeper").isUndefined());
    }

    void absentEffectVariantFailsToUInt()
    {
        const QString id = "com.orvanta.singleColor.singleColor";
        store->setEffectJsonValue(id, "OV5512:A1", "nullKey", QJsonValue());
        for (const char* key : {"color", "nullKey"}) {
            const QVariant v = store->effectVariant(id, "OV5512:A1", key);
            bool ok = true;
            v.toUInt(&ok);
            QVERIFY(!ok);
            QCOMPARE(v.toDouble(), 0.0);
        }
        store->setEffectVariant(id, "OV5512:A1", "color", 0xff112233u);
        bool ok = false;
        QCOMPARE(store->effectVariant(id, "OV5512:A1", "color").toUInt(&ok), 0xff112233u);
        QVERIFY(ok);
    }

    void effectValueDefaultsFile_data()
    {
        QTest::addColumn<QJsonValue>("storedEntry"); // undefined: no entry for the controller
        QTest::addColumn<QString>("key");            // null: whole entry or file
        QTest::addColumn<bool>("withFile");
        QTest::addColumn<QJsonValue>("expected");
        const QJsonValue undefined(QJsonValue::Undefined);
        const QJsonObject entry{{"colorStrapList", QJsonArray{9}}};
        QTest::newRow("store wins") << QJsonValue(entry) << "colorStrapList" << true
                                    << QJsonValue(QJsonArray{9});
        QTest::newRow("file when key absent") << QJsonValue(QJsonObject{{"other", 1}}) << "colorStrapList"
                                              << true << QJsonValue(QJsonArray{1, 2});
        QTest::newRow("null key, whole file")
            << undefined << QString() << true
            << QJsonValue(QJsonObject{{"colorStrapList", QJsonArray{1, 2}}});
        QTest::newRow("no file") << undefined << "colorStrapList" << false << undefined;
    }

    void effectValueDefaultsFile()
    {
        QFETCH(QJsonValue, storedEntry);
        QFETCH(QString, key);
        QFETCH(bool, withFile);
        QFETCH(QJsonValue, expected);
        QTemporaryDir dir;
        const QString path = dir.filePath("defaults.json");
        if (withFile) {
            writeBytes(path, R"({"colorStrapList": [1, 2]})");
        }
        const QString id = "com.orvanta.colorful.colorStraps";
        if (!storedEntry.isUndefined()) {
            store->setEffectJsonValue(id, "__all__", QString(), storedEntry);
        }
        QCOMPARE(store->effectJsonValue(id, "__all__", key, path), expected);
    }

    void keysBecomeSafeFileNames_data()
    {
        QTest::addColumn<QString>("key");
        QTest::newRow("slashes") << "../../escape/me";
        QTest::newRow("unicode and colon") << QString::fromUtf8("灯带:1");
    }

    void keysBecomeSafeFileNames()
    {
        QFETCH(QString, key);
        store->controllerJsonObj(key).insert("key", key);
        store->saveControllerJsonObj(key);
        const QStringList written = storeFiles();
        QCOMPARE(written.size(), 1);
        QCOMPARE(QFileInfo(written.first()).absolutePath(),
                 QDir(store->configPath()).filePath("controllers"));

        // Read back by a fresh load from the file.
        const QByteArray bytes = read(written.first());
        store->reset();
        writeBytes(written.first(), bytes);
        QCOMPARE(store->controllerJsonObj(key).value("key"), QJsonValue(key));
    }

    void corruptFileIsSetAside_data()
    {
        QTest::addColumn<QString>("relativePath");
        QTest::addColumn<int>("scope"); // 0 global, 1 app, 2 controller, 3 effect
        QTest::newRow("global") << "global.json" << 0;
        QTest::newRow("app") << "app.json" << 1;
        QTest::newRow("controller") << "controllers/OV5512%3AA1.json" << 2;
        QTest::newRow("effect") << "effects/com.orvanta.colorful.flowing.json" << 3;
    }

    void corruptFileIsSetAside()
    {
        QFETCH(QString, relativePath);
        QFETCH(int, scope);
        const QString path = store->configPath() + "/" + relativePath;
        const QByteArray bytes = R"({"speed": 1.)";
        writeBytes(path, bytes);
        QTest::ignoreMessage(QtWarningMsg,
                             QRegularExpression(R"(^\[ConfigurationManager\] Set aside unreadable file)"));
        switch (scope) {
        case 0:
            QVERIFY(store->globalValue("speed").isUndefined());
            break;
        case 1:
            QVERIFY(store->AppConfigJsonObj().isEmpty());
            break;
        case 2:
            QVERIFY(store->controllerJsonObj("OV5512:A1").isEmpty());
            break;
        default:
            QVERIFY(
                store->effectJsonValue("com.orvanta.colorful.flowing", "OV5512:A1", "speed").isUndefined());
        }
        const QFileInfo info(path);
        const QStringList aside = info.dir().entryList({info.fileName() + ".corrupt-*"}, QDir::Files);
        QCOMPARE(aside.size(), 1);
        QCOMPARE(read(info.dir().filePath(aside.first())), bytes);

        // New values make a new file; the set-aside copy stays as it was.
        store->setGlobalValue("fresh", 1);
        store->AppConfigJsonObj().insert("fresh", 1);
        store->controllerJsonObj("OV5512:A1").insert("fresh", 1);
        store->setEffectJsonValue("com.orvanta.colorful.flowing", "OV5512:A1", "fresh", 1);
        store->save();
        QVERIFY(QJsonDocument::fromJson(read(path)).isObject());
        QCOMPARE(read(info.dir().filePath(aside.first())), bytes);
    }

    // A brightness drag: every step is saved, few files are written, the last value is on disk.
    void writesAreCoalesced()
    {
        LogCapture log;
        const QString key = "OV5512:A1";
        const QString file = store->configPath() + "/controllers/OV5512%3AA1.json";
        for (int i = 1; i <= 200; ++i) {
            store->controllerJsonObj(key).insert("brightness", i / 200.0);
            store->saveControllerJsonObj(key);
            QCOMPARE(store->controllerJsonObj(key).value("brightness").toDouble(), i / 200.0);
        }
        store->setGlobalValue("lastBinding", "x");
        store->saveGlobalValues();
        store->save();
        QVERIFY2(log.count("[ConfigurationManager] Saved " + file) <= 3,
                 qPrintable(QString::number(log.count("[ConfigurationManager] Saved " + file))));
        QCOMPARE(readJson(file).value("brightness"), QJsonValue(1.0));
        QCOMPARE(readJson(store->configPath() + "/global.json").value("lastBinding"), QJsonValue("x"));
    }

    void readingCreatesNoFile()
    {
        const QString root = store->configPath();
        const QByteArray global = R"({"untouched": true})";
        writeBytes(root + "/global.json", global);
        store->globalValue("untouched");
        store->AppConfigJsonObj().value("language");
        store->controllerJsonObj("OV5512:A1").value("nbLeds");
        store->effectVariant("com.x.y", "OV5512:A1", "color");
        store->saveControllerJsonObj("OV5512:A1");
        store->saveEffectJsonObj("com.x.y");
        store->save();
        QCOMPARE(storeFiles(), QStringList{root + "/global.json"});
        QCOMPARE(read(root + "/global.json"), global);
    }

    void resetForgetsEverything()
    {
        const QString root = store->configPath();
        store->setGlobalValue(QStringList{"lastBinding", "a", "b"}, "c");
        store->AppConfigJsonObj().insert("language", "en");
        store->controllerJsonObj("OV5512:A1").insert("nbLeds", 10);
        store->setEffectJsonValue("com.x.y", "OV5512:A1", "speed", 3);
        store->save();
        writeBytes(root + "/dumps/keep.dmp", "dump");
        // Asked for, not yet written: the wipe must win.
        store->controllerJsonObj("OV5512:A1").insert("nbLeds", 11);
        store->saveControllerJsonObj("OV5512:A1");

        store->reset();
        QVERIFY(store->globalValue("lastBinding").isUndefined());
        QVERIFY(store->AppConfigJsonObj().isEmpty());
        QVERIFY(store->controllerJsonObj("OV5512:A1").isEmpty());
        QVERIFY(store->effectJsonValue("com.x.y", "OV5512:A1", "speed").isUndefined());
        QVERIFY(storeFiles().isEmpty());
        QVERIFY(QFile::exists(root + "/dumps/keep.dmp"));
    }

    void concurrentEffectAccess()
    {
        const QString shared = "com.orvanta.screenSync.fullScreen";
        const int rounds = 300;
        std::atomic<int> workerMismatches{0};
        QThread* worker = QThread::create([&]() {
            for (int i = 0; i < rounds; ++i) {
                store->setEffectVariant(shared, "worker", "n", i);
                if (store->effectVariant(shared, "worker", "n").toInt() != i) {
                    ++workerMismatches;
                }
                if (i % 25 == 0) {
                    store->saveEffectJsonObj(shared);
                }
            }
        });
        worker->start();
        int mainMismatches = 0;
        for (int i = 0; i < rounds; ++i) {
            store->setEffectJsonValue(shared, "main", "n", i);
            mainMismatches += store->effectJsonValue(shared, "main", "n").toInt(-1) != i;
            if (i % 25 == 0) {
                store->saveEffectJsonObj(shared);
            }
        }
        QVERIFY(worker->wait(60000));
        delete worker;
        QCOMPARE(mainMismatches, 0);
        QCOMPARE(workerMismatches.load(), 0);
        // Neither thread's writes were lost to the other's.
        store->save();
        const QJsonObject onDisk = readJson(store->configPath() + "/effects/" + shared + ".json");
        QCOMPARE(onDisk.value("main").toObject().value("n"), QJsonValue(rounds - 1));
        QCOMPARE(onDisk.value("worker").toObject().value("n"), QJsonValue(rounds - 1));
    }

    void killedWriterLeavesWholeFiles()
    {
        // Kill the writer after a different number of rounds each time, so the kill lands at
        // different points of a save.
        for (int target : {3, 17, 40}) {
            QTemporaryDir home;
            QVERIFY(home.isValid());
            QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
            env.insert("HOME", home.path());
            env.insert("XDG_CONFIG_HOME", home.filePath("config"));
            env.insert("XDG_DATA_HOME", home.filePath("data"));
            QProcess child;
            child.setProcessEnvironment(env);
            child.start(QStringLiteral(CONFIG_SAVE_LOOP_PATH), QStringList());
            QVERIFY2(child.waitForStarted(30000), qPrintable(child.errorString()));
            QByteArray out;
            QTRY_VERIFY_WITH_TIMEOUT((out += child.readAllStandardOutput(), out.count('\n') >= target),
                                     60000);
            QCOMPARE(::kill(static_cast<pid_t>(child.processId()), SIGKILL), 0);
            QVERIFY(child.waitForFinished(30000));
            out += child.readAllStandardOutput();

            // Every store file is there and parses whole; the last reported round, or the one in
            // progress, is what they hold.
            const QString root = home.filePath("config/config_save_loop");
            QStringList expected{"global.json", "app.json", "controllers/OV5512%3AA1.json"};
            for (int e = 0; e < 4; ++e) {
                expected << QStringLiteral("effects/com.orvanta.test.effect%1.json").arg(e);
            }
            const qint64 lastSaved = out.trimmed().split('\n').last().mid(6).toLongLong();
            for (const QString& name : expected) {
                const QJsonObject doc = readJson(root + "/" + name);
                QJsonValue round = doc.value("round");
                if (name.startsWith("effects/")) {
                    round = doc.value("OV5512:A1").toObject().value("round");
                }
                const qint64 value = round.toVariant().toLongLong();
                QVERIFY2(value == lastSaved || value == lastSaved + 1, qPrintable(name));
            }
        }
    }

private:
    ConfigurationManager* store = ConfigurationManager::instance();
};

QTEST_GUILESS_MAIN(TestConfiguration)
#include "tst_Configuration.moc"
