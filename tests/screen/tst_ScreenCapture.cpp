#include "AbsScreenSync.h"
#include "ConfigurationManager.h"
#include "DeskCaptureOption.h"
#include "DeskCapturer.h"
#include "DeskDuplManager.h"
#include "DeviceRig.h"
#include "EffectsManager.h"
#include "LogCapture.h"
#include "ScreenRig.h"
#include "TestFiles.h"

#include "AbsWorkerWidget.h"
#include "LEDItem.h"
#include "ScreenSyncEditScene.h"
#include "ScreenSyncEditView.h"

#include <QComboBox>
#include <QMouseEvent>
#include <QPushButton>

#include <QSlider>
#include <QtTest>

#include <memory>

using namespace ScreenRig;

// Capture on a real X server: the registry, both modes on a real controller and virtual strip,
// monitors added, removed and resized while running.
class TestScreenCapture : public QObject
{
    Q_OBJECT

    ScreenPainter painter;
    const QSize screen{1920, 1080};
    std::unique_ptr<EffectsManager> effects;
    QVector<QPoint> map5512;

    DeskDuplManager* registry() { return DeskDuplManager::instance(); }

    // A strip of the model bound to effect; the caller checks what it shows.
    std::unique_ptr<DeviceRig> bindStrip(const QString& effect, const QString& model, QVector<uint32_t> lines,
                                         uint32_t dir = 0)
    {
        auto rig = std::make_unique<DeviceRig>();
        ControlOptions options = DeviceRig::defaultOptions(0);
        options.model = model;
        options.id = model + QStringLiteral(":%1").arg(++serial);
        options.lines = lines;
        options.nbLeds = 0;
        for (uint32_t n : lines) {
            options.nbLeds += n;
        }
        options.installDirection = dir;
        if (!rig->start(options)) {
            return nullptr;
        }
        rig->device.setKeepFrames(false);
        effects->bind(rig->controller, effect);
        return rig;
    }

    int serial = 0;

private slots:
    void initTestCase()
    {
        QVERIFY(TestFiles::copyTree(QStringLiteral(ORVANTA_DATA_DIR "/controler_config"),
                                    QDir::currentPath() + QStringLiteral("/controler_config")));
        map5512 = modelMap(QStringLiteral("controler_config/OV5512.json"));
        QCOMPARE(map5512.size(), 72);
        ConfigurationManager::instance()->reset();
        QVERIFY(painter.open(QString::fromLocal8Bit(qgetenv("DISPLAY"))));
        QVERIFY(painter.paint(QRect(QPoint(), screen), ScreenPainter::pictureA(screen)));
        // Two monitors when the sources are first listed, so the panel's rows match their ids.
        QVERIFY(painter.addMonitor(QStringLiteral("RIGHT-HALF"), QRect(960, 0, 960, 1080)));
        // --winrt_capture_first: this run starts in mode 1, whatever was stored. The sources are
        // made at first use, here by the screen panel of the catalogue, as the program makes them
        // after setting its properties.
        ConfigurationManager::instance()->setGlobalValue(QStringLiteral("deskCaptureMode"), 5);
        qApp->setProperty("isWinRTCaptureFirst", true);
        effects = std::make_unique<EffectsManager>();
        QCOMPARE(registry()->option()->curMode(), 1);
        registry()->option()->setCurMode(0);
        QCOMPARE(ConfigurationManager::instance()->globalValue(QStringLiteral("deskCaptureMode")).toInt(-1),
                 0);
    }

    void cleanupTestCase()
    {
        effects.reset();
        TestFiles::flushDeletes();
    }

