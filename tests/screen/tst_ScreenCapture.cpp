#include "DeviceRig.h"
#include "LogCapture.h"
#include "ScreenRig.h"
#include "effects/EffectsManager.h"
#include "effects/panels/AbsWorkerWidget.h"
#include "effects/panels/EffectPanelMaker.h"
#include "effects/screensync/panels/LEDItem.h"
#include "effects/screensync/panels/ScreenSyncEditScene.h"
#include "effects/screensync/panels/ScreenSyncEditView.h"
#include "service/config/ConfigurationManager.h"
#include "service/screen/DeskCaptureOption.h"
#include "service/screen/DeskCapturer.h"
#include "service/screen/DeskDuplManager.h"

#include <QComboBox>
#include <QProcess>
#include <QPushButton>
#include <QScopeGuard>
#include <QSemaphore>
#include <QSlider>
#include <QtTest>

using namespace ScreenRig;
using Rgb = VirtualLedDevice::Rgb;

// Capture on an X server to a real controller's virtual strip: registry, modes, panels, monitors.
class TestScreenCapture : public QObject
{
    Q_OBJECT

    ScreenPainter painter;
    const QSize screen{1920, 1080};
    std::unique_ptr<EffectsManager> effects;
    QVector<QPoint> map5512;
    int serial = 0;

    static DeskDuplManager* registry() { return DeskDuplManager::instance(); }
    bool paintA() { return painter.paint(QRect(QPoint(), screen), ScreenPainter::pictureA(screen)); }

    // A strip "<model>:<n>" (OV5512: 72 LEDs on three lines; OV2408: a bar of 24) bound to effect.
    std::unique_ptr<DeviceRig> bindStrip(const QString& effect, const QString& model, uint32_t dir = 0)
    {
        auto rig = std::make_unique<DeviceRig>();
        ControlOptions options = DeviceRig::defaultOptions(model == "OV5512" ? 72 : 24);
        options.model = model;
        options.id = model + QStringLiteral(":%1").arg(++serial);
        options.lines = model == "OV5512" ? QVector<uint32_t>{18, 36, 18} : QVector<uint32_t>{24};
        options.installDirection = dir;
        if (!rig->start(options)) {
            return nullptr;
        }
        effects->bind(rig->controller, effect);
        return rig;
    }
    // The controller's entry of an effect's file, as written (the panel's changes go through at once).
    static QJsonObject onDisk(const QString& effect, const QString& controller)
    {
        ConfigurationManager::instance()->flush();
        const QString path = ConfigurationManager::instance()->configPath() + "/effects/" + effect + ".json";
        return TestFiles::readJson(path).value(controller).toObject();
    }
    static bool shows(const DeviceRig& rig, int led, const QColor& colour)
    {
        const Rgb c = rig.device.lastColors().value(led);
        return near(colour, c.r, c.g, c.b);
    }

private slots:
    void initTestCase()
    {
        QVERIFY(TestFiles::copyTree(QStringLiteral(ORVANTA_DATA_DIR "/controler_config"),
                                    QDir::currentPath() + QStringLiteral("/controler_config")));
        map5512 = modelMap(QStringLiteral("controler_config/OV5512.json"));
        ConfigurationManager* store = ConfigurationManager::instance();
        store->reset();
        QVERIFY(painter.open(QString::fromLocal8Bit(qgetenv("DISPLAY"))) && paintA());
        // Two monitors when the sources are first listed, so the panel's rows match their ids.
        QVERIFY(painter.addMonitor(QStringLiteral("RIGHT-HALF"), QRect(960, 0, 960, 1080)));
        EffectPanelMaker::install();
        effects = std::make_unique<EffectsManager>(); // its screen panel makes the sources
        registry()->option()->setCurMode(1);
        registry()->option()->setCurMode(0); // stored
        QCOMPARE(store->globalValue(QStringLiteral("deskCaptureMode")).toInt(-1), 0);
    }

    void cleanupTestCase()
    {
        effects.reset();
        TestFiles::flushDeletes();
    }

