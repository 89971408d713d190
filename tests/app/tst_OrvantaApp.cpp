#include "AppRig.h"
#include "Command.h"
#include "DebianPackage.h"
#include "LocalHttpsService.h"
#include "LogCapture.h"
#include "Strip.h"
#include "TestFiles.h"
#include "TestWidgets.h"
#include "X11Peer.h"
#include "app/OrvantaApp.h"
#include "app/ShutdownSignals.h"
#include "app/SingleInstance.h"
#include "effects/panels/AbsWorkerWidget.h"
#include "effects/screensync/panels/FrameItem.h"
#include "i18n/LanguageManager.h"
#include "service/config/ConfigurationManager.h"
#include "ui/ControlPage.h"
#include "ui/HomePage.h"
#include "ui/PortNoticeBar.h"
#include "ui/dialogs/ControllerConfigDialog.h"
#include "ui/dialogs/HelpDialog.h"
#include "ui/widgets/GradientWidget.h"

#include <QCryptographicHash>
#include <QTemporaryDir>
#include <QtTest>
#include <QtWidgets>

#include <X11/keysym.h>
#include <fcntl.h>
#include <functional>
#include <linux/capability.h>
#include <memory>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

using Rgb = VirtualLedDevice::Rgb;
using TestWidgets::child;
using TestWidgets::onModal;

namespace {
constexpr int kFoundMs = AppRig::kFoundMs;
const QString kSingle = QStringLiteral("com.orvanta.singleColor.singleColor1");
const QString kColourful = QStringLiteral("com.orvanta.colorful");
const QRegularExpression kChinese(QStringLiteral("[\\x{4e00}-\\x{9fff}]"));
const QString kRunning = QStringLiteral("0.2.0.230805");
const QString kNewer = QStringLiteral("0.2.0.230901");

// Root without what passes over file modes and exclusive ports, as a user at the desktop is: out
// of the effective, permitted and inheritable sets of this thread, which does the opening.
bool dropFileCapabilities()
{
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[2] = {};
    if (::syscall(SYS_capget, &header, data) != 0) {
        return false;
    }
    for (int cap : {CAP_DAC_OVERRIDE, CAP_DAC_READ_SEARCH, CAP_SYS_ADMIN}) {
        const quint32 bit = ~(1u << (cap % 32));
        data[cap / 32].effective &= bit;
        data[cap / 32].permitted &= bit;
        data[cap / 32].inheritable &= bit;
    }
    return ::syscall(SYS_capset, &header, data) == 0;
}
} // namespace

// The application end to end in one process: real discovery on virtual strips, the real window.
class TestOrvantaApp : public QObject, private AppRig
{
    Q_OBJECT
private:
    LocalHttpsService service;
    QTemporaryDir scratch;
    QByteArray package; // a real one of kNewer

    // The program's online services at the local service, their routes set for `sha256`.
    void serve(const QByteArray& sha256)
    {
        qputenv("ORVANTA_SERVICE_URL", service.baseUrl().toString().toUtf8());
        qputenv("ORVANTA_SERVICE_CA", service.caFile().toUtf8());
        const QJsonObject latest{{"version", kNewer},
                                 {"url", "orvanta.deb"},
                                 {"sha256", QString::fromLatin1(sha256.toHex())},
                                 {"size", package.size()}};
        const QString folder = "/v1/linux-" + ServiceHttp::architecture();
        service.setRoute(folder + "/latest.json", ScriptedReply::json(QJsonDocument(latest).toJson()));
        ScriptedReply deb;
        deb.body = package;
        service.setRoute(folder + "/orvanta.deb", deb);
    }

    ControlPage* page() { return app->window().controlPage(); }
    QStackedWidget* stack() { return child<QStackedWidget>(&app->window(), "mainStackedWidget"); }

    QToolButton* deviceButton(const QString& id)
    {
        const QList<QToolButton*> all = app->window().homePage()->findChildren<QToolButton*>();
        auto it = std::find_if(all.begin(), all.end(),
                               [&](QToolButton* b) { return b->property("controllerId") == id; });
        return it != all.end() ? *it : nullptr;
    }

    void openDevice(const QString& id)
    {
        QToolButton* button = deviceButton(id);
        QVERIFY(button);
        QTest::mouseClick(button, Qt::LeftButton, {}, QPoint(button->width() / 2, 20));
        QCOMPARE(stack()->currentWidget(), page());
    }

    // The group's button, then the effect's, as the user picks them on the control page.
    void choose(const QString& effectId)
    {
        const QString effect = app->effects().workerOptions(effectId).desc;
        for (const QString& tip : {app->effects().group(effectId.section('.', 0, -2)).desc,
                                   QCoreApplication::translate("EffectNames", qPrintable(effect))}) {
            for (QRadioButton* b : page()->findChildren<QRadioButton*>()) {
                if (b->toolTip() == tip) {
                    b->click(); // a group's click makes the effect buttons anew
                    break;
                }
            }
        }
        QCOMPARE(page()->currentWorkerId(), effectId);
    }

    QJsonObject stored(const QString& id)
    {
        ConfigurationManager::instance()->save();
        return TestFiles::readJson(ConfigurationManager::instance()->configPath() + "/controllers/" +
                                   QUrl::toPercentEncoding(id) + ".json");
    }

    // For a person to look at, in the build folder.
    void screenshot(const QString& name)
    {
        for (int i = 0; i < 3; ++i) { // buttons of a shown page appear and lay out through queued calls
            QCoreApplication::processEvents();
        }
        QVERIFY(QDir().mkpath("screenshots"));
        QVERIFY(app->window().grab().save(
            QString("screenshots/%1_%2x.png").arg(name).arg(app->window().devicePixelRatioF())));
    }