    // The panel's source row moves a running strip to the other monitor; the choice is stored.
    void sourceRow()
    {
        QCOMPARE(registry()->allCapturer(), (QList<int>{0, 1}));
        QVERIFY(painter.paint(QRect(QPoint(), screen),
                              {{QRect(0, 0, 960, 1080), Qt::red}, {QRect(960, 0, 960, 1080), Qt::blue}}));
        auto rig = bindStrip(topId, QStringLiteral("OV2408"), {24});
        QVERIFY(rig);
        const QString id = rig->controller->controlOptions().id;
        effects->activeOperate(id, topId);
        auto* rows = effects->workerOptions(topId).optionWidget->findChild<QComboBox*>("comboBox");
        QCOMPARE(rows->count(), 2);
        QCOMPARE(rows->itemText(1), QStringLiteral("RIGHT-HALF 960x1080+960+0"));
        const auto led = [&rig] { return rig->device.lastColors().value(0); };
        QTRY_VERIFY(near(Qt::red, led().r, led().g, led().b));
        rows->setCurrentIndex(1);
        QTRY_VERIFY(near(Qt::blue, led().r, led().g, led().b));
        effects->unbind(id);
        QCOMPARE(ConfigurationManager::instance()->effectVariant(topId, id, "sourceIndex").toInt(), 1);

        QSignalSpy failed(registry(), &DeskDuplManager::capturerFailed);
        QVERIFY(painter.deleteMonitor(QStringLiteral("RIGHT-HALF")));
        QTRY_COMPARE(failed.size(), 1);
        QVERIFY(painter.paint(QRect(QPoint(), screen), ScreenPainter::pictureA(screen)));
    }

    void registryLists()
    {
        QCOMPARE(registry()->allCapturer(), QList<int>{0});
        QCOMPARE(registry()->capturerDesc(0), QStringLiteral("screen 1920x1080+0+0"));
        QVERIFY(registry()->capturer(7).isNull());
        QCOMPARE(registry()->capturerDesc(7), QString());
        const auto source = registry()->capturer(0);
        QCOMPARE(source->outputSize(), QSize(120, 67));
        QCOMPARE(source->sourceSize(), screen);

        LogCapture log;
        source->setOutputSize(0, 0);
        source->setOutputSize(1921, 10);
        QCOMPARE(log.count(QStringLiteral("Refused output size")), 2);
        registry()->option()->setCurMode(2);
        QCOMPARE(log.count(QStringLiteral("Refused capture mode")), 1);
        QCOMPARE(registry()->option()->curMode(), 0);

        QList<QImage> frames;
        QObject receiver; // frames still queued when the case ends die with it
        auto connection = connect(source.data(), &IDeskCapture::frameTick, &receiver,
                                  [&frames](QImage frame) { frames.append(frame); });
        QTRY_VERIFY(!frames.isEmpty());
        QCOMPARE(frames.last().size(), QSize(120, 67));
        QCOMPARE(frames.last().format(), QImage::Format_RGBA8888);
        QCOMPARE(qAlpha(frames.last().pixel(60, 33)), 255);
        source->setOutputSize(64, 36);
        QTRY_COMPARE(frames.last().size(), QSize(64, 36));
        disconnect(connection);
        source->setOutputSize(120, 67);
    }

    void stripFollows_data()
    {
        QTest::addColumn<int>("mode");
        QTest::addColumn<QString>("effect");
        QTest::addColumn<QString>("model");
        QTest::addColumn<uint32_t>("dir");
        for (int mode : {0, 1}) {
            auto row = [mode](const char* name) -> QTestData& {
                return QTest::newRow(
                           qPrintable(QStringLiteral("%1, mode %2").arg(QLatin1String(name)).arg(mode)))
                       << mode;
            };
            row("full") << fullId << QStringLiteral("OV5512") << 0u;
            row("full mirrored") << fullId << QStringLiteral("OV5512") << 1u;
            row("top 72") << topId << QStringLiteral("OV5512") << 0u;
            row("bottom 24") << bottomId << QStringLiteral("OV2408") << 0u;
            row("left 72") << leftId << QStringLiteral("OV5512") << 0u;
            row("left 24") << leftId << QStringLiteral("OV2408") << 0u;
            row("right 24") << rightId << QStringLiteral("OV2408") << 0u;
            row("right 72") << rightId << QStringLiteral("OV5512") << 0u;
        }
    }

