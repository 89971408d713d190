#pragma once

#include "TestFiles.h"
#include "app/OrvantaApp.h"
#include "effects/panels/EffectPanelMaker.h"

#include <QDir>
#include <QTest>

#include <memory>

// The program object in the test's process on virtual strips behind links in ./links, with the
// program's data beside the test as it is installed beside the program. ORVANTA_BIN_DIR names the
// build's data.
struct AppRig
{
    static constexpr int kFoundMs = 15000;
    QString linkDir;
    std::unique_ptr<OrvantaApp> app;

    // For initTestCase: the panels, the data and an empty link folder, as the program's main has them.
    void prepareApp()
    {
        EffectPanelMaker::install();
        for (const char* folder : {"effects", "images", "controler_config", "languages"}) {
            QVERIFY(TestFiles::copyTree(QStringLiteral(ORVANTA_BIN_DIR "/") + folder, folder));
        }
        linkDir = QDir::currentPath() + "/links";
        QDir(linkDir).removeRecursively();
        QVERIFY(QDir().mkpath(linkDir));
    }

    QString link(const QString& name) const { return linkDir + '/' + name; }

    // Starts the program and waits until `count` devices are bound.
    bool start(int count)
    {
        qputenv("ORVANTA_EXTRA_PORTS", (linkDir + "/strip*").toUtf8());
        app.reset(new OrvantaApp);
        return QTest::qWaitFor([&] { return app->devices().controllerNames().size() == count; }, kFoundMs);
    }

    void stop()
    {
        app.reset();
        TestFiles::flushDeletes();
    }
};