    // The effect chosen, its panel comes into view alone in the options, which take its height; the
    // layout editor takes the right part, or the device picture does; in English, no Chinese text.
    void showsPanel(const QString& effectId, bool english)
    {
        choose(effectId);
        QWidget* panel = app->effects().workerOptions(effectId).optionWidget;
        QWidget* large = app->effects().workerOptions(effectId).extraOptionWidget;
        QWidget* view = child<QScrollArea>(page(), "scrollArea")->viewport();
        QTRY_VERIFY(panel->isVisible() &&
                    view->rect().contains(panel->mapTo(view, panel->rect().bottomLeft())));
        QWidget* options = child<QWidget>(page(), "otherOptionsWidget");
        QCOMPARE(options->height(), panel->height());
        for (QWidget* parked :
             options->findChildren<AbsWorkerWidget*>(QString(), Qt::FindDirectChildrenOnly)) {
            QCOMPARE(parked->isVisible(), parked == panel);
        }
        QCOMPARE(child<QStackedWidget>(page(), "lOperateWidConatiner")->currentWidget(),
                 large ? large : child<QWidget>(page(), "productImgWid"));
        QStringList texts;
        for (QWidget* w : panel->findChildren<QWidget*>() +
                              (large ? large->findChildren<QWidget*>() : QList<QWidget*>())) {
            texts << w->property("text").toString();
        }
        QVERIFY2(!english || !texts.join(' ').contains(kChinese), qPrintable(texts.join(' ')));
        // Effect buttons without a picture of their own take one from the data folder.
        for (QRadioButton* b : child<QWidget>(page(), "workerContainer")->findChildren<QRadioButton*>()) {
            QVERIFY(!b->icon().isNull());
        }
        if (large) { // the editor on a live frame
            FrameItem* frame = nullptr;
            for (QGraphicsItem* item : large->findChild<QGraphicsView*>()->items()) {
                frame = frame ? frame : dynamic_cast<FrameItem*>(item);
            }
            QVERIFY(frame);
            QTRY_VERIFY(!frame->frame.isNull());
        }
    }

private slots:
    void initTestCase()
    {
        prepareApp();
        QCoreApplication::setApplicationVersion(kRunning);
        QVERIFY2(service.start(), qPrintable(service.errorString()));
        package = makeDebianPackage(scratch.path(), "orvanta", kNewer);
        QVERIFY(!package.isEmpty());
        // The one stand-in: a pkexec that records what it was asked to run.
        QVERIFY(TestFiles::write(scratch.filePath("bin/pkexec"), "#!/bin/sh\nprintf '%s\\n' \"$@\" >> '" +
                                                                     scratch.filePath("pkexec.log").toUtf8() +
                                                                     "'\n"));
        QVERIFY(QFile::setPermissions(scratch.filePath("bin/pkexec"), QFile::ReadOwner | QFile::ExeOwner));
    }

    void init() { ConfigurationManager::instance()->reset(); }
    void cleanup()
    {
        stop();
        qputenv("ORVANTA_SERVICE_URL", "off");
        service.clearRoutes();
        service.clearRecords();
    }

    // A start, the help dialog (showing the running version) and a feedback send reach the service
    // that "serviceUrl" names; with "off" there, or no base at all, no connection is made, one line
    // says so, and the feedback gets its error function.
    void onlineServicesOff_data()
    {
        QTest::addColumn<QString>("stored");
        QTest::addColumn<bool>("reaches");
        QTest::newRow("\"serviceUrl\" names the service") << "service" << true;
        QTest::newRow("\"serviceUrl\" off") << "off" << false;
        QTest::newRow("no base at all") << "" << false;
    }
    void onlineServicesOff()
    {
        QFETCH(QString, stored);
        QFETCH(bool, reaches);
        qunsetenv("ORVANTA_SERVICE_URL");
        qputenv("ORVANTA_SERVICE_CA", service.caFile().toUtf8());
        if (!stored.isEmpty()) {
            ConfigurationManager::instance()->setGlobalValue(
                "serviceUrl", stored == "service" ? service.baseUrl().toString() : stored);
        }
        LogCapture log;
        QVERIFY(start(0));
        QString shown;
        onModal<HelpDialog>(this, [&](HelpDialog* dialog) {
            shown = child<QLabel>(dialog, "currentVerLabel")->text();
            child<QPushButton>(dialog, "pushButton_send")->click();
            dialog->reject();
        });
        child<QPushButton>(&app->window(), "pushButton_help")->click();
        QCOMPARE(shown, kRunning);
        // The version check, the advertisement and the feedback.
        QTRY_VERIFY_WITH_TIMEOUT(log.contains("An error occurred while sending the feedback"), kFoundMs);
        QTest::qWait(300);
        QCOMPARE(service.requestCount(), reaches ? 3 : 0);
        QCOMPARE(log.count("[NetRCManager]: Online services", QtInfoMsg), 1);
        QCOMPARE(log.count("Online services are off", QtInfoMsg), reaches ? 0 : 1);
    }

    // Two announcements and one yes make one package request; a package that fails its check is
    // not installed, and without pkexec a sound one isn't either, nor a missing one: the program says
    // why and runs on.
    void updateNotInstalled_data()
    {
        QTest::addColumn<bool>("soundPackage");
        QTest::addColumn<QString>("path");
        QTest::addColumn<QString>("warning");
        QTest::newRow("hash mismatch") << false << QString("recorder") << "SHA-256 mismatch";
        QTest::newRow("no pkexec on PATH") << true << QString("none") << "pkexec is not on PATH";
    }
    void updateNotInstalled()
    {
        QFETCH(bool, soundPackage);
        QFETCH(QString, path);
        QFETCH(QString, warning);
        const QByteArray oldPath = qgetenv("PATH");
        qputenv("PATH", path == "none" ? scratch.filePath("empty").toUtf8()
                                       : scratch.filePath("bin").toUtf8() + ":" + oldPath);
        serve(soundPackage ? QCryptographicHash::hash(package, QCryptographicHash::Sha256)
                           : QByteArray(32, '\0'));
        LogCapture log;
        QVERIFY(start(0));
        auto* newVersion = child<QPushButton>(&app->window(), "newVersionBtn");
        QTRY_VERIFY_WITH_TIMEOUT(newVersion->isVisible(), kFoundMs);
        app->net().checkVersion();
        QTRY_COMPARE_WITH_TIMEOUT(log.count("A newer version is available"), 2, kFoundMs);
        onModal<QMessageBox>(this, [](QMessageBox* box) { box->defaultButton()->click(); });
        newVersion->click();
        QVERIFY(!newVersion->isVisible());
        QTRY_VERIFY_WITH_TIMEOUT(log.contains(warning, QtWarningMsg), kFoundMs);
        // Nor does a package that has gone before its installer could start.
        QVERIFY(QMetaObject::invokeMethod(app.get(), "runInstallProcess",
                                          Q_ARG(QString, scratch.filePath("gone.deb"))));
        QCOMPARE(log.count("The installer does not exist", QtWarningMsg), 1);
        // A quit for the installer would come 1 s after it started; this ends the loop after 2 s.
        QTimer::singleShot(2000, [] { QCoreApplication::exit(7); });
        QCOMPARE(QCoreApplication::exec(), 7);
        qputenv("PATH", oldPath);
        int packageRequests = 0;
        for (const RecordedRequest& request : service.requests()) {
            packageRequests += request.path.endsWith("/orvanta.deb") ? 1 : 0;
        }
        QCOMPARE(packageRequests, 1);
        QVERIFY(!log.contains("The installer is started"));
        QVERIFY(!QFile::exists(scratch.filePath("pkexec.log")));
    }