    void stripFollows()
    {
        QFETCH(int, mode);
        QFETCH(QString, effect);
        QFETCH(QString, model);
        QFETCH(uint32_t, dir);
        registry()->option()->setCurMode(mode);
        const QVector<uint32_t> lines =
            model == "OV5512" ? QVector<uint32_t>{18, 36, 18} : QVector<uint32_t>{24};
        auto rig = bindStrip(effect, model, lines, dir);
        QVERIFY(rig);
        const int n = model == "OV5512" ? 72 : 24;
        const QVector<QPoint> points = readPoints(effect, n, QSize(120, 67), int(dir), map5512);
        int judged = 0;
        QTRY_COMPARE_WITH_TIMEOUT(mismatchesA(rig->device.lastColors(), points, screen, &judged), 0, 3000);
        QVERIFY2(judged * 2 >= n, qPrintable(QString::number(judged)));
        if (effect == leftId) {
            const auto leds = rig->device.lastColors();
            QVERIFY(near(Qt::white, leds.first().r, leds.first().g, leds.first().b)); // its foot
            QVERIFY(near(Qt::red, leds.last().r, leds.last().g, leds.last().b));      // its top
        }
        effects->unbind(rig->controller->controlOptions().id);
        registry()->option()->setCurMode(0);
    }

    void cinemaIgnoresBars_data()
    {
        QTest::addColumn<int>("mode");
        QTest::newRow("mode 0") << 0;
        QTest::newRow("mode 1") << 1;
    }

    void cinemaIgnoresBars()
    {
        QFETCH(int, mode);
        registry()->option()->setCurMode(mode);
        auto full = bindStrip(fullId, QStringLiteral("OV5512"), {18, 36, 18});
        const QVector<QPoint> points = readPoints(fullId, 72, QSize(120, 67), 0, map5512);
        QTRY_COMPARE_WITH_TIMEOUT(mismatchesA(full->device.lastColors(), points, screen), 0, 3000);
        const QVector<VirtualLedDevice::Rgb> onA = full->device.lastColors();
        effects->unbind(full->controller->controlOptions().id);

        QVERIFY(painter.paint(QRect(QPoint(), screen), ScreenPainter::pictureB(screen)));
        auto film = bindStrip(cinemaId, QStringLiteral("OV5512"), {18, 36, 18});
        auto sameAsFull = [&] {
            const auto leds = film->device.lastColors();
            if (leds.size() != 72) {
                return false;
            }
            for (int k = 0; k < 72; ++k) {
                if (leds[k].r > 200 && leds[k].b > 200 && leds[k].g < 60) {
                    return false; // magenta: the frame reached an LED
                }
                if (expectedA(screen, QSize(120, 67), points[k]) &&
                    !near(QColor(onA[k].r, onA[k].g, onA[k].b), leds[k].r, leds[k].g, leds[k].b)) {
                    return false;
                }
            }
            return true;
        };
        QTRY_VERIFY_WITH_TIMEOUT(sameAsFull(), 3000);
        effects->unbind(film->controller->controlOptions().id);
        QVERIFY(painter.paint(QRect(QPoint(), screen), ScreenPainter::pictureA(screen)));
        registry()->option()->setCurMode(0);
    }

    void serverScalingAverages()
    {
        // One bilinear step at 16:1 would read 4 of 256 pixels: fine detail would flicker.
        const auto source = registry()->capturer(0);
        QImage frame;
        QObject receiver; // frames still queued when the case ends die with it
        connect(source.data(), &IDeskCapture::frameTick, &receiver, [&frame](QImage f) { frame = f; });
        auto allMidGrey = [&frame] {
            if (frame.isNull()) {
                return false;
            }
            for (int y = 0; y < frame.height(); ++y) {
                for (int x = 0; x < frame.width(); ++x) {
                    const QRgb p = frame.pixel(x, y);
                    if (!near(QColor(128, 128, 128), qRed(p), qGreen(p), qBlue(p))) {
                        return false;
                    }
                }
            }
            return true;
        };
        for (int phase = 0; phase < 4; ++phase) {
            QVERIFY(painter.paintCheckerboard(QRect(QPoint(), screen), phase % 2));
            frame = QImage();
            QTRY_VERIFY(!frame.isNull());
            frame = QImage(); // the first one may predate the shift
            QTRY_VERIFY(!frame.isNull());
            QVERIFY(allMidGrey());
        }
        disconnect(source.data(), nullptr, &receiver, nullptr);
        QVERIFY(painter.paint(QRect(QPoint(), screen), ScreenPainter::pictureA(screen)));
    }