    // The screen modes' one small panel on a running top band whose stored source is gone: the
    // first source, silently; saturation from grey to full, hue and value kept; blur mixing an LED
    // near a colour edge; the source row moving the strip to the other monitor, stored.
    void smallPanel()
    {
        QCOMPARE(registry()->allCapturer(), (QList<int>{0, 1}));
        const QColor orange(200, 150, 100);
        QVERIFY(painter.paint(QRect(QPoint(), screen),
                              {{QRect(0, 0, 960, 1080), orange}, {QRect(960, 0, 960, 1080), Qt::blue}}));
        const QString id = QStringLiteral("OV2408:%1").arg(serial + 1);
        ConfigurationManager::instance()->setEffectVariant(topId, id, QStringLiteral("sourceIndex"), 5);
        LogCapture log;
        auto rig = bindStrip(topId, QStringLiteral("OV2408"));
        QVERIFY(rig);
        QTRY_VERIFY(shows(*rig, 0, orange));
        QCOMPARE(log.count(QStringLiteral("[AbsScreenSync]"), QtWarningMsg), 0);

        effects->activeOperate(id, topId);
        AbsWorkerWidget* panel = effects->workerOptions(topId).optionWidget;
        QVERIFY(panel && panel == effects->workerOptions(cinemaId).optionWidget);
        auto* saturation = panel->findChild<QSlider*>("saturationStrengthSlider");
        saturation->setValue(0);
        QTRY_VERIFY(shows(*rig, 0, QColor(200, 200, 200)));
        saturation->setValue(200);
        QTRY_VERIFY(shows(*rig, 0, QColor(200, 100, 0)));
        saturation->setValue(100);

        // LED 11 reads a few frame pixels left of the edge: pure at blur 0, mixed at 100.
        auto* blur = panel->findChild<QSlider*>("blurStrengthSlider");
        QTRY_VERIFY(shows(*rig, 11, orange));
        blur->setValue(100);
        QTRY_VERIFY(rig->device.lastColors().value(11).r < 190 && rig->device.lastColors().value(11).b > 130);
        QCOMPARE(onDisk(topId, id).value("blurStrength").toDouble(), 1.0);
        blur->setValue(0);

        panel->findChild<QComboBox*>("comboBox")->setCurrentIndex(1);
        QTRY_VERIFY(shows(*rig, 0, Qt::blue));
        QCOMPARE(onDisk(topId, id).value("sourceIndex").toInt(), 1);
        effects->unbind(id);
        QCOMPARE(ConfigurationManager::instance()->effectVariant(topId, id, "sourceIndex").toInt(), 1);
        QVERIFY(painter.deleteMonitor(QStringLiteral("RIGHT-HALF")) && paintA());
        QTRY_COMPARE(registry()->allCapturer(), QList<int>{0});
    }

    // Picture A on the strip, each LED showing the colour where it looks (full screen in mode 0
    // and mirrored: the editor's rows); cinema on picture B (A in a magenta frame) shows what full
    // screen shows on A.
    void stripFollows_data()
    {
        QTest::addColumn<int>("mode");
        QTest::addColumn<QString>("effect");
        QTest::addColumn<QString>("model");
        const QString big = QStringLiteral("OV5512"), bar = QStringLiteral("OV2408");
        QTest::newRow("full, mode 1") << 1 << fullId << big;
        QTest::newRow("cinema, mode 0") << 0 << cinemaId << big;
        QTest::newRow("top 72, mode 1") << 1 << topId << big;
        QTest::newRow("bottom 24, mode 0") << 0 << bottomId << bar;
        QTest::newRow("left 72, mode 0") << 0 << leftId << big;
        QTest::newRow("right 24, mode 1") << 1 << rightId << bar;
    }
    void stripFollows()
    {
        QFETCH(int, mode);
        QFETCH(QString, effect);
        QFETCH(QString, model);
        registry()->option()->setCurMode(mode);
        const bool film = effect == cinemaId;
        QVERIFY(!film || painter.paint(QRect(QPoint(), screen), ScreenPainter::pictureB(screen)));
        auto rig = bindStrip(effect, model);
        QVERIFY(rig);
        const int n = model == "OV5512" ? 72 : 24;
        const QVector<QPoint> points = readPoints(film ? fullId : effect, n, QSize(120, 67), 0, map5512);
        int judged = 0;
        QTRY_COMPARE_WITH_TIMEOUT(mismatchesA(rig->device.lastColors(), points, screen, &judged), 0, 3000);
        QVERIFY(judged * 2 >= n);
        QVERIFY(effect != leftId || (shows(*rig, 0, Qt::white) && shows(*rig, n - 1, Qt::red))); // foot, top
        effects->unbind(rig->controller->controlOptions().id);
        registry()->option()->setCurMode(0);
        QVERIFY(!film || paintA());
    }