    // The program itself pointed at the service, on this X server: once it has asked, its window,
    // found by the handle it publishes, shows the red button on the bar and the served picture's two
    // flat colours filling the left panel.
    void updateEndToEnd()
    {
        serve(QCryptographicHash::hash(package, QCryptographicHash::Sha256));
        const QColor top(20, 160, 40);
        const QColor bottom(30, 60, 220);
        QImage ad(298, 798, QImage::Format_RGB32);
        ad.fill(top);
        QPainter(&ad).fillRect(0, 399, 298, 399, bottom);
        QBuffer png;
        png.open(QIODevice::WriteOnly);
        QVERIFY(ad.save(&png, "PNG"));
        ScriptedReply picture;
        picture.body = png.data();
        service.setRoute("/app/images/ad1.png", picture);
        service.setRoute("/app/get_advertisement_info.php",
                         ScriptedReply::json(R"({"enable": 1, "vertion": 5, "ad1_image_url": "images/ad1.png",
                                                 "ad1_local_file_name": "image/ad_images/ad1.png",
                                                 "ad1_image_href": ""})"));

        QTemporaryDir home; // the program's own folders and instance lock
        QProcess program;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        for (const char* name : {"XDG_RUNTIME_DIR", "XDG_CONFIG_HOME", "XDG_CACHE_HOME", "XDG_DATA_HOME"}) {
            env.insert(name, home.filePath(name));
            QVERIFY(QDir().mkpath(home.filePath(name)));
        }
        QFile::setPermissions(home.filePath("XDG_RUNTIME_DIR"),
                              QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        env.remove("ORVANTA_EXTRA_PORTS");
        env.insert("PATH", scratch.filePath("bin") + ":" + env.value("PATH"));
        program.setProcessEnvironment(env);
        program.setProcessChannelMode(QProcess::MergedChannels);
        program.start(QStringLiteral(ORVANTA_BINARY_PATH), QStringList());
        QVERIFY(program.waitForStarted());

        const QString global = home.filePath("XDG_CONFIG_HOME") + "/orvanta/global.json";
        QElapsedTimer clock;
        clock.start();
        QImage shot;
        WId window = 0;
        int red = 0;
        QPoint redCentre;
        int topShown = 0;
        int bottomShown = 0;
        const int half = 298 * 399;
        const bool shown = QTest::qWaitFor(
            [&] {
                window = TestFiles::readJson(global).value("mainWindowHandler").toString().toULongLong();
                if (window == 0 || program.state() != QProcess::Running) {
                    return program.state() != QProcess::Running;
                }
                shot = QGuiApplication::primaryScreen()->grabWindow(window).toImage().convertToFormat(
                    QImage::Format_RGB32);
                red = topShown = bottomShown = 0;
                QPoint redSum;
                for (int y = 0; y < shot.height(); ++y) {
                    const QRgb* line = reinterpret_cast<const QRgb*>(shot.constScanLine(y));
                    for (int x = 0; x < shot.width(); ++x) {
                        // The button's red, as the style sheet shades it, on the bar.
                        if (y < 60 && qRed(line[x]) >= 150 && qGreen(line[x]) < 90 && qBlue(line[x]) < 90) {
                            ++red;
                            redSum += QPoint(x, y);
                        }
                        topShown += line[x] == top.rgb() ? 1 : 0;
                        bottomShown += line[x] == bottom.rgb() ? 1 : 0;
                    }
                }
                redCentre = red > 0 ? redSum / red : QPoint();
                return red > 0 && topShown > half * 9 / 10 && bottomShown > half * 9 / 10;
            },
            4 * kFoundMs);
        qInfo("the button and the advertisement %s %lld ms after the start",
              shown ? "showed" : "had not shown", clock.elapsed());
        QVERIFY(QDir().mkpath("screenshots"));
        QVERIFY(shot.isNull() || shot.save("screenshots/update_offered_1x.png"));
        QByteArray out = program.readAll();
        QCOMPARE(program.state(), QProcess::Running);
        QVERIFY2(red >= 100, qPrintable(QString("%1 red pixels").arg(red)));
        QVERIFY2(topShown > half * 9 / 10 && bottomShown > half * 9 / 10,
                 qPrintable(QString("%1 and %2 pixels of the advertisement").arg(topShown).arg(bottomShown)));
        QVERIFY(out.contains("[NetRCManager]: A newer version is available: " + kNewer.toUtf8()));

        // The user clicks the button and answers the box with Return, as a person would.
        X11Peer peer;
        QVERIFY2(peer.open(qEnvironmentVariable("DISPLAY")), qPrintable(peer.errorString()));
        std::unique_ptr<QWindow> foreign(QWindow::fromWinId(window));
        peer.click(foreign->mapToGlobal(redCentre));
        const QString packagePath = "/v1/linux-" + ServiceHttp::architecture() + "/orvanta.deb";
        const auto packageRequests = [&] {
            int n = 0;
            for (const RecordedRequest& request : service.requests()) {
                n += request.path == packagePath.toUtf8() ? 1 : 0;
            }
            return n;
        };
        // Return again until the box has taken it: elsewhere in the window it does nothing.
        QVERIFY(QTest::qWaitFor(
            [&] {
                peer.tap({XK_Return});
                return QTest::qWaitFor([&] { return packageRequests() > 0; }, 300);
            },
            4 * kFoundMs));
        QTRY_VERIFY_WITH_TIMEOUT((out += program.readAll()).contains("The installer is started"),
                                 4 * kFoundMs);
        clock.restart();
        QVERIFY(program.waitForFinished(10 * 1000 + 30000));
        qInfo("the program ended %lld ms after it started the installer", clock.elapsed());
        QVERIFY2(program.exitStatus() == QProcess::NormalExit && program.exitCode() == 0,
                 QByteArray(out + program.readAll()).right(2000).constData());
        QCOMPARE(packageRequests(), 1);
        const QString installed = home.filePath("XDG_CACHE_HOME") + "/orvanta/updates/orvanta_" + kNewer +
                                  "_" + ServiceHttp::architecture() + ".deb";
        QTRY_COMPARE_WITH_TIMEOUT(TestFiles::read(scratch.filePath("pkexec.log")),
                                  "/usr/bin/apt-get\ninstall\n-y\n" + installed.toUtf8() + "\n",
                                  4 * kFoundMs);
        QVERIFY(QFile::remove(scratch.filePath("pkexec.log")));
        QCOMPARE(TestFiles::readJson(global).value("latestVerion").toObject().value("version").toString(),
                 kNewer);
        // The installer starts the program again, which takes the instance lock. It was started
        // detached, and a parent that does not reap may keep it a zombie: that counts as gone.
        const auto alive = [](qint64 pid) {
            const QByteArray stat = TestFiles::read(QString("/proc/%1/stat").arg(pid));
            const int end = stat.lastIndexOf(')');
            return end > 0 && stat.size() > end + 2 && stat.at(end + 2) != 'Z';
        };
        QLockFile lock(SingleInstance::lockFilePathFor(home.filePath("XDG_RUNTIME_DIR"), ::getuid()));
        qint64 again = 0;
        QTRY_VERIFY_WITH_TIMEOUT(lock.getLockInfo(&again, nullptr, nullptr) && again != program.processId() &&
                                     alive(again),
                                 4 * kFoundMs);
        QCOMPARE(::kill(pid_t(again), SIGTERM), 0);
        QTRY_VERIFY_WITH_TIMEOUT(!alive(again), 4 * kFoundMs);
    }

    // A device whose stored effect is gone arrives on single colour, which is stored in its place;
    // announced again, it is bound anew and keeps running. (A stored effect that exists is what
    // the speed cases run.)
    void arrivalOnAGoneEffect()
    {
        Strip strip("OV5512", "AAAA", link("strip1"));
        storeDevice(strip.id, {{"workMode", kColourful}, {"subMode", "com.orvanta.colorful.removed"}});
        QVERIFY(start(1));
        QCOMPARE(app->devices().controlOptions(strip.id).subMode, kSingle);
        QCOMPARE(stored(strip.id).value("subMode").toString(), kSingle);
        QTRY_VERIFY_WITH_TIMEOUT(strip.device.frameCount() > 2 && strip.device.lastCount() == 72, kFoundMs);
        emit app->devices().newController(strip.id);
        strip.watch(2);
        QCOMPARE(app->devices().controlOptions(strip.id).subMode, kSingle);
    }

    // A stored layout a frame cannot carry or whose lines don't add up: one warning naming the
    // value, and the strip dialog at arrival, with the window in the tray. Every line lights in its
    // colour while the user types; Return moves to the next box; the boxes stop at 65535 LEDs. OK
    // stores the lines shown; a cancel releases the device; a SIGTERM restores the layout, so the
    // next start asks again. Neither OK nor cancel ends the program.
    void stripDialog_data()
    {
        QTest::addColumn<QJsonObject>("layout");
        QTest::addColumn<QString>("warning");
        QTest::addColumn<int>("ending"); // 0 OK, 1 the header's close button, 2 SIGTERM
        QTest::addColumn<QJsonObject>("kept");
        const QJsonObject none{{"nbLeds", 0}, {"lines", QJsonArray()}};
        QTest::newRow("lines that don't add up, OK after a row removed")
            << QJsonObject{{"nbLeds", 60}, {"lines", QJsonArray{30, 20}}}
            << "\"lines\" add up to 50, not \"nbLeds\" 60" << 0
            << QJsonObject{{"nbLeds", 30}, {"lines", QJsonArray{10, 20}}};
        QTest::newRow("2000000000 LEDs, cancelled")
            << QJsonObject{{"nbLeds", 2000000000}, {"lines", QJsonArray{2000000000}}}
            << "\"nbLeds\" is 2000000000, not a count" << 1 << none;
        QTest::newRow("-5 LEDs, SIGTERM") << QJsonObject{{"nbLeds", -5}, {"lines", QJsonArray{-5}}}
                                          << "\"nbLeds\" is -5, not a count" << 2 << none;
        QTest::newRow("lines that don't add up, SIGTERM")
            << QJsonObject{{"nbLeds", 60}, {"lines", QJsonArray{30, 20}}}
            << "\"lines\" add up to 50, not \"nbLeds\" 60" << 2
            << QJsonObject{{"nbLeds", 60}, {"lines", QJsonArray{30, 20}}};
    }
    void stripDialog()
    {
        QFETCH(QJsonObject, layout);
        QFETCH(QString, warning);
        QFETCH(int, ending);
        QFETCH(QJsonObject, kept);
        Strip strip("OV5512", "BBBB", link("strip1"));
        storeDevice(strip.id, layout);
        LogCapture log;
        ShutdownSignals shutdown;
        connect(&shutdown, &ShutdownSignals::shutdownRequested, qApp, &QCoreApplication::quit);
        QVERIFY(shutdown.install());
        onModal<ControllerConfigDialog>(this, [&](ControllerConfigDialog* dialog) {
            const auto steps = [&] {
                QCOMPARE(log.count(warning), 1);
                auto* add = child<QPushButton>(dialog, "addBtn");
                for (int i = 1; i <= 3; ++i) {
                    add->click();
                    dialog->findChildren<QSpinBox*>().last()->setValue(10 * i);
                }
                QTRY_COMPARE(strip.device.lastColors().value(59), (Rgb{255, 165, 0}));
                QCOMPARE(strip.device.lastColors()[0], (Rgb{255, 0, 0}));
                QCOMPARE(strip.device.lastColors()[10], (Rgb{0, 128, 0}));
                const QList<QSpinBox*> boxes = dialog->findChildren<QSpinBox*>();
                boxes[0]->setFocus();
                QTest::keyClick(boxes[0], Qt::Key_Return);
                QCOMPARE(dialog->focusWidget(), boxes[1]);
                QTest::keyClick(boxes[2], Qt::Key_Enter);
                QVERIFY(dialog->isVisible());
                // A row removed lowers the total at once and sends nothing: the preview keeps it lit.
                child<QPushButton>(dialog, "removeBtn")->click();
                QCOMPARE(child<QLabel>(dialog, "totalLabel")->text(), QString("总计 30 个LED灯珠"));
                strip.watch(0);
                QCOMPARE(strip.device.lastColors().value(59), (Rgb{255, 165, 0}));
                boxes[0]->setValue(99999);
                QCOMPARE(child<QLabel>(dialog, "totalLabel")->text(), QString("总计 65535 个LED灯珠"));
                boxes[0]->setValue(10);
            };
            steps();
            if (QTest::currentTestFailed() || ending == 0) {
                dialog->accept();
            } else if (ending == 1) {
                QTest::mouseClick(child<QToolButton>(dialog, "toolButton"), Qt::LeftButton);
            } else {
                ::raise(SIGTERM);
                return;
            }
            QMetaObject::invokeMethod(
                qApp, [] { QCoreApplication::exit(42); }, Qt::QueuedConnection);
        });
        QTimer noDialog;
        connect(&noDialog, &QTimer::timeout, qApp, [] { QCoreApplication::exit(-1); });
        noDialog.start(4 * kFoundMs);
        start(0);
        app->window().hide();
        QCOMPARE(QCoreApplication::exec(), ending == 2 ? 0 : 42);
        QVERIFY(!QTest::currentTestFailed());
        QCOMPARE(app->devices().controllerNames(), ending == 0 ? QStringList{strip.id} : QStringList());
        QCOMPARE(log.count("The strip dialog was open when the program quit"), int(ending == 2));
        const QJsonObject stored = this->stored(strip.id);
        QCOMPARE(stored.value("nbLeds"), kept.value("nbLeds"));
        QCOMPARE(stored.value("lines"), kept.value("lines"));
    }

    // The program itself on a stored layout it cannot use: it runs on, names the value once and
    // waits at the strip dialog with the strip dark; a SIGTERM there ends it normally, the layout
    // left as it was.
    void badLayoutInTheProgram_data()
    {
        QTest::addColumn<QJsonObject>("layout");
        QTest::addColumn<QString>("warning");
        QTest::addColumn<QJsonObject>("kept");
        const QJsonObject none{{"nbLeds", 0}, {"lines", QJsonArray()}};
        QTest::newRow("2000000000 LEDs")
            << QJsonObject{{"nbLeds", 2000000000}, {"lines", QJsonArray{2000000000}}}
            << "\"nbLeds\" is 2000000000, not a count" << none;
        QTest::newRow("-5 LEDs") << QJsonObject{{"nbLeds", -5}, {"lines", QJsonArray{-5}}}
                                 << "\"nbLeds\" is -5, not a count" << none;
        const QJsonObject short50{{"nbLeds", 60}, {"lines", QJsonArray{30, 20}}};
        QTest::newRow("lines that don't add up")
            << short50 << "\"lines\" add up to 50, not \"nbLeds\" 60" << short50;
    }
    void badLayoutInTheProgram()
    {
        QFETCH(QJsonObject, layout);
        QFETCH(QString, warning);
        QFETCH(QJsonObject, kept);
        Strip strip("OV5512", "CCCC", link("strip1"));
        const QString folder = QString::fromLocal8Bit(qgetenv("XDG_CONFIG_HOME")) + "/orvanta";
        const QString file = folder + "/controllers/" + QUrl::toPercentEncoding(strip.id) + ".json";
        QVERIFY(QDir(folder).removeRecursively());
        QVERIFY(TestFiles::write(file, QJsonDocument(layout).toJson()));
        QTemporaryDir runtime; // its own instance lock, whatever else runs beside this test
        QProcess program;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("XDG_RUNTIME_DIR", runtime.path());
        env.insert("QT_QPA_PLATFORM", "offscreen");
        env.insert("ORVANTA_EXTRA_PORTS", strip.device.linkPath());
        program.setProcessEnvironment(env);
        program.setProcessChannelMode(QProcess::MergedChannels);
        program.start(QStringLiteral(ORVANTA_BINARY_PATH), QStringList());
        QByteArray out;
        const QByteArray asking = "[OrvantaApp]: Asking for the strips of " + strip.id.toUtf8();
        QTRY_VERIFY_WITH_TIMEOUT((out += program.readAll()).contains(asking), 4 * kFoundMs);
        QCOMPARE(program.state(), QProcess::Running);
        QCOMPARE(out.count(warning.toUtf8()), 1);
        const QVector<Rgb> leds = strip.device.lastColors();
        QVERIFY(std::all_of(leds.begin(), leds.end(), [](Rgb c) { return c == Rgb{}; }));
        QCOMPARE(::kill(pid_t(program.processId()), SIGTERM), 0);
        QVERIFY(program.waitForFinished(30000));
        QVERIFY2(program.exitStatus() == QProcess::NormalExit && program.exitCode() == 0,
                 QByteArray(out + program.readAll()).right(2000).constData());
        const QJsonObject stored = TestFiles::readJson(file);
        QCOMPARE(stored.value("nbLeds"), kept.value("nbLeds"));
        QCOMPARE(stored.value("lines"), kept.value("lines"));
    }

    // The control page and the colour panels drive the strip shown, and only that one; the program
    // itself starts again on what they set.
    void pagesDriveTheStrip()
    {
        Strip a("OV2408", "AAAA", link("strip1"));
        Strip b("OV2408", "BBBB", link("strip2"));
        storeDevice(a.id);
        storeDevice(b.id);
        QVERIFY(start(2));
        auto box = [&](const char* name) { return child<QSpinBox>(page(), name); };
        openDevice(a.id);
        box("Rbox")->setValue(10);
        box("Gbox")->setValue(20);
        box("Bbox")->setValue(30);
        QTRY_COMPARE(a.first(), (Rgb{10, 20, 30}));
        // The wheel's ring at the top: hue 90, the saturation and value the boxes gave.
        auto* wheel = child<QWidget>(page(), "colorWheel");
        QTest::mouseClick(wheel, Qt::LeftButton, {}, QPoint(wheel->width() / 2, 5));
        const QColor turned = QColor::fromHsv(90, QColor(10, 20, 30).hsvSaturation(), 30).toRgb();
        QTRY_COMPARE(QColor(a.first().r, a.first().g, a.first().b), turned);
        QCOMPARE(box("Gbox")->value(), turned.green());
        // The dialog, over the main window: a chosen colour reaches the strip; a cancel changes nothing.
        int answered = 0;
        for (const QColor& answer : {QColor(0, 128, 255), QColor()}) {
            onModal<QColorDialog>(this, [&](QColorDialog* dialog) {
                answered += dialog->parentWidget() == &app->window();
                dialog->setCurrentColor(answer);
                answer.isValid() ? dialog->accept() : dialog->reject();
            });
            QTest::mouseClick(child<QPushButton>(page(), "selectColorBtn"), Qt::LeftButton);
            a.watch();
            QCOMPARE(a.first(), (Rgb{0, 128, 255}));
        }
        QCOMPARE(answered, 2);
        // The page's own controls: brightness, direction, off and on; a rename on the home page.
        child<QSlider>(page(), "brightnessSlider")->setValue(50);
        QTRY_COMPARE(a.first(), (Rgb{0, 64, 127}));
        child<QRadioButton>(page(), "installDirectionRTLButton")->click();
        child<QRadioButton>(page(), "LEDDisableButton")->click();
        QTRY_COMPARE(a.first(), (Rgb{0, 0, 0}));
        child<QRadioButton>(page(), "LEDEnableButton")->click();
        QToolButton* button = deviceButton(a.id);
        QTest::mouseClick(button, Qt::LeftButton, {}, QPoint(button->width() / 2, button->height() - 5));
        QTest::keyClicks(button->findChild<QLineEdit*>(), "Desk");
        QTest::keyClick(button->findChild<QLineEdit*>(), Qt::Key_Return);
        // The shared panel now points at b: a's strip keeps its colour.
        openDevice(b.id);
        box("Rbox")->setValue(200);
        QTRY_COMPARE(b.first().r, uint8_t(200));
        a.watch();
        QCOMPARE(a.first(), (Rgb{0, 64, 127}));

        // The mood shadow's straps: one added and removed again, never below one.
        choose("com.orvanta.colorful.moodShadow");
        auto* straps = child<QComboBox>(page(), "colorStrapBox");
        auto* remove = child<QPushButton>(page(), "rmBtn");
        const int rows = straps->count();
        child<QPushButton>(page(), "addBtn")->click();
        QCOMPARE(straps->currentIndex(), rows);
        for (int i = 0; i < rows; ++i) {
            QVERIFY(remove->isEnabled());
            remove->click();
        }
        QCOMPARE(straps->count(), 1);
        QVERIFY(!remove->isEnabled());
        // A key put on the bar reaches the strip: speed 0, range 1, one green key in white.
        child<QSlider>(page(), "speedSlider")->setValue(0);
        child<QSlider>(page(), "rangeSlider")->setValue(1000);
        auto* bar = child<GradientWidget>(page(), "gradientEditor");
        bar->setKeyColors({});
        bar->setEndsColor(Qt::white);
        bar->addKeyColor(Qt::green, 0.5);
        auto greenShown = [&] {
            const QVector<Rgb> leds = b.device.lastColors();
            return std::any_of(leds.begin(), leds.end(),
                               [](Rgb c) { return c.g > 200 && c.r < 60 && c.b < 60; });
        };
        QTRY_VERIFY(greenShown());

        // Once the program object is gone, the program itself starts on what was set, kept under
        // its own name.
        const QString here = ConfigurationManager::instance()->configPath();
        stop();
        const QJsonObject storedA = stored(a.id);
        QVERIFY(storedA.value("kindName") == "Desk" && storedA.value("installDirection") == 1);
        ConfigurationManager::instance()->save(); // what is still queued for writing
        const QString there = QString::fromLocal8Bit(qgetenv("XDG_CONFIG_HOME")) + "/orvanta";
        QVERIFY(QDir(there).removeRecursively() && TestFiles::copyTree(here, there));
        QTemporaryDir runtime; // its own instance lock, whatever else runs beside this test
        QProcess program;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("XDG_RUNTIME_DIR", runtime.path());
        env.insert("QT_QPA_PLATFORM", "offscreen");
        program.setProcessEnvironment(env);
        program.start(QStringLiteral(ORVANTA_BINARY_PATH), QStringList());
        QTRY_VERIFY_WITH_TIMEOUT(a.first() == (Rgb{0, 64, 127}) && greenShown(), kFoundMs);
        QCOMPARE(::kill(pid_t(program.processId()), SIGTERM), 0);
        QVERIFY(program.waitForFinished(30000) && program.exitCode() == 0);
    }

    // The speed sliders, read off the first LED of consecutive frames. The rainbow's hue moves by
    // the slider's value times 0.0005 a frame, whatever the time between frames. The colour map
    // plays a picture whose rows are a ramp, so the LED names the row: rows per second against the
    // frames' own arrival times, fitted over a run of frames so that a late one hardly tilts it.
    void speedSliders_data()
    {
        QTest::addColumn<QString>("effect");
        QTest::addColumn<int>("slider");
        QTest::addColumn<double>("expected");
        QTest::newRow("rainbow 0 stands still") << "flowingEffect" << 0 << 0.0;
        QTest::newRow("rainbow 100") << "flowingEffect" << 100 << 0.05;
        QTest::newRow("colour map 0") << "ColorMap_7" << 0 << 15.0;
        QTest::newRow("colour map 100") << "ColorMap_7" << 100 << 30.0;
        QTest::newRow("colour map 200") << "ColorMap_7" << 200 << 120.0;
    }
    void speedSliders()
    {
        QFETCH(QString, effect);
        QFETCH(int, slider);
        QFETCH(double, expected);
        QImage ramp(8, 256, QImage::Format_RGB32);
        for (int y = 0; y < ramp.height(); ++y) {
            std::fill_n(reinterpret_cast<QRgb*>(ramp.scanLine(y)), ramp.width(), qRgb(y, 0, 0));
        }
        QVERIFY(ramp.save("effects/colorful/ColorMap_7.png"));
        Strip strip("OV2408", "AAAA", link("strip1"));
        storeDevice(strip.id, {{"workMode", kColourful}, {"subMode", QString(kColourful + '.' + effect)}});
        QVERIFY(start(1));
        openDevice(strip.id);
        child<QSlider>(page(), "speedSlider")->setValue(slider);
        strip.watch(1); // frames already on their way at the old speed
        QVector<QPair<double, Rgb>> seen;
        QObject context;
        connect(&strip.device, &VirtualLedDevice::frameReceived, &context, [&] {
            seen.append({strip.device.lastFrameTimeNs() / 1e9, strip.first()});
        });
        QTRY_VERIFY_WITH_TIMEOUT(seen.size() > 40 && seen.last().first - seen.first().first > 1.5, 20000);

        auto hue = [&](int i) { return QColor(seen[i].second.r, seen[i].second.g, seen[i].second.b).hueF(); };
        QVector<double> steps; // the median: a frame the port dropped or the reset at a full turn is rare
        double rows = 0, sx = 0, sy = 0, sxx = 0, sxy = 0;
        for (int i = 1; i < seen.size(); ++i) {
            steps << hue(i) - hue(i - 1) + (hue(i) < hue(i - 1) - 0.5 ? 1.0 : 0.0);
            rows += (seen[i].second.r - seen[i - 1].second.r + 256) % 256;
            const double t = seen[i].first - seen[0].first;
            sx += t;
            sy += rows;
            sxx += t * t;
            sxy += t * rows;
        }
        std::sort(steps.begin(), steps.end());
        const int n = seen.size() - 1;
        const bool rainbow = effect == "flowingEffect";
        const double measured = rainbow ? steps[n / 2] : (n * sxy - sx * sy) / (n * sxx - sx * sx);
        QVERIFY2(qAbs(measured - expected) <= (rainbow ? 0.003 : expected * 0.2),
                 qPrintable(QString::number(measured)));
        // The six colour maps share the one panel.
        auto panelOf = [&](int i) {
            return app->effects().workerOptions(kColourful + ".ColorMap_" + QString::number(i));
        };
        for (int i = 4; i <= 8; ++i) {
            QCOMPARE(panelOf(i).optionWidget, panelOf(3).optionWidget);
        }
    }

    QList<PortNoticeBar*> notices(const QString& port)
    {
        QList<PortNoticeBar*> shown;
        for (PortNoticeBar* bar : app->window().homePage()->findChildren<PortNoticeBar*>()) {
            if (bar->port() == port && !bar->isHidden()) {
                shown << bar;
            }
        }
        return shown;
    }

    // Ports the user means that do not open: a node of mode 000 and a port another program holds
    // exclusively each give their warning and a bar naming the port and the remedy, with the
    // command to copy where there is one, and no device. Once per port and run: closed, or failing
    // again, no second bar. Mode 0600 and the link made again find the device and take its bar
    // away. As root, a child without the capabilities that pass over modes does it.
    void portNotice()
    {
        if (::geteuid() == 0 && qgetenv("ORVANTA_TEST_NO_DAC") != "1") {
            const Command::Result child = Command::rerun({"portNotice"}, {{"ORVANTA_TEST_NO_DAC", "1"}});
            QVERIFY2(child.exitCode == 0, qPrintable(child.out.right(8000)));
            QVERIFY(child.out.contains("PASS   : TestOrvantaApp::portNotice()"));
            return;
        }
        QVERIFY(::geteuid() != 0 || dropFileCapabilities());
        Strip strip("OV5512", "CCCC", link("strip1"));
        Strip held("OV2408", "DDDD", link("strip2"));
        storeDevice(strip.id);
        storeDevice(held.id);
        const QByteArray node = QFile::encodeName(strip.device.slavePath());
        QVERIFY(::chmod(node.constData(), 0) == 0);
        const int holder = ::open(QFile::encodeName(held.device.slavePath()).constData(), O_RDWR | O_NOCTTY);
        QVERIFY(holder >= 0 && ::ioctl(holder, TIOCEXCL) == 0);
        LanguageManager::instance()->setLanguage("en");
        LogCapture log;
        const QString refused = "[OVControllerEnumerator]: Cannot open " + link("strip1") +
                                ": plug the device "
                                "in again now the rule is installed, or run \"sudo usermod -aG ";
        const QString busy =
            "[OVControllerEnumerator]: Cannot open " + link("strip2") + ": another program holds the port";
        QVERIFY(start(0));
        QTRY_VERIFY_WITH_TIMEOUT(log.contains(refused, QtWarningMsg) && log.contains(busy, QtWarningMsg),
                                 kFoundMs);
        QVERIFY(app->devices().controllerNames().isEmpty());
        QTRY_VERIFY(notices(link("strip1")).size() == 1 && notices(link("strip2")).size() == 1);
        PortNoticeBar* bar = notices(link("strip1")).first();
        QVERIFY2(
            bar->text().contains("Plug the device in again now the rule is installed, or run “sudo usermod "
                                 "-aG "),
            qPrintable(bar->text()));
        QTest::mouseClick(child<QPushButton>(bar, "portNoticeCopy"), Qt::LeftButton);
        QVERIFY(QGuiApplication::clipboard()->text().startsWith("sudo usermod -aG "));
        PortNoticeBar* busyBar = notices(link("strip2")).first();
        QVERIFY(busyBar->text().contains("another program holds the port") &&
                !busyBar->findChild<QPushButton*>("portNoticeCopy"));
        stack()->setCurrentWidget(app->window().homePage());
        for (const QString language : {"en", "zh"}) {
            LanguageManager::instance()->setLanguage(language);
            QTRY_VERIFY(bar->text().contains(language == "en" ? "Cannot open" : "无法打开"));
            // Nothing clipped: the words have the height they need at this width.
            auto* words = child<QLabel>(bar, "portNoticeText");
            QVERIFY(bar->isVisible() && words->height() >= words->heightForWidth(words->width()));
            screenshot("port_notice_" + language);
        }

        // Failing again after its bar was closed: the warning, but no second bar.
        QTest::mouseClick(child<QToolButton>(busyBar, "portNoticeClose"), Qt::LeftButton);
        QTRY_VERIFY(notices(link("strip2")).isEmpty());
        QVERIFY(QFile::remove(link("strip2")) && QFile::link(held.device.slavePath(), link("strip2")));
        QTRY_VERIFY_WITH_TIMEOUT(log.count(busy, QtWarningMsg) == 2, kFoundMs);
        QVERIFY(notices(link("strip2")).isEmpty());

        QVERIFY(::chmod(node.constData(), 0600) == 0);
        QVERIFY(QFile::remove(link("strip1")) && QFile::link(strip.device.slavePath(), link("strip1")));
        QTRY_VERIFY_WITH_TIMEOUT(app->devices().controllerNames() == QStringList{strip.id}, kFoundMs);
        QTRY_VERIFY(notices(link("strip1")).isEmpty());
        QVERIFY(!child<QWidget>(app->window().homePage(), "portNoticeArea")->isVisible());
        strip.watch(2);
        QVERIFY(::ioctl(holder, TIOCNXCL) == 0 && ::close(holder) == 0);
    }

    // A failed device is unbound and the page that shows it goes back home; the other stays.
    void deviceFailures()
    {
        Strip a("OV5512", "AAAA", link("strip1"));
        Strip b("OV2408", "BBBB", link("strip2"));
        storeDevice(a.id);
        storeDevice(b.id);
        QVERIFY(start(2));
        openDevice(a.id);
        a.device.close();
        QTRY_VERIFY_WITH_TIMEOUT(!app->devices().controllerNames().contains(a.id), kFoundMs);
        QCOMPARE(stack()->currentWidget(), app->window().homePage());
        QVERIFY(!deviceButton(a.id) && deviceButton(b.id));
        b.watch();
    }

    // Started for the tray the window stays hidden; a second start shows a hidden window, not a
    // minimised one. English relabels the open window at once; every catalogue name has its
    // English. Each panel comes into view on the control page, in English without a Chinese text;
    // the layout editor takes the right part for full screen only; pictures of the window with
    // each. The tray's quit ends the loop, the strip goes dark, the effect is saved.
    void windowLanguageAndPanels()
    {
        Strip strip("OV5512", "FFFF", link("strip1"));
        qApp->setProperty("isAutoStartup", true);
        QVERIFY(start(1));
        qApp->setProperty("isAutoStartup", false);
        MainWindow& window = app->window();
        QVERIFY(!window.isVisible() || window.isMinimized());
        window.showMinimized();
        app->onShowRequested();
        QVERIFY(window.isMinimized());
        window.hide();
        app->onShowRequested();
        QVERIFY(window.isVisible() && !window.isMinimized());
        LanguageManager::instance()->setLanguage("en");
        QTRY_COMPARE(child<QPushButton>(&window, "pushButton_home")->text(), QString("Home"));
        // Setting a button's text drops its shortcut: relabelling must set it again.
        QCOMPARE(child<QPushButton>(&window, "pushButton_home")->shortcut(), QKeySequence("Alt+H"));
        QCOMPARE(window.findChild<QMenu*>()->actions().last()->text(), QString("Quit"));
        QCOMPARE(child<QLabel>(page(), "brightnessHeader")->text(), QString("  Brightness"));
        QCOMPARE(child<QLabel>(window.homePage(), "label_3")->text(), QString("Lighting devices"));
        QCOMPARE(window.windowTitle(), QString("Orvanta"));
        // Group and effect names come from data.
        for (const QString& groupId : app->effects().groupIds()) {
            const EffectGroup group = app->effects().group(groupId);
            QStringList names{QCoreApplication::translate("GroupInformation", qPrintable(group.name))};
            for (const QString& effectId : group.effects) {
                const QString name = app->effects().workerOptions(effectId).name;
                names << QCoreApplication::translate("EffectNames", qPrintable(name));
            }
            QVERIFY2(!names.join(' ').contains(kChinese), qPrintable(names.join(' ')));
        }

        for (const QString language : {"en", "zh"}) {
            LanguageManager::instance()->setLanguage(language);
            stack()->setCurrentWidget(window.homePage());
            QTRY_VERIFY(deviceButton(strip.id)->isVisible());
            // The dark theme reached the window: the device panel's ground.
            QCOMPARE(window.grab().toImage().pixelColor(QPoint(1200, 300) * window.devicePixelRatioF()),
                     QColor(34, 34, 34));
            screenshot("home_" + language);
            openDevice(strip.id);
            for (const char* effect :
                 {"singleColor.singleColor1", "colorful.flowingEffect", "colorful.ColorMap_3",
                  "colorful.moodShadow", "screenSync.topHalfScreen", "screenSync.fullScreen",
                  "dynamicMusic.mode_1", "dynamicMusic.mode_2"}) {
                showsPanel(QString("com.orvanta.") + effect, language == "en");
                screenshot(QString("panel_%1_%2").arg(QString(effect).section('.', -1), language));
            }
        }

        LogCapture log;
        QTimer::singleShot(0, window.findChild<QMenu*>()->actions().last(), &QAction::trigger);
        QCOMPARE(QCoreApplication::exec(), 0);
        QVERIFY(log.contains("[OrvantaApp]: The application is exiting..."));
        stop();
        QTRY_COMPARE(strip.first(), (Rgb{0, 0, 0}));
        QCOMPARE(stored(strip.id).value("subMode").toString(), QString("com.orvanta.dynamicMusic.mode_2"));
    }
};

QTEST_MAIN(TestOrvantaApp)
#include "tst_OrvantaApp.moc"