    void staleSourceIndexFallsBackSilently()
    {
        ConfigurationManager::instance()->setEffectVariant(topId, QStringLiteral("OV2408:%1").arg(serial + 1),
                                                           QStringLiteral("sourceIndex"), 5);
        LogCapture log;
        auto rig = bindStrip(topId, QStringLiteral("OV2408"), {24});
        QVERIFY(rig);
        const auto leds = [&rig] { return rig->device.lastColors(); };
        QTRY_VERIFY(!leds().isEmpty() && near(Qt::red, leds()[12].r, leds()[12].g, leds()[12].b));
        QCOMPARE(log.count(QStringLiteral("[AbsScreenSync]: The com.orvanta.screenSync.topHalfScreen is "
                                          "connected from the 0 capturer")),
                 1);
        QCOMPARE(log.count(QStringLiteral("DeskDuplManager is empty")), 0);
        effects->unbind(rig->controller->controlOptions().id);
    }

    // The screen modes' one panel: saturation from grey to full on a pinkish screen, both ways.
    void panelSaturation_data()
    {
        QTest::addColumn<int>("slider");
        QTest::addColumn<QColor>("shown");
        QTest::newRow("grey") << 0 << QColor(200, 200, 200);
        QTest::newRow("full") << 200 << QColor(200, 0, 0);
        QTest::newRow("as captured") << 100 << QColor(200, 150, 150);
    }
    void panelSaturation()
    {
        QFETCH(int, slider);
        QFETCH(QColor, shown);
        QVERIFY(painter.paint(QRect(QPoint(), screen), {{QRect(QPoint(), screen), QColor(200, 150, 150)}}));
        auto rig = bindStrip(topId, QStringLiteral("OV2408"), {24});
        QVERIFY(rig);
        const QString id = rig->controller->controlOptions().id;
        effects->activeOperate(id, topId);
        AbsWorkerWidget* panel = effects->workerOptions(topId).optionWidget;
        QVERIFY(panel && panel == effects->workerOptions(cinemaId).optionWidget);
        panel->findChild<QSlider*>("saturationStrengthSlider")->setValue(slider);
        const auto led = [&rig] { return rig->device.lastColors().value(12); };
        QTRY_VERIFY(near(shown, led().r, led().g, led().b));
        effects->unbind(id);
        QVERIFY(!panel->effectWorker());
        QVERIFY(painter.paint(QRect(QPoint(), screen), ScreenPainter::pictureA(screen)));
    }

    // The blur slider: the top band's first LED reads pure red at 0, and at 100 red mixed with the
    // green that lies below it.
    void panelBlur()
    {
        auto rig = bindStrip(topId, QStringLiteral("OV2408"), {24});
        QVERIFY(rig);
        const QString id = rig->controller->controlOptions().id;
        effects->activeOperate(id, topId);
        auto* blur = effects->workerOptions(topId).optionWidget->findChild<QSlider*>("blurStrengthSlider");
        const auto led = [&rig] { return rig->device.lastColors().value(0); };
        blur->setValue(0);
        QTRY_VERIFY(near(Qt::red, led().r, led().g, led().b));
        blur->setValue(100);
        QTRY_VERIFY(led().g > 8 && led().r > 200);
        effects->unbind(id);
    }