    void serverScalingAverages()
    {
        // One bilinear step at 16:1 would read 4 of 256 pixels: fine detail would flicker.
        QImage frame;
        QObject receiver; // frames still queued when the case ends die with it
        connect(registry()->capturer(0).data(), &IDeskCapture::frameTick, &receiver,
                [&](QImage f) { frame = f; });
        for (int phase = 0; phase < 4; ++phase) {
            QVERIFY(painter.paintCheckerboard(QRect(QPoint(), screen), phase % 2));
            frame = QImage();
            QTRY_VERIFY(!frame.isNull()); // it may predate the shift: the next one
            frame = QImage();
            QTRY_VERIFY(!frame.isNull());
            for (int p = 0; p < frame.width() * frame.height(); ++p) {
                const QRgb c = frame.pixel(p % frame.width(), p / frame.width());
                QVERIFY(near(QColor(128, 128, 128), qRed(c), qGreen(c), qBlue(c)));
            }
        }
        QVERIFY(paintA());
    }

    // The layout editor, dragged with the left button on its viewport: the LED takes the colour the
    // editor and the screen show where the square was dropped (green), on a strip installed either
    // way; a drop beyond the scene's corner snaps inside; reset brings the model's map back.
    void editorMovesOneLed_data()
    {
        QTest::addColumn<uint32_t>("dir");
        QTest::newRow("left to right") << 0u;
        QTest::newRow("right to left") << 1u;
    }
    void editorMovesOneLed()
    {
        QFETCH(uint32_t, dir);
        auto rig = bindStrip(fullId, QStringLiteral("OV5512"), dir);
        QVERIFY(rig);
        const QString id = rig->controller->controlOptions().id;
        effects->activeOperate(id, fullId);
        AbsWorkerWidget* panel = effects->workerOptions(fullId).extraOptionWidget;
        auto* view = panel->findChild<ScreenSyncEditView*>("strapEditor");
        ScreenSyncEditScene* scene = view->editScene();
        QCOMPARE(scene->leds().size(), 72);
        const QVector<QPoint> points = readPoints(fullId, 72, QSize(120, 67), int(dir), map5512);
        QTRY_VERIFY(mismatchesA(rig->device.lastColors(), points, screen) == 0);
        const Rgb before = rig->device.lastColors().value(0);

        panel->resize(700, 500);
        LEDItem* first = scene->leds().first();
        const auto at = [&](const QPointF& cell) { // cells to the view, as the scene fills the view
            return view->mapFromScene(cell.x() * scene->sceneRect().width() / 120,
                                      cell.y() * scene->sceneRect().height() / 67);
        };
        // Shown only while dragging, since the window would sit on the captured screen.
        auto drag = [&](const QPointF& cell) {
            panel->show();
            QVERIFY(QTest::qWaitForWindowExposed(panel));
            const QPoint to = at(cell);
            QTest::mousePress(view->viewport(), Qt::LeftButton, {},
                              view->mapFromScene(first->sceneBoundingRect().center()));
            QMouseEvent move(QEvent::MouseMove, to, view->viewport()->mapToGlobal(to), Qt::NoButton,
                             Qt::LeftButton, Qt::NoModifier);
            QApplication::sendEvent(view->viewport(), &move);
            QTest::mouseRelease(view->viewport(), Qt::LeftButton, {}, to);
            panel->hide();
        };
        drag(QPointF(12.5, 33.5));
        QCOMPARE(first->gridPos, QPoint(12, 33));
        QTRY_VERIFY(shows(*rig, 0, Qt::green));
        const QJsonObject stored =
            onDisk(fullId, id).value("map").toObject().value("ledMap").toArray()[0].toObject();
        QCOMPARE(QPoint(stored.value("x").toInt(), stored.value("y").toInt()), QPoint(dir ? 107 : 12, 33));
        QTRY_VERIFY(mismatchesA(rig->device.lastColors().mid(1), points.mid(1), screen) == 0);
        const auto editorShows = [&](const QPointF& cell, const QColor& colour) {
            const QRgb p = view->viewport()->grab().toImage().pixel(at(cell));
            return near(colour, qRed(p), qGreen(p), qBlue(p));
        };
        QTRY_VERIFY(editorShows(QPointF(20.5, 33.5), Qt::green)); // a few cells right of the square

        drag(QPointF(127, -7));
        const QRectF rect = scene->sceneRect();
        QCOMPARE(first->gridPos,
                 QPoint(int((rect.width() - 15) / (rect.width() / 120)), int(15 / (rect.height() / 67))));
        QTRY_VERIFY(shows(*rig, 0, Qt::red));
        panel->findChild<QPushButton*>("resetBtn")->click();
        QTRY_COMPARE(rig->device.lastColors().value(0), before);

        // Numbers only where they have room, none over another; zoomed in, every one.
        const auto labelled = [&] {
            int n = 0;
            for (LEDItem* a : scene->leds()) {
                for (LEDItem* b : scene->leds()) {
                    if (a != b && a->hasLabel() && b->hasLabel() &&
                        a->labelRect().translated(a->pos()).intersects(b->labelRect().translated(b->pos()))) {
                        return -1;
                    }
                }
                n += a->hasLabel();
            }
            return n;
        };
        const int unzoomed = labelled();
        QWheelEvent wheel(QPointF(10, 10), view->viewport()->mapToGlobal(QPoint(10, 10)), QPoint(),
                          QPoint(0, 30 * 120), Qt::NoButton, Qt::NoModifier, Qt::NoScrollPhase, false);
        QApplication::sendEvent(view->viewport(), &wheel);
        qInfo("%d of 72 numbers at zoom 1, %d at zoom 6", unzoomed, labelled());
        QVERIFY(unzoomed > 0 && unzoomed < 72);
        QCOMPARE(labelled(), 72);
        effects->unbind(id);
    }

