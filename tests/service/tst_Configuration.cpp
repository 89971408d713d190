#include "FilePermissions.h"
#include "LogCapture.h"
#include "TestFiles.h"
#include "service/config/ConfigurationFile.h"
#include "service/config/ConfigurationManager.h"
#include "service/config/ConfigurationWriter.h"
#include "service/config/DataPaths.h"

#include <QElapsedTimer>
#include <QJsonArray>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>
#include <QUrl>

#include <signal.h>
#include <sys/stat.h>

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

    void initTestCase() { QVERIFY(FilePermissions::obey()); }

    // Data in the working directory, beside the program and in the installed folder, which lies
    // at ../../share/orvanta from the program's folder as it does from /usr/lib/orvanta. Places
    // are "w", "p", "i"; `files` are made under a probe folder in each.
    void dataPlaces_data()
    {
        QTest::addColumn<bool>("programFirst");
        QTest::addColumn<QStringList>("files");
        QTest::addColumn<QString>("pattern");  // empty: the file "d/a.json" is looked up
        QTest::addColumn<QString>("expected"); // place and path, or empty for none
        const QStringList all{"w:d/a.json", "p:d/a.json", "i:d/a.json"};
        QTest::newRow("working directory first") << false << all << ""
                                                 << "w:d/a.json";
        QTest::newRow("program folder first") << true << all << ""
                                              << "p:d/a.json";
        QTest::newRow("then beside the program") << false << QStringList{"p:d/a.json", "i:d/a.json"} << ""
                                                 << "p:d/a.json";
        QTest::newRow("then the working directory") << true << QStringList{"w:d/a.json", "i:d/a.json"} << ""
                                                    << "w:d/a.json";
        QTest::newRow("installed folder last") << true << QStringList{"i:d/a.json"} << ""
                                               << "i:d/a.json";
        QTest::newRow("nowhere: the working directory's name") << false << QStringList{"i:d/b.json"} << ""
                                                               << "w:d/a.json";
        QTest::newRow("nowhere: the program folder's name") << true << QStringList{} << ""
                                                            << "p:d/a.json";
        QTest::newRow("folder matching first") << true << all << "*.json"
                                               << "p:d";
        QTest::newRow("non-matching folder does not hide")
            << true << QStringList{"p:d/x.so", "w:d/x.so", "i:d/a.json"} << "*.json"
            << "i:d";
        QTest::newRow("no match: the first folder there")
            << true << QStringList{"w:d/x.so", "i:d/y.so"} << "*.json"
            << "w:d";
        QTest::newRow("folder nowhere") << false << QStringList{"i:e/a.json"} << "*.json"
                                        << "";
    }
    void dataPlaces()
    {
        QFETCH(bool, programFirst);
        QFETCH(QStringList, files);
        QFETCH(QString, pattern);
        QFETCH(QString, expected);
        QTemporaryDir working;
        const QString program = QCoreApplication::applicationDirPath();
        const QMap<QString, QString> places{
            {"w", working.path() + "/data-places"},
            {"p", program + "/data-places"},
            {"i", QDir::cleanPath(program + "/../../share/orvanta/data-places")}};
        const auto cleanUp = [&places] {
            QDir(places["p"]).removeRecursively();
            QDir(places["i"]).removeRecursively();
        };
        cleanUp();
        for (const QString& file : files) {
            QVERIFY(TestFiles::write(places[file.section(':', 0, 0)] + "/" + file.section(':', 1), ""));
        }
        const QString before = QDir::currentPath();
        QVERIFY(QDir::setCurrent(working.path()));
        // The probe folder of the program's and the installed places is "data-places/d".
        const QString name = pattern.isEmpty() ? "d/a.json" : "d";
        const DataPaths::First first =
            programFirst ? DataPaths::First::ProgramFolder : DataPaths::First::WorkingFolder;
        const QString found = pattern.isEmpty()
                                  ? DataPaths::locate("data-places/" + name, first)
                                  : DataPaths::folderWith("data-places/" + name, pattern, first);
        QDir::setCurrent(before);
        cleanUp();
        QString want;
        if (!expected.isEmpty()) {
            const QString place = expected.section(':', 0, 0);
            want = (place == "w" ? QString("data-places") : places[place]) + "/" + expected.section(':', 1);
        }
        QCOMPARE(found, want);
    }

    void faultyFile_data()
    {
        QTest::addColumn<QString>("relativePath");
        QTest::addColumn<QString>("fault");
        QTest::addColumn<bool>("setAside"); // else left exactly as it is
        QTest::newRow("unparsable global") << "global.json"
                                           << "unparsable" << true;
        QTest::newRow("unparsable app") << "app.json"
                                        << "unparsable" << true;
        QTest::newRow("unparsable controller") << "controllers/OV5512%3AA1.json"
                                               << "unparsable" << true;
        QTest::newRow("unparsable effect") << "effects/com.orvanta.colorful.flowing.json"
                                           << "unparsable" << true;
        QTest::newRow("5 MiB controller") << "controllers/OV5512%3AA1.json"
                                          << "5 MiB" << true;
        QTest::newRow("unreadable app") << "app.json"
                                        << "unreadable" << false;
        QTest::newRow("FIFO effect") << "effects/com.orvanta.colorful.flowing.json"
                                     << "FIFO" << false;
        QTest::newRow("device global") << "global.json"
                                       << "device" << false;
        QTest::newRow("directory controller") << "controllers/OV5512%3AA1.json"
                                              << "directory" << false;
    }

    // Unparsable or too large: renamed aside, never overwritten by the values saved next. There
    // but unreadable: never opened past a look, never replaced. Either way the scope runs on
    // defaults, one warning names the file, and start-up does not hang on it.
    void faultyFile()
    {
        QFETCH(QString, relativePath);
        QFETCH(QString, fault);
        QFETCH(bool, setAside);
        const QString path = store->configPath() + "/" + relativePath;
        QByteArray bytes = R"({"fresh": 1.)";
        if (fault == "5 MiB") {
            bytes = "{\"fresh\": 1, \"pad\": \"" + QByteArray(5 << 20, 'x') + "\"}";
        }
        QVERIFY(TestFiles::write(path, bytes));
        const QByteArray name = QFile::encodeName(path);
        if (fault == "unreadable") {
            QVERIFY(QFile::setPermissions(path, {}));
        } else if (fault != "unparsable" && fault != "5 MiB") {
            QVERIFY(QFile::remove(path));
            QVERIFY(fault == "FIFO"     ? ::mkfifo(name, 0600) == 0
                    : fault == "device" ? QFile::link("/dev/zero", path)
                                        : QDir().mkdir(path));
        }
        struct stat before, after;
        QVERIFY(::lstat(name, &before) == 0);
        LogCapture log;
        const QJsonValue values[] = {
            store->globalValue("fresh"), store->AppConfigJsonObj().value("fresh"),
            store->controllerJsonObj("OV5512:A1").value("fresh"),
            store->effectJsonValue("com.orvanta.colorful.flowing", "OV5512:A1", "fresh")};
        for (const QJsonValue& value : values) {
            QVERIFY(value.isUndefined());
        }
        const QFileInfo info(path);
        const QStringList aside = info.dir().entryList({info.fileName() + ".corrupt-*"}, QDir::Files);
        QCOMPARE(aside.size(), setAside ? 1 : 0);
        store->setGlobalValue("fresh", 2);
        store->AppConfigJsonObj().insert("fresh", 2);
        store->controllerJsonObj("OV5512:A1").insert("fresh", 2);
        store->setEffectJsonValue("com.orvanta.colorful.flowing", "OV5512:A1", "fresh", 2);
        store->save();
        QVERIFY2(log.count(path, QtWarningMsg) == 1, qPrintable(log.lines().join('\n')));
        QVERIFY(::lstat(name, &after) == 0);
        if (setAside) {
            QVERIFY(read(path).contains("\"fresh\": 2")); // the new values, in a file of its own
            QCOMPARE(read(info.dir().filePath(aside.first())), bytes);
        } else { // the same file, not one renamed over it
            QVERIFY(after.st_ino == before.st_ino && after.st_mode == before.st_mode);
        }
    }

    // A brightness change while the controllers folder is read-only: one warning however often it
    // is tried, the save at exit included; once the folder is writable again the newest value
    // reaches the disk without another save.
    void readOnlyFolderIsRetried()
    {
        const QString folder = store->configPath() + "/controllers";
        const QString file = folder + "/OV5512%3AA1.json";
        store->controllerJsonObj("OV5512:A1").insert("brightness", 0.5);
        store->saveControllerJsonObj("OV5512:A1");
        store->flush();
        QVERIFY(QFile::setPermissions(folder, QFile::ReadOwner | QFile::ExeOwner));
        LogCapture log;
        for (double brightness : {0.4, 0.3, 0.2}) {
            store->controllerJsonObj("OV5512:A1").insert("brightness", brightness);
            store->saveControllerJsonObj("OV5512:A1");
        }
        store->flush(); // the save at exit
        const bool stillOld = readJson(file).value("brightness") == QJsonValue(0.5);
        QVERIFY(QFile::setPermissions(folder, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner));
        QVERIFY(stillOld);
        QVERIFY2(log.count("Failed to save " + file, QtWarningMsg) == 1, qPrintable(log.lines().join('\n')));
        QElapsedTimer waited;
        waited.start();
        QTRY_COMPARE_WITH_TIMEOUT(readJson(file).value("brightness"), QJsonValue(0.2), 60000);
        qInfo() << "written" << waited.elapsed() << "ms after the folder became writable";
        QCOMPARE(log.count("Failed to save", QtWarningMsg), 1);
    }

    // A lone change is written at once; what follows within the lag goes out together once the
    // lag has passed since the previous write began, or since the change was asked for if that is
    // earlier; another file is not held back; the content the file already holds is not written
    // again. The writer is on this thread, so its timer runs only while the test waits.
    void writerSchedule_data()
    {
        QTest::addColumn<int>("lagMs");
        QTest::addColumn<int>("firstBytes");
        QTest::addColumn<int>("askedAgoMs"); // how long before it reached the writer
        QTest::addColumn<bool>("atOnce");
        QTest::newRow("within the lag") << 200 << 0 << 0 << false;
        QTest::newRow("asked for a lag ago, queued behind a write") << 60000 << 0 << 60000 << true;
        // Serialising and syncing megabytes outlasts a millisecond: the lag runs from the start.
        QTest::newRow("after a write longer than the lag") << 1 << 2000000 << 0 << true;
    }
    void writerSchedule()
    {
        QFETCH(int, lagMs);
        QFETCH(int, firstBytes);
        QFETCH(int, askedAgoMs);
        QFETCH(bool, atOnce);
        QTemporaryDir dir;
        const QString path = dir.filePath("a.json");
        ConfigurationWriter writer(lagMs);
        writer.enqueue(path, {{"n", 1}, {"pad", QString(firstBytes, 'x')}});
        QCoreApplication::sendPostedEvents(); // what the writer's thread would take next
        writer.enqueue(path, {{"n", 2}}, ConfigurationWriter::nowMs() - askedAgoMs);
        QCoreApplication::sendPostedEvents();
        QCOMPARE(readJson(path).value("n"), QJsonValue(atOnce ? 2 : 1));
        writer.enqueue(dir.filePath("b.json"), {{"n", 1}});
        QCoreApplication::sendPostedEvents();
        QVERIFY(QFile::exists(dir.filePath("b.json")));
        QTRY_COMPARE_WITH_TIMEOUT(readJson(path), QJsonObject({{"n", 2}}), 10000);
        QVERIFY(QFile::remove(path));
        writer.enqueue(path, {{"n", 2}});
        writer.writePending();
        QVERIFY(!QFile::exists(path));
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
    // round it reported or the one in progress; the next run removes the writer's temporaries it
    // left, and nothing else.
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

            const QStringList left{"controllers/.OV5512%3AA1.json.Ab12Cd", ".global.json.x9Y8z7"};
            const QStringList kept{"controllers/notes.json.Ab12Cd", ".hidden.json",
                                   "effects/.a.json.toolong1"};
            for (const QString& name : left + kept) {
                QVERIFY(TestFiles::write(root + name, "{"));
            }
            ConfigurationFile::removeTemporaries(root);
            const QStringList after = QDir(root).entryList(QDir::Files | QDir::Hidden) +
                                      QDir(root + "controllers").entryList(QDir::Files | QDir::Hidden) +
                                      QDir(root + "effects").entryList(QDir::Files | QDir::Hidden);
            QCOMPARE(after.filter(QRegularExpression("^\\..*\\.json\\.[A-Za-z0-9]{6}$")), QStringList());
            for (const QString& name : kept) {
                QVERIFY2(QFile::exists(root + name), qPrintable(name));
            }
        }
    }
};

QTEST_GUILESS_MAIN(TestConfiguration)
#include "tst_Configuration.moc"