    // The layout editor: a square dropped on the black centre turns its LED, and only it, black;
    // one dropped beyond the edge snaps to the last cell; reset brings the model's map back.
    void editorMovesOneLed()
    {
        auto rig = bindStrip(fullId, QStringLiteral("OV5512"), {18, 36, 18});
        QVERIFY(rig);
        const QString id = rig->controller->controlOptions().id;
        effects->activeOperate(id, fullId);
        AbsWorkerWidget* panel = effects->workerOptions(fullId).extraOptionWidget;
        QVERIFY(panel);
        auto* scene = panel->findChild<ScreenSyncEditView*>("strapEditor")->editScene();
        QCOMPARE(scene->leds().size(), 72);
        const auto leds = [&rig] { return rig->device.lastColors(); };
        QTRY_VERIFY(mismatchesA(leds(), readPoints(fullId, 72, QSize(120, 67), 0, map5512), screen) == 0);
        const VirtualLedDevice::Rgb before = leds().value(0);
        QVERIFY(before.r || before.g || before.b);

        // Dragged with the left button on the view's viewport, as a user does.
        auto* view = panel->findChild<ScreenSyncEditView*>("strapEditor");
        panel->resize(700, 500);
        LEDItem* first = scene->leds().first();
        // Shown only while dragging, since the window sits on the captured screen; the target in
        // cells, as the scene takes its size from the shown view.
        auto drag = [&](const QPointF& cell) {
            panel->show();
            QVERIFY(QTest::qWaitForWindowExposed(panel));
            const QPoint from = view->mapFromScene(first->sceneBoundingRect().center());
            const QPoint to = view->mapFromScene(cell.x() * scene->sceneRect().width() / 120,
                                                 cell.y() * scene->sceneRect().height() / 67);
            QTest::mousePress(view->viewport(), Qt::LeftButton, {}, from);
            QMouseEvent move(QEvent::MouseMove, to, view->viewport()->mapToGlobal(to), Qt::NoButton,
                             Qt::LeftButton, Qt::NoModifier);
            QApplication::sendEvent(view->viewport(), &move);
            QTest::mouseRelease(view->viewport(), Qt::LeftButton, {}, to);
            panel->hide();
        };
        drag(QPointF(60.5, 33.5));
        QCOMPARE(first->gridPos, QPoint(60, 33));
        QTRY_COMPARE(leds().value(0), (VirtualLedDevice::Rgb{0, 0, 0}));
        QTRY_VERIFY(mismatchesA(leds().mid(1), readPoints(fullId, 72, QSize(120, 67), 0, map5512).mid(1),
                                screen) == 0);
        // Dropped beyond the scene's top right corner: the square stays whole inside the scene and
        // snaps to the cell under its centre, in the red top band.
        drag(QPointF(127, -7));
        const QRectF rect = scene->sceneRect();
        QCOMPARE(first->gridPos,
                 QPoint(int((rect.width() - 15) / (rect.width() / 120)), int(15 / (rect.height() / 67))));
        QTRY_COMPARE(leds().value(0), (VirtualLedDevice::Rgb{255, 0, 0}));

        panel->findChild<QPushButton*>("resetBtn")->click();
        QTRY_COMPARE(leds().value(0), before);
        effects->unbind(id);
    }

    void paceAndLatency()
    {
        auto rig = bindStrip(topId, QStringLiteral("OV5512"), {18, 36, 18});
        QTRY_VERIFY(rig->device.frameCount() > 40);
        QVERIFY2(qAbs(rig->device.frameRate() - 30.0) <= 3.0,
                 qPrintable(QString::number(rig->device.frameRate())));

        QVector<ScreenPainter::Fill> yellowTop = ScreenPainter::pictureA(screen);
        yellowTop.append({QRect(0, 0, screen.width(), screen.height() / 4), Qt::yellow});
        QElapsedTimer clock;
        QVERIFY(painter.paint(QRect(QPoint(), screen), yellowTop));
        clock.start();
        auto allYellow = [&] {
            for (const auto& led : rig->device.lastColors()) {
                if (!near(Qt::yellow, led.r, led.g, led.b)) {
                    return false;
                }
            }
            return true;
        };
        QTRY_VERIFY_WITH_TIMEOUT(allYellow(), 2000);
        QVERIFY2(clock.elapsed() <= 500, qPrintable(QString::number(clock.elapsed())));
        effects->unbind(rig->controller->controlOptions().id);
        QVERIFY(painter.paint(QRect(QPoint(), screen), ScreenPainter::pictureA(screen)));
    }

