#include "ConfigurationManager.h"
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
#include <QStandardPaths>
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

QStringList asideFilesOf(const QString& path)
{
    const QFileInfo info(path);
    return info.dir().entryList({info.fileName() + QStringLiteral(".corrupt-*")}, QDir::Files);
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

    void pathsAreMadeWhenAsked()
    {
        const QString config = store->configPath();
        const QString logs = store->logsPath();
        QCOMPARE(config, QStandardPaths::writableLocation(QStandardPaths::AppConfigLocation));
        QCOMPARE(logs, QStandardPaths::writableLocation(QStandardPaths::AppLocalDataLocation) + "/logs");
        QVERIFY(QFileInfo(config).isDir());
        QVERIFY(QFileInfo(logs).isDir());
    }

    void globalPaths_data()
    {
        QTest::addColumn<QJsonObject>("initial");
        QTest::addColumn<QStringList>("setPath");
        QTest::addColumn<QJsonValue>("value");
        QTest::addColumn<QString>("readPath");
        QTest::addColumn<QJsonValue>("expected");

        const QJsonValue undefined(QJsonValue::Undefined);
        QTest::newRow("three levels created") << QJsonObject() << QStringList{"lastBinding", "a", "b"}
                                              << QJsonValue("x") << "lastBinding/a/b" << QJsonValue("x");
        QTest::newRow("one level") << QJsonObject() << QStringList{"cleanStartup"} << QJsonValue(true)
                                   << "cleanStartup" << QJsonValue(true);
        QTest::newRow("sibling kept")
            << QJsonObject{{"lastBinding", QJsonObject{{"a", QJsonObject{{"c", "old"}}}}}}
            << QStringList{"lastBinding", "a", "b"} << QJsonValue("new") << "lastBinding/a/c"
            << QJsonValue("old");
        QTest::newRow("overwrite") << QJsonObject{{"lastBinding",
                                                   QJsonObject{{"a", QJsonObject{{"b", "old"}}}}}}
                                   << QStringList{"lastBinding", "a", "b"} << QJsonValue("new")
                                   << "lastBinding/a/b" << QJsonValue("new");
        QTest::newRow("scalar level replaced by object")
            << QJsonObject{{"lastBinding", 5}} << QStringList{"lastBinding", "a"} << QJsonValue(1)
            << "lastBinding/a" << QJsonValue(1);
        QTest::newRow("intermediate object read")
            << QJsonObject() << QStringList{"latestVerion", "version"} << QJsonValue("1.2.3")
            << "latestVerion" << QJsonValue(QJsonObject{{"version", "1.2.3"}});
        QTest::newRow("absent leaf") << QJsonObject() << QStringList{"lastBinding", "a", "b"}
                                     << QJsonValue("x") << "lastBinding/a/z" << undefined;
        QTest::newRow("absent top") << QJsonObject() << QStringList{"k"} << QJsonValue(1) << "nothing"
                                    << undefined;
        QTest::newRow("path through a string")
            << QJsonObject() << QStringList{"s"} << QJsonValue("text") << "s/x" << undefined;
        QTest::newRow("empty key") << QJsonObject() << QStringList{"k"} << QJsonValue(1) << "" << undefined;
        QTest::newRow("empty path sets nothing")
            << QJsonObject() << QStringList() << QJsonValue(1) << "k" << undefined;
        QTest::newRow("undefined removes")
            << QJsonObject{{"hotkeyBinding", QJsonObject{{"a", "Ctrl+A"}}}}
            << QStringList{"hotkeyBinding", "a"} << undefined << "hotkeyBinding/a" << undefined;
    }

    void globalPaths()
    {
        QFETCH(QJsonObject, initial);
        QFETCH(QStringList, setPath);
        QFETCH(QJsonValue, value);
        QFETCH(QString, readPath);
        QFETCH(QJsonValue, expected);

        for (auto it = initial.constBegin(); it != initial.constEnd(); ++it) {
            store->setGlobalValue(it.key(), it.value());
        }
        store->setGlobalValue(setPath, value);
        QCOMPARE(store->globalValue(readPath), expected);
    }

    void absentEffectVariant_data()
    {
        QTest::addColumn<QString>("effectId");
        QTest::addColumn<QString>("controllerId");
        QTest::addColumn<QString>("key");

        const QString single = "com.orvanta.singleColor.singleColor";
        QTest::newRow("unknown effect") << "com.orvanta.nothing"
                                        << "OV5512:A1"
                                        << "color";
        QTest::newRow("unknown controller") << single << "OV9999:Z"
                                            << "color";
        QTest::newRow("unknown key") << single << "OV5512:A1"
                                     << "speed";
        QTest::newRow("stored null") << single << "OV5512:A1"
                                     << "nullKey";
    }

    void absentEffectVariant()
    {
        QFETCH(QString, effectId);
        QFETCH(QString, controllerId);
        QFETCH(QString, key);

        store->setEffectVariant("com.orvanta.singleColor.singleColor", "OV5512:A1", "color", 0xff112233u);
        store->setEffectJsonValue("com.orvanta.singleColor.singleColor", "OV5512:A1", "nullKey",
                                  QJsonValue());

        const QVariant v = store->effectVariant(effectId, controllerId, key);
        bool ok = true;
        QCOMPARE(v.toUInt(&ok), 0u);
        QVERIFY(!ok);
        QCOMPARE(v.toDouble(), 0.0);
        QCOMPARE(v.toInt(), 0);
        QVERIFY(store->effectJsonValue(effectId, controllerId, key).isUndefined() ||
                store->effectJsonValue(effectId, controllerId, key).isNull());
    }

    void storedEffectVariant_data()
    {
        QTest::addColumn<QVariant>("stored");
        QTest::addColumn<uint>("expectedUInt");
        QTest::addColumn<double>("expectedDouble");

        QTest::newRow("opaque white") << QVariant(0xffffffffu) << 0xffffffffu << double(0xffffffffu);
        QTest::newRow("opaque black") << QVariant(0xff000000u) << 0xff000000u << double(0xff000000u);
        QTest::newRow("zero") << QVariant(0u) << 0u << 0.0;
        QTest::newRow("int") << QVariant(7) << 7u << 7.0;
        QTest::newRow("double") << QVariant(2.5) << 3u << 2.5; // rounded, as a number read back is a double
    }

    void storedEffectVariant()
    {
        QFETCH(QVariant, stored);
        QFETCH(uint, expectedUInt);
        QFETCH(double, expectedDouble);

        const QString id = "com.orvanta.singleColor.singleColor";
        store->setEffectVariant(id, "OV5512:A1", "color", stored);
        bool ok = false;
        QCOMPARE(store->effectVariant(id, "OV5512:A1", "color").toUInt(&ok), expectedUInt);
        QVERIFY(ok);
        QCOMPARE(store->effectVariant(id, "OV5512:A1", "color").toDouble(), expectedDouble);

        // The same after a trip through the file.
        store->saveEffectJsonObj(id);
        const QString file = store->configPath() + "/effects/" + id + ".json";
        const QByteArray bytes = read(file);
        QVERIFY(!bytes.isEmpty());
        store->reset();
        QVERIFY(!QFile::exists(file));
        writeBytes(file, bytes);
        ok = false;
        QCOMPARE(store->effectVariant(id, "OV5512:A1", "color").toUInt(&ok), expectedUInt);
        QVERIFY(ok);

        // An invalid variant removes the value again.
        store->setEffectVariant(id, "OV5512:A1", "color", QVariant());
        store->effectVariant(id, "OV5512:A1", "color").toUInt(&ok);
        QVERIFY(!ok);
    }

    void effectValueDefaultsFile_data()
    {
        QTest::addColumn<QJsonValue>("storedEntry"); // undefined: no entry for the controller
        QTest::addColumn<QString>("key");            // null: whole entry or file
        QTest::addColumn<QString>("fileName");
        QTest::addColumn<QByteArray>("fileBytes"); // empty: no file
        QTest::addColumn<QJsonValue>("expected");

        const QJsonValue undefined(QJsonValue::Undefined);
        const QByteArray file = R"({"colorStrapList": [1, 2], "fragments": {"mid": {}}})";
        const QJsonObject fileObject = QJsonDocument::fromJson(file).object();
        const QJsonObject entry{{"colorStrapList", QJsonArray{9}}, {"strength", 3.0}};

        QTest::newRow("store wins") << QJsonValue(entry) << "colorStrapList"
                                    << "defaults.json" << file << QJsonValue(QJsonArray{9});
        QTest::newRow("file when key absent") << QJsonValue(QJsonObject{{"other", 1}}) << "colorStrapList"
                                              << "defaults.json" << file << QJsonValue(QJsonArray{1, 2});
        QTest::newRow("file when no entry") << undefined << "colorStrapList"
                                            << "defaults.json" << file << QJsonValue(QJsonArray{1, 2});
        QTest::newRow("absent from both") << undefined << "missing"
                                          << "defaults.json" << file << undefined;
        QTest::newRow("no file") << undefined << "colorStrapList"
                                 << "" << QByteArray() << undefined;
        QTest::newRow("null key, entry")
            << QJsonValue(entry) << QString() << "defaults.json" << file << QJsonValue(entry);
        QTest::newRow("null key, whole file")
            << undefined << QString() << "defaults.json" << file << QJsonValue(fileObject);
        QTest::newRow("null key, no file")
            << undefined << QString() << "" << QByteArray() << QJsonValue(QJsonObject());
        QTest::newRow("empty key is a key")
            << QJsonValue(QJsonObject{{"", 4}}) << QString("") << "defaults.json" << file << QJsonValue(4);
    }

    void effectValueDefaultsFile()
    {
        QFETCH(QJsonValue, storedEntry);
        QFETCH(QString, key);
        QFETCH(QString, fileName);
        QFETCH(QByteArray, fileBytes);
        QFETCH(QJsonValue, expected);

        QTemporaryDir dir;
        QVERIFY(dir.isValid());
        const QString path = dir.filePath(fileName.isEmpty() ? QStringLiteral("absent.json") : fileName);
        if (!fileBytes.isEmpty()) {
            writeBytes(path, fileBytes);
        }
        const QString id = "com.orvanta.colorful.colorStraps";
        if (!storedEntry.isUndefined()) {
            store->setEffectJsonValue(id, "__all__", QString(), storedEntry);
        }
        QCOMPARE(store->effectJsonValue(id, "__all__", key, path), expected);
    }

    void malformedDefaultsFileStaysInPlace()
    {
        QTemporaryDir dir;
        const QString path = dir.filePath("broken.json");
        writeBytes(path, "{\"colorStrapList\": [");
        QTest::ignoreMessage(QtWarningMsg,
                             QRegularExpression(R"(^\[ConfigurationManager\] Ignoring malformed file)"));
        QVERIFY(store->effectJsonValue("com.x.y", "__all__", "colorStrapList", path).isUndefined());
        QCOMPARE(read(path), QByteArray("{\"colorStrapList\": ["));
        QVERIFY(asideFilesOf(path).isEmpty());
    }

    void controllerKeysBecomeSafeFileNames_data()
    {
        QTest::addColumn<QString>("key");
        QTest::newRow("model and serial") << "OV5512:A1B2";
        QTest::newRow("model only") << "OV5512:";
        QTest::newRow("slashes") << "../../escape/me";
        QTest::newRow("dot dot") << "..";
        QTest::newRow("empty") << "";
        QTest::newRow("unicode") << QString::fromUtf8("灯带 1");
        QTest::newRow("percent") << "50%";
    }

    void controllerKeysBecomeSafeFileNames()
    {
        QFETCH(QString, key);
        store->controllerJsonObj(key).insert("key", key);
        store->saveControllerJsonObj(key);

        const QString dir = store->configPath() + "/controllers";
        QDirIterator all(store->configPath(), QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
        QStringList written;
        while (all.hasNext()) {
            written << all.next();
        }
        QCOMPARE(written.size(), 1);
        QCOMPARE(QFileInfo(written.first()).absolutePath(), QFileInfo(dir).absoluteFilePath());

        // Read back by a fresh load from the file.
        const QByteArray bytes = read(written.first());
        store->reset();
        writeBytes(written.first(), bytes);
        QCOMPARE(store->controllerJsonObj(key).value("key"), QJsonValue(key));
    }

    void storedFilesAreReadBack()
    {
        const QString root = store->configPath();
        writeBytes(root + "/global.json", R"({"hotkeyBinding": {"toggle": "Ctrl+Alt+L"}})");
        writeBytes(root + "/app.json", R"({"language": "en"})");
        writeBytes(root + "/effects/com.orvanta.colorful.flowing.json", R"({"OV5512:A1": {"speed": 4}})");
        QCOMPARE(store->globalValue("hotkeyBinding/toggle"), QJsonValue("Ctrl+Alt+L"));
        QCOMPARE(store->AppConfigJsonObj().value("language"), QJsonValue("en"));
        QCOMPARE(store->effectJsonValue("com.orvanta.colorful.flowing", "OV5512:A1", "speed"), QJsonValue(4));

        store->AppConfigJsonObj() = QJsonObject{{"language", "zh_CN"}};
        store->saveAppConfigJsonObj();
        QCOMPARE(readJson(root + "/app.json"), (QJsonObject{{"language", "zh_CN"}}));
    }

    void corruptFileIsSetAside_data()
    {
        QTest::addColumn<QString>("relativePath");
        QTest::addColumn<int>("scope"); // 0 global, 1 app, 2 controller, 3 effect
        QTest::addColumn<QByteArray>("bytes");

        const QList<QPair<QString, int>> scopes{{"global.json", 0},
                                                {"app.json", 1},
                                                {"controllers/OV5512%3AA1.json", 2},
                                                {"effects/com.orvanta.colorful.flowing.json", 3}};
        const QList<QPair<const char*, QByteArray>> contents{{"truncated", R"({"speed": 1.)"},
                                                             {"garbage", QByteArray("\x00\xff\xfe junk", 8)},
                                                             {"array", "[1, 2, 3]"},
                                                             {"empty", ""},
                                                             {"string", "\"text\""}};
        for (const auto& scope : scopes) {
            for (const auto& content : contents) {
                QTest::addRow("%s %s", qPrintable(scope.first), content.first)
                    << scope.first << scope.second << content.second;
            }
        }
    }

    void corruptFileIsSetAside()
    {
        QFETCH(QString, relativePath);
        QFETCH(int, scope);
        QFETCH(QByteArray, bytes);

        const QString path = store->configPath() + "/" + relativePath;
        writeBytes(path, bytes);
        QTest::ignoreMessage(QtWarningMsg,
                             QRegularExpression(R"(^\[ConfigurationManager\] Set aside unreadable file)"));

        // Reads the scope (which sets a bad file aside) and checks it starts from its defaults.
        const auto readScope = [this, scope]() {
            switch (scope) {
            case 0:
                return store->globalValue("speed").isUndefined();
            case 1:
                return store->AppConfigJsonObj().isEmpty();
            case 2:
                return store->controllerJsonObj("OV5512:A1").isEmpty();
            default:
                return store->effectJsonValue("com.orvanta.colorful.flowing", "OV5512:A1", "speed")
                    .isUndefined();
            }
        };
        QVERIFY(readScope());
        store->setGlobalValue("fresh", 1);
        store->AppConfigJsonObj().insert("fresh", 1);
        store->controllerJsonObj("OV5512:A1").insert("fresh", 1);
        store->setEffectJsonValue("com.orvanta.colorful.flowing", "OV5512:A1", "fresh", 1);

        const QStringList aside = asideFilesOf(path);
        QCOMPARE(aside.size(), 1);
        QVERIFY(QRegularExpression(R"(\.corrupt-\d{8}-\d{6}$)").match(aside.first()).hasMatch());
        const QString asidePath = QFileInfo(path).dir().filePath(aside.first());
        QCOMPARE(read(asidePath), bytes);

        // Saving the scope's defaults writes a new file and leaves the set-aside copy alone.
        store->save();
        QVERIFY(QJsonDocument::fromJson(read(path)).isObject());
        QCOMPARE(read(asidePath), bytes);

        // A second bad file in the same second gets a name of its own.
        store->reset();
        QCOMPARE(read(asidePath), bytes); // reset keeps set-aside copies
        writeBytes(path, "{");
        QTest::ignoreMessage(QtWarningMsg,
                             QRegularExpression(R"(^\[ConfigurationManager\] Set aside unreadable file)"));
        readScope();
        QCOMPARE(asideFilesOf(path).size(), 2);
        QCOMPARE(read(asidePath), bytes);
        for (const QString& name : asideFilesOf(path)) {
            QFile::remove(QFileInfo(path).dir().filePath(name));
        }
    }

    void saveLeavesUnreadScopesAlone()
    {
        const QString root = store->configPath();
        const QByteArray global = R"({"cleanStartup": false, "untouched": true})";
        writeBytes(root + "/global.json", global);
        store->controllerJsonObj("OV5512:A1").insert("nbLeds", 10);
        store->save();
        QCOMPARE(read(root + "/global.json"), global);
        QCOMPARE(readJson(root + "/controllers/OV5512%3AA1.json").value("nbLeds"), QJsonValue(10));
    }

    void resetForgetsEverything()
    {
        const QString root = store->configPath();
        store->setGlobalValue(QStringList{"lastBinding", "a", "b"}, "c");
        store->AppConfigJsonObj().insert("language", "en");
        store->controllerJsonObj("OV5512:A1").insert("nbLeds", 10);
        store->setEffectJsonValue("com.x.y", "OV5512:A1", "speed", 3);
        store->setEffectVariant("com.x.y", "OV5512:A1", "color", 0xff00ff00u);
        store->save();
        writeBytes(root + "/dumps/keep.dmp", "dump");
        QVERIFY(QFile::exists(root + "/global.json"));

        store->reset();

        QVERIFY(store->globalValue("lastBinding").isUndefined());
        QVERIFY(store->AppConfigJsonObj().isEmpty());
        QVERIFY(store->controllerJsonObj("OV5512:A1").isEmpty());
        QVERIFY(store->effectJsonValue("com.x.y", "OV5512:A1", "speed").isUndefined());
        bool ok = true;
        store->effectVariant("com.x.y", "OV5512:A1", "color").toUInt(&ok);
        QVERIFY(!ok);

        QDirIterator left(root, {"*.json"}, QDir::Files, QDirIterator::Subdirectories);
        QVERIFY(!left.hasNext());
        QVERIFY(QFile::exists(root + "/dumps/keep.dmp"));
    }

    void enableCleanStartupSavesTheFlag()
    {
        store->EnableCleanStartup();
        QCOMPARE(store->globalValue("cleanStartup"), QJsonValue(true));
        QCOMPARE(readJson(store->configPath() + "/global.json").value("cleanStartup"), QJsonValue(true));
    }

    void concurrentEffectAccess()
    {
        const QString shared = "com.orvanta.screenSync.fullScreen";
        const int rounds = 300;
        std::atomic<int> workerMismatches{0};

        QThread* worker = QThread::create([&]() {
            for (int i = 0; i < rounds; ++i) {
                store->setEffectVariant(shared, "worker", "n", i);
                const QVariant back = store->effectVariant(shared, "worker", "n");
                if (back.toInt() != i) {
                    ++workerMismatches;
                }
                store->setEffectJsonValue(shared, "worker", "map", QJsonObject{{"i", i}});
                store->effectJsonValue(shared, "main", "n");
                if (i % 25 == 0) {
                    store->saveEffectJsonObj(shared);
                }
            }
        });
        worker->start();
        int mainMismatches = 0;
        for (int i = 0; i < rounds; ++i) {
            store->setEffectJsonValue(shared, "main", "n", i);
            if (store->effectJsonValue(shared, "main", "n").toInt(-1) != i) {
                ++mainMismatches;
            }
            store->effectVariant(shared, "worker", "n");
            if (i % 25 == 0) {
                store->saveEffectJsonObj(shared);
            }
        }
        QVERIFY(worker->wait(60000));
        delete worker;

        QCOMPARE(mainMismatches, 0);
        QCOMPARE(workerMismatches.load(), 0);
        // Neither thread's writes were lost to the other's.
        QCOMPARE(store->effectJsonValue(shared, "main", "n"), QJsonValue(rounds - 1));
        QCOMPARE(store->effectVariant(shared, "worker", "n").toInt(), rounds - 1);
        store->saveEffectJsonObj(shared);
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
            child.setProcessChannelMode(QProcess::SeparateChannels);
            child.start(QStringLiteral(CONFIG_SAVE_LOOP_PATH), QStringList());
            QVERIFY2(child.waitForStarted(30000), qPrintable(child.errorString()));

            QByteArray out;
            QTRY_VERIFY_WITH_TIMEOUT((out += child.readAllStandardOutput(), out.count('\n') >= target),
                                     60000);
            QCOMPARE(::kill(static_cast<pid_t>(child.processId()), SIGKILL), 0);
            QVERIFY(child.waitForFinished(30000));
            QCOMPARE(child.exitStatus(), QProcess::CrashExit);
            out += child.readAllStandardOutput();

            // Every store file is there and parses whole; the last reported round, or the one in
            // progress, is what they hold.
            const QString root = home.filePath("config/config_save_loop");
            QStringList expected{"global.json", "app.json", "controllers/OV5512%3AA1.json"};
            for (int e = 0; e < 4; ++e) {
                expected << QStringLiteral("effects/com.orvanta.test.effect%1.json").arg(e);
            }
            const QList<QByteArray> lines = out.trimmed().split('\n');
            const qint64 lastSaved = lines.last().mid(6).toLongLong();
            for (const QString& name : expected) {
                QJsonParseError error;
                const QJsonDocument doc = QJsonDocument::fromJson(read(root + "/" + name), &error);
                QVERIFY2(error.error == QJsonParseError::NoError,
                         qPrintable(name + ": " + error.errorString()));
                QVERIFY2(doc.isObject(), qPrintable(name));
                QJsonValue round = doc.object().value("round");
                if (name.startsWith("effects/")) {
                    round = doc.object().value("OV5512:A1").toObject().value("round");
                }
                const qint64 value = round.toVariant().toLongLong();
                QVERIFY2(value == lastSaved || value == lastSaved + 1, qPrintable(name));
            }
            QDirIterator all(root, {"*.json"}, QDir::Files, QDirIterator::Subdirectories);
            while (all.hasNext()) {
                const QString file = all.next();
                QVERIFY2(QJsonDocument::fromJson(read(file)).isObject(), qPrintable(file));
            }
        }
    }

private:
    ConfigurationManager* store = ConfigurationManager::instance();
};

QTEST_GUILESS_MAIN(TestConfiguration)
#include "tst_Configuration.moc"
