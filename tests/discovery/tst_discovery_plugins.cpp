#include "DeviceManager.h"
#include "IDeviceEnumerator.h"
#include "LogCapture.h"
#include "TestFiles.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QPluginLoader>
#include <QPointer>
#include <QSignalSpy>
#include <QtTest>

#include <memory>

// The device manager with enumerator plug-ins: a real one, a Qt plug-in of another kind, a plain
// shared library and a file that is no library at all, all in "deviceEnumerators".
class TestDiscoveryPlugins : public QObject
{
    Q_OBJECT

private:
    QString pluginDir() const { return QCoreApplication::applicationDirPath() + "/deviceEnumerators"; }
    QString pluginPath(const QString& file) const { return pluginDir() + "/" + file; }

    // The plug-in's enumerator as the manager holds it.
    IDeviceEnumerator* plugin() const
    {
        return manager->enumeratorEntries().value(pluginPath("libtest_enumerator_plugin.so")).second;
    }
    QString announce(const QString& model, const QString& serial)
    {
        QString id;
        const bool ok = QMetaObject::invokeMethod(plugin(), "announce", Q_RETURN_ARG(QString, id),
                                                  Q_ARG(QString, model), Q_ARG(QString, serial));
        return ok ? id : QStringLiteral("<not invoked>");
    }
    bool raiseStatus(const QString& id, uint status)
    {
        bool raised = false;
        QMetaObject::invokeMethod(plugin(), "raiseStatus", Q_RETURN_ARG(bool, raised), Q_ARG(QString, id),
                                  Q_ARG(uint, status));
        return raised;
    }

    std::unique_ptr<LogCapture> log;
    std::unique_ptr<DeviceManager> manager;

private slots:
    void initTestCase()
    {
        QCoreApplication::setOrganizationName(QStringLiteral("OrvantaTests"));
        QCoreApplication::setApplicationName(QStringLiteral("test_discovery_plugins"));
        qunsetenv("ORVANTA_EXTRA_PORTS");
        QByteArray noise(4096, '\0');
        for (int i = 0; i < noise.size(); ++i)
            noise[i] = char((i * 7919 + 13) & 0xff);
        QVERIFY(TestFiles::write(pluginPath("garbage.so"), noise));
        // Only "*.so" files are candidates.
        QVERIFY(QFile::copy(pluginPath("libtest_enumerator_plugin.so"), pluginPath("copy.so.bak")) ||
                QFile::exists(pluginPath("copy.so.bak")));

        log = std::make_unique<LogCapture>();
        manager = std::make_unique<DeviceManager>();
    }

    void cleanupTestCase()
    {
        QMetaObject::invokeMethod(plugin(), "releaseQuiet");
        manager.reset();
        TestFiles::flushDeletes();
        log.reset();
        QFile::remove(pluginPath("garbage.so"));
        QFile::remove(pluginPath("copy.so.bak"));
    }

    void loadsTheEnumeratorPlugin()
    {
        QVERIFY(log->contains("成功从文件<libtest_enumerator_plugin.so>中加载了枚举器", QtInfoMsg));
        QVERIFY(!log->contains("Not found Dir: deviceEnumerators"));
        const auto entries = manager->enumeratorEntries();
        QCOMPARE(entries.size(), 2);
        QVERIFY(entries.contains("@@@OVControllerEnumerator"));
        QVERIFY(entries.value("@@@OVControllerEnumerator").first == nullptr);
        const DeviceManager::EnumeratorEntry entry =
            entries.value(pluginPath("libtest_enumerator_plugin.so"));
        QVERIFY(entry.first && entry.second);
        // The interface answers by its id, both ways.
        QObject* root = entry.first->instance();
        QCOMPARE(qobject_cast<IDeviceEnumerator*>(root), entry.second);
        QCOMPARE(static_cast<IDeviceEnumerator*>(root->qt_metacast("com.Orvanta.DeviceManagerInterface")),
                 entry.second);
    }

    void skipsLibrariesThatAreNotEnumerators_data()
    {
        QTest::addColumn<QString>("file");
        QTest::addColumn<QString>("line");
        QTest::newRow("garbage file") << "garbage.so" << QStringLiteral("载入dll：%1失败。");
        QTest::newRow("plain shared library")
            << "libtest_plain_library.so" << QStringLiteral("载入dll：%1失败。");
        QTest::newRow("plug-in of another kind")
            << "libtest_other_plugin.so" << QStringLiteral("无效的外部库文件: %1");
    }

    void skipsLibrariesThatAreNotEnumerators()
    {
        QFETCH(QString, file);
        QFETCH(QString, line);
        QVERIFY2(log->contains(line.arg(pluginPath(file)), QtWarningMsg),
                 qPrintable(log->lines().join('\n')));
        QVERIFY(!manager->enumeratorEntries().contains(pluginPath(file)));
        QVERIFY(!log->contains("copy.so.bak"));
    }