    void monitorComesAndGoes()
    {
        QSignalSpy ready(registry(), &DeskDuplManager::capturerReady);
        QSignalSpy failed(registry(), &DeskDuplManager::capturerFailed);
        const QRect half(960, 0, 960, 1080);
        QVERIFY(painter.paint(half, ScreenPainter::pictureA(half.size())));
        QVERIFY(painter.addMonitor(QStringLiteral("RIGHT-HALF"), half));
        QTRY_VERIFY(!ready.isEmpty());
        const int id = ready.last().at(0).toInt();
        QVERIFY(id != 0);
        QCOMPARE(registry()->capturerDesc(id), QStringLiteral("RIGHT-HALF 960x1080+960+0"));
        const auto source = registry()->capturer(id);
        QCOMPARE(source->outputSize(), QSize(120, 135));

        // Its frames show the right half: picture A painted there, so green at its left.
        QImage frame;
        QObject receiver; // frames still queued when the case ends die with it
        auto connection =
            connect(source.data(), &IDeskCapture::frameTick, &receiver, [&frame](QImage f) { frame = f; });
        QTRY_VERIFY(!frame.isNull());
        QCOMPARE(QColor(frame.pixel(5, 67)), QColor(Qt::green));
        QCOMPARE(QColor(frame.pixel(114, 67)), QColor(Qt::blue));
        disconnect(connection);

        QVERIFY(painter.deleteMonitor(QStringLiteral("RIGHT-HALF")));
        QTRY_COMPARE(failed.size(), 1);
        QCOMPARE(failed.last().at(0).toInt(), id);
        QVERIFY(registry()->capturer(id).isNull());
        QVERIFY(!registry()->allCapturer().contains(id));

        ready.clear();
        QVERIFY(painter.addMonitor(QStringLiteral("RIGHT-HALF"), half));
        QTRY_VERIFY(!ready.isEmpty());
        QCOMPARE(ready.last().at(0).toInt(), id);
        QCOMPARE(registry()->capturer(id), source);
        QVERIFY(painter.deleteMonitor(QStringLiteral("RIGHT-HALF")));
        QTRY_COMPARE(failed.size(), 2);
        QVERIFY(painter.paint(QRect(QPoint(), screen), ScreenPainter::pictureA(screen)));
    }

    void screenResized()
    {
        auto rig = bindStrip(fullId, QStringLiteral("OV5512"), {18, 36, 18});
        QSignalSpy ready(registry(), &DeskDuplManager::capturerReady);
        const QSize small(1280, 1024);
        QVERIFY(painter.resizeScreen(small));
        QElapsedTimer clock;
        clock.start();
        QTRY_VERIFY_WITH_TIMEOUT(!ready.isEmpty(), 1000);
        QCOMPARE(ready.last().at(0).toInt(), 0);
        QCOMPARE(registry()->capturer(0)->sourceSize(), small);
        QCOMPARE(registry()->capturerDesc(0), QStringLiteral("screen 1280x1024+0+0"));
        QVERIFY(clock.elapsed() < 1000);

        // The bound worker keeps its 120 x 67 frames of the new screen.
        QVERIFY(painter.paint(QRect(QPoint(), small), ScreenPainter::pictureA(small)));
        const QVector<QPoint> points = readPoints(fullId, 72, QSize(120, 67), 0, map5512);
        QTRY_COMPARE_WITH_TIMEOUT(mismatchesA(rig->device.lastColors(), points, small), 0, 3000);
        // A worker bound now asks for the new aspect.
        auto second = bindStrip(topId, QStringLiteral("OV5512"), {18, 36, 18});
        QCOMPARE(registry()->capturer(0)->outputSize(), QSize(120, 96));
        effects->unbind(second->controller->controlOptions().id);
        effects->unbind(rig->controller->controlOptions().id);

        QVERIFY(painter.resizeScreen(screen));
        QTRY_COMPARE(registry()->capturer(0)->sourceSize(), screen);
        registry()->capturer(0)->setOutputSize(120, 67);
        QVERIFY(painter.paint(QRect(QPoint(), screen), ScreenPainter::pictureA(screen)));
    }

    void idleWithoutWorkers()
    {
        TestFiles::flushDeletes();
        auto* source = qobject_cast<DeskCapturer*>(registry()->capturer(0).data());
        QVERIFY(source);
        QTRY_VERIFY(!source->hasListeners());
        const int before = source->grabCount();
        QTest::qWait(2000); // a span that must pass without a grab
        QCOMPARE(source->grabCount(), before);
    }
};

QTEST_MAIN(TestScreenCapture)
#include "tst_ScreenCapture.moc"