    // The whole screen's source and its bad input; a monitor added: announced, described, its frames
    // of the right half in their form and at a size asked for; deleted: unlisted; added again: the
    // same id and object. Meanwhile the whole screen's source, with no listener, never grabs.
    void monitorComesAndGoes()
    {
        QVERIFY(registry()->capturer(7).isNull() && registry()->capturerDesc(7).isEmpty());
        auto* whole = qobject_cast<DeskCapturer*>(registry()->capturer(0).data());
        QVERIFY(whole && whole->outputSize() == QSize(120, 67) && whole->sourceSize() == screen);
        LogCapture log;
        whole->setOutputSize(0, 0);
        whole->setOutputSize(1921, 10);
        QCOMPARE(log.count(QStringLiteral("Refused output size")), 2);
        registry()->option()->setCurMode(2);
        QCOMPARE(log.count(QStringLiteral("Refused capture mode")), 1);
        QCOMPARE(registry()->option()->curMode(), 0);
        TestFiles::flushDeletes();
        QTRY_VERIFY(!whole->hasListeners());
        const int idleGrabs = whole->grabCount();

        QSignalSpy ready(registry(), &DeskDuplManager::capturerReady);
        QSignalSpy failed(registry(), &DeskDuplManager::capturerFailed);
        const QRect half(960, 0, 960, 1080);
        QVERIFY(painter.paint(half, ScreenPainter::pictureA(half.size())));
        QSharedPointer<IDeskCapture> source;
        int firstId = -1;
        for (int round = 0; round < 2; ++round) {
            QVERIFY(painter.addMonitor(QStringLiteral("RIGHT-HALF"), half));
            QTRY_COMPARE(ready.size(), round + 1);
            const int id = ready.last().at(0).toInt();
            QVERIFY(id != 0 && (round == 0 || (id == firstId && registry()->capturer(id) == source)));
            firstId = id;
            source = registry()->capturer(id);
            QCOMPARE(registry()->capturerDesc(id), QStringLiteral("RIGHT-HALF 960x1080+960+0"));
            if (round == 0) {
                QCOMPARE(source->outputSize(), QSize(120, 135));
                QImage frame;
                QObject receiver; // frames still queued when the block ends die with it
                connect(source.data(), &IDeskCapture::frameTick, &receiver,
                        [&frame](QImage f) { frame = f; });
                QTRY_VERIFY(!frame.isNull());
                QCOMPARE(frame.format(), QImage::Format_RGBA8888);
                QCOMPARE(QColor::fromRgba(frame.pixel(5, 67)), QColor(Qt::green)); // alpha 255 too
                QCOMPARE(QColor::fromRgba(frame.pixel(114, 67)), QColor(Qt::blue));
                source->setOutputSize(64, 36);
                QTRY_COMPARE(frame.size(), QSize(64, 36));
            }
            QVERIFY(painter.deleteMonitor(QStringLiteral("RIGHT-HALF")));
            QTRY_COMPARE(failed.size(), round + 1);
            QCOMPARE(failed.last().at(0).toInt(), id);
            QVERIFY(registry()->capturer(id).isNull() && !registry()->allCapturer().contains(id));
        }
        QCOMPARE(whole->grabCount(), idleGrabs);
        QVERIFY(paintA());
    }