    void registersControllersOfThePlugin()
    {
        QSignalSpy added(manager.get(), &DeviceManager::newController);
        QCOMPARE(announce("PLUG01", "01"), QStringLiteral("PLUG01:01"));
        QTRY_COMPARE(added.count(), 1);
        QCOMPARE(added.at(0).at(0).toString(), QStringLiteral("PLUG01:01"));
        QVERIFY(manager->controllerNames().contains("PLUG01:01"));
        QVERIFY(log->contains("A new controller has been added to manager： PLUG01:01", QtInfoMsg));
        QCOMPARE(manager->controlOptions("PLUG01:01").model, QStringLiteral("PLUG01"));
    }

    void refusesBadControllers()
    {
        QSignalSpy added(manager.get(), &DeviceManager::newController);
        QMetaObject::invokeMethod(plugin(), "announceNull");
        QTRY_VERIFY(log->contains("[DeviceManager]: Cannot add an empty controller", QtWarningMsg));

        announce("PLUG02", "02");
        QTRY_COMPARE(added.count(), 1);
        announce("PLUG02", "02");
        QTRY_VERIFY(log->contains("[DeviceManager]: The controller already exists PLUG02:02", QtWarningMsg));

        announce(QString(), QString());
        QTRY_VERIFY(
            log->contains("[DeviceManager]: Cannot add a controller with an invalid ID", QtWarningMsg));
        QCOMPARE(log->count("[DeviceManager]: The controller already exists"), 1);
        QCOMPARE(added.count(), 1);
        QVERIFY(!manager->controllerNames().contains(QString()));
    }

    void failureDropsTheControllerOnce()
    {
        QSignalSpy added(manager.get(), &DeviceManager::newController);
        QSignalSpy failed(manager.get(), &DeviceManager::controllerFailed);
        const QString id = announce("PLUG03", "03");
        QTRY_COMPARE(added.count(), 1);
        QPointer<AbsRGBController> watched = manager->controller(id).data();

        QVERIFY(raiseStatus(id, 0));
        QCOMPARE(failed.count(), 0);
        QVERIFY(manager->controller(id));

        QVERIFY(raiseStatus(id, 2));
        QCOMPARE(failed.count(), 1);
        QCOMPARE(failed.at(0).at(0).toString(), id);
        QVERIFY(log->contains("Device has failed: PLUG03:03 , Reason： test failure 2", QtInfoMsg));
        QVERIFY(manager->controller(id).isNull());
        // The manager held the only strong reference.
        QTRY_VERIFY(watched.isNull());
        QVERIFY(!raiseStatus(id, 3));
        QCOMPARE(failed.count(), 1);
    }

    void addEnumeratorControllersTakesTheRest()
    {
        QSignalSpy added(manager.get(), &DeviceManager::newController);
        QString quietId;
        QVERIFY(QMetaObject::invokeMethod(plugin(), "keepQuiet", Q_RETURN_ARG(QString, quietId),
                                          Q_ARG(QString, "PLUG05"), Q_ARG(QString, "05")));
        QVERIFY(!manager->controller(quietId));
        manager->addEnumeratorControllers(plugin());
        QVERIFY(manager->controller(quietId));
        QVERIFY(added.count() >= 1);
        QCOMPARE(added.last().at(0).toString(), quietId);
        manager->addEnumeratorControllers(nullptr);
    }

    void removalAsksEnumeratorsUntilOneAnswers()
    {
        const QString id = announce("PLUG06", "06");
        QTRY_VERIFY(manager->controller(id));
        QPointer<AbsRGBController> watched = manager->controller(id).data();
        manager->removeController(id);
        QVERIFY(manager->controller(id).isNull());
        QVERIFY(log->contains("[DeviceManager] PLUG06:06 has been removed from ", QtInfoMsg));
        QVERIFY(log->contains("[DeviceManager] PLUG06:06 has been removed", QtInfoMsg));
        // The built-in enumerator always answers, so the plug-in may or may not have been asked;
        // when it was, it answered true and the walk stopped there.
        int calls = -1;
        QMetaObject::invokeMethod(plugin(), "removeCalls", Q_RETURN_ARG(int, calls));
        const bool pluginAsked = calls > 0;
        QCOMPARE(log->contains("has been removed from " + pluginPath("libtest_enumerator_plugin.so")),
                 pluginAsked);
        QCOMPARE(log->contains("has been removed from @@@OVControllerEnumerator"), !pluginAsked);
        QTRY_VERIFY(watched.isNull());
    }
};

QTEST_GUILESS_MAIN(TestDiscoveryPlugins)
#include "tst_discovery_plugins.moc"