    // A monitor added with xrandr under a worker of the top band: the panel's rows match the
    // registry and the new row moves the strip there. Deleted while followed: the worker moves to
    // the first source, logged once, and the panel shows that row.
    void workerFollowsHotplug()
    {
        const QColor orange(200, 150, 100);
        const QRect half(960, 0, 960, 1080); // painted last by the case before: on top
        QVERIFY(painter.paint(QRect(QPoint(), screen), {{QRect(QPoint(), screen), orange}}) &&
                painter.paint(half, {{QRect(QPoint(), half.size()), Qt::blue}}));
        auto rig = bindStrip(topId, QStringLiteral("OV2408"));
        const QString id = rig->controller->controlOptions().id;
        effects->activeOperate(id, topId);
        auto* combo = effects->workerOptions(topId).optionWidget->findChild<QComboBox*>("comboBox");
        const auto rowsMatch = [&] {
            QStringList rows, descs;
            for (int i = 0; i < combo->count(); ++i) {
                rows << combo->itemText(i);
            }
            for (int source : registry()->allCapturer()) {
                descs << registry()->capturerDesc(source);
            }
            return rows == descs;
        };
        const auto xrandr = [](const QStringList& args) { return QProcess::execute("xrandr", args) == 0; };
        QTRY_VERIFY(shows(*rig, 0, orange));
        QVERIFY(xrandr({"--setmonitor", "HOTPLUG", "960/254x1080/286+960+0", "none"}));
        QTRY_VERIFY(registry()->allCapturer().size() == 2 && rowsMatch());
        combo->setCurrentIndex(1);
        QTRY_VERIFY(shows(*rig, 0, Qt::blue));
        LogCapture log;
        QVERIFY(xrandr({"--delmonitor", "HOTPLUG"}));
        QTRY_VERIFY(shows(*rig, 0, orange));
        QTRY_VERIFY(rowsMatch() && combo->currentIndex() == 0);
        QCOMPARE(log.count("moves to capturer 0"), 1);
        effects->unbind(id);
        QVERIFY(paintA() && painter.paint(half, ScreenPainter::pictureA(half.size())));
    }

    // The work thread held while the screen shows three pictures in turn: released, the worker
    // takes the newest frame, so the strip never shows the first two.
    void newestFrameOnly()
    {
        auto rig = bindStrip(topId, QStringLiteral("OV2408"));
        const IEffectWorkerPtr worker = effects->bind(rig->controller, topId);
        QVector<QColor> sent; // LED 0 of every colour set the worker sent
        QObject receiver;     // what is still queued when the case ends dies with it
        connect(worker.data(), qOverload<QVector<QVector<OV_RGB>>>(&IEffectWorker::updateColors), &receiver,
                [&sent](QVector<QVector<OV_RGB>> lines) {
                    sent.append(QColor(lines[0][0].r, lines[0][0].g, lines[0][0].b));
                });
        // Shared with the work thread, which may still be leaving acquire() when the case ends.
        const auto held = QSharedPointer<QSemaphore>::create(), gate = QSharedPointer<QSemaphore>::create();
        auto release = qScopeGuard([gate] { gate->release(); });
        QMetaObject::invokeMethod(
            worker.data(),
            [held, gate] {
                held->release();
                gate->acquire();
            },
            Qt::QueuedConnection);
        QVERIFY(held->tryAcquire(1, 5000));
        QColor seen;
        connect(registry()->capturer(0).data(), &IDeskCapture::frameTick, &receiver,
                [&seen](QImage f) { seen = f.pixelColor(10, 33); }); // left of the half painted on top
        for (const QColor& c : {QColor(Qt::cyan), QColor(Qt::magenta), QColor(Qt::yellow)}) {
            QVERIFY(painter.paint(QRect(QPoint(), screen), {{QRect(QPoint(), screen), c}}));
            QTRY_COMPARE(seen, c); // the source has sent it
        }
        const int held0 = sent.size();
        release.dismiss();
        gate->release();
        QTRY_VERIFY(shows(*rig, 0, Qt::yellow));
        QVERIFY(!sent.mid(held0).contains(QColor(Qt::cyan)) &&
                !sent.mid(held0).contains(QColor(Qt::magenta)));
        effects->unbind(rig->controller->controlOptions().id);
        QVERIFY(paintA());
    }

    // The screen shrunk under a bound worker: the same source re-read (the registry waits 200 ms
    // after a burst; the limit leaves room for a loaded machine) at the new aspect, the new
    // picture on the strip.
    void screenResized()
    {
        auto rig = bindStrip(fullId, QStringLiteral("OV5512"));
        QSignalSpy ready(registry(), &DeskDuplManager::capturerReady);
        const QSize small(1280, 1024);
        QVERIFY(painter.resizeScreen(small));
        QTRY_VERIFY_WITH_TIMEOUT(!ready.isEmpty(), 5000);
        QCOMPARE(ready.last().at(0).toInt(), 0);
        QCOMPARE(registry()->capturer(0)->sourceSize(), small);
        QCOMPARE(registry()->capturer(0)->outputSize(), QSize(120, 96)); // the new aspect, bound already
        QCOMPARE(registry()->capturerDesc(0), QStringLiteral("screen 1280x1024+0+0"));
        QVERIFY(painter.paint(QRect(QPoint(), small), ScreenPainter::pictureA(small)));
        const QVector<QPoint> points = readPoints(fullId, 72, QSize(120, 67), 0, map5512);
        QTRY_COMPARE_WITH_TIMEOUT(mismatchesA(rig->device.lastColors(), points, small), 0, 3000);
        auto second = bindStrip(topId, QStringLiteral("OV5512"));
        QCOMPARE(registry()->capturer(0)->outputSize(), QSize(120, 96));
        effects->unbind(second->controller->controlOptions().id);
        effects->unbind(rig->controller->controlOptions().id);

        QVERIFY(painter.resizeScreen(screen));
        QTRY_COMPARE(registry()->capturer(0)->sourceSize(), screen);
        registry()->capturer(0)->setOutputSize(120, 67);
        QVERIFY(paintA());
    }
};

QTEST_MAIN(TestScreenCapture)
#include "tst_ScreenCapture.moc"
