#include "ControlPage.h"
#include "HomePage.h"
#include "ImageWidget.h"
#include "LogCapture.h"
#include "MainWindow.h"
#include "TestFiles.h"

#include <QAction>
#include <QApplication>
#include <QDir>
#include <QGridLayout>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QMessageBox>
#include <QPushButton>
#include <QSignalSpy>
#include <QStackedWidget>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>
#include <QToolButton>
#include <memory>
#include <xcb/xcb.h>

namespace {
const QString firstId = QStringLiteral("OV5512:00000001");

// Takes the X selection that a desktop's tray holds, so that the program sees a tray; the
// selection goes with the returned connection. Null without an X server.
std::shared_ptr<xcb_connection_t> claimTray()
{
    if (QGuiApplication::platformName() != QLatin1String("xcb")) {
        return nullptr;
    }
    std::shared_ptr<xcb_connection_t> c(xcb_connect(nullptr, nullptr), xcb_disconnect);
    const xcb_window_t window = xcb_generate_id(c.get());
    xcb_create_window(c.get(), XCB_COPY_FROM_PARENT, window,
                      xcb_setup_roots_iterator(xcb_get_setup(c.get())).data->root, 0, 0, 1, 1, 0,
                      XCB_WINDOW_CLASS_INPUT_ONLY, XCB_COPY_FROM_PARENT, 0, nullptr);
    const char name[] = "_NET_SYSTEM_TRAY_S0";
    xcb_intern_atom_reply_t* atom =
        xcb_intern_atom_reply(c.get(), xcb_intern_atom(c.get(), 0, sizeof name - 1, name), nullptr);
    xcb_set_selection_owner(c.get(), window, atom->atom, XCB_CURRENT_TIME);
    free(atom);
    xcb_flush(c.get());
    return c;
}

QHash<QString, DeviceModel> devices(int count)
{
    const QIcon icon(QStringLiteral(ORVANTA_SOURCE_DIR "/resources/images/Ov5512Icon.jpg"));
    QHash<QString, DeviceModel> list;
    for (int i = 1; i <= count; ++i) {
        const QString id = QStringLiteral("OV5512:%1").arg(i, 8, 10, QLatin1Char('0'));
        list.insert(id, DeviceModel{QStringLiteral("Strip %1").arg(i), id, icon, 0});
    }
    return list;
}

QList<QToolButton*> deviceButtons(QWidget* page)
{
    QList<QToolButton*> buttons = page->findChildren<QToolButton*>();
    buttons.erase(std::remove_if(buttons.begin(), buttons.end(),
                                 [](QToolButton* b) { return b->property("role") != "deviceButton"; }),
                  buttons.end());
    return buttons;
}

template <typename T> T* child(QWidget* w, const char* name)
{
    return w->findChild<T*>(QLatin1String(name));
}

bool sendMouse(QWidget* w, QEvent::Type type, QPoint local)
{
    QMouseEvent event(type, local, w->frameGeometry().topLeft() + local,
                      type == QEvent::MouseMove ? Qt::NoButton : Qt::LeftButton,
                      type == QEvent::MouseButtonRelease ? Qt::NoButton : Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(w, &event);
    return event.isAccepted();
}
} // namespace

class TestMainWindow : public QObject
{
    Q_OBJECT
public:
    // As the program starts: pictures of the style sheet follow the screen's density.
    static void initMain() { QCoreApplication::setAttribute(Qt::AA_UseHighDpiPixmaps); }

private slots:
    void dragRule_data();
    void dragRule();
    void closeAndComeBack_data();
    void closeAndComeBack();
    void trayThatAppearsLater();
    void newVersionButton_data();
    void newVersionButton();
    void deviceRows_data();
    void deviceRows();
    void renameStrip_data();
    void renameStrip();
    void renameCommit_data();
    void renameCommit();
    void failedAdImageKeepsPicture();
};

void TestMainWindow::dragRule_data()
{
    QTest::addColumn<QPoint>("press");
    QTest::addColumn<bool>("accepted");
    QTest::addColumn<bool>("drags");
    QTest::newRow("last bar row") << QPoint(300, 50) << true << true;
    QTest::newRow("below the bar") << QPoint(300, 51) << false << false;
    QTest::newRow("first column") << QPoint(0, 20) << true << false;
    QTest::newRow("first row") << QPoint(300, 0) << true << false;
}

void TestMainWindow::dragRule()
{
    QFETCH(QPoint, press);
    QFETCH(bool, accepted);
    QFETCH(bool, drags);
    MainWindow w;
    w.move(100, 100);
    w.show();
    const QPoint start = w.pos();
    QCOMPARE(sendMouse(&w, QEvent::MouseButtonPress, press), accepted);
    sendMouse(&w, QEvent::MouseMove, press + QPoint(40, 30));
    QCOMPARE(w.pos(), drags ? start + QPoint(40, 30) : start);
    // Once released, a move with the button held drags no more.
    sendMouse(&w, QEvent::MouseButtonRelease, press + QPoint(40, 30));
    const QPoint released = w.pos();
    sendMouse(&w, QEvent::MouseMove, press + QPoint(80, 60));
    QCOMPARE(w.pos(), released);
}

void TestMainWindow::closeAndComeBack_data()
{
    QTest::addColumn<bool>("withTray");
    QTest::addColumn<QString>("way");
    QTest::addColumn<bool>("shows");
    QTest::newRow("tray double click") << true << "double" << true;
    QTest::newRow("tray single click") << true << "single" << false;
    QTest::newRow("tray menu first entry") << true << "menu" << true;
    QTest::newRow("no tray, double click") << false << "double" << true;
}

void TestMainWindow::closeAndComeBack()
{
    QFETCH(bool, withTray);
    QFETCH(QString, way);
    QFETCH(bool, shows);
    const auto tray = withTray ? claimTray() : nullptr;
    if (withTray && !tray) {
        QSKIP("A tray needs an X server");
    }
    LogCapture log;
    MainWindow w;
    QTRY_COMPARE(w.trayAvailable(), withTray);
    w.show();
    emit w.homePage()->controllerEntryOrdered(firstId);
    auto* stack = child<QStackedWidget>(&w, "mainStackedWidget");
    QCOMPARE(stack->currentWidget(), static_cast<QWidget*>(w.controlPage()));

    QSignalSpy settings(&w, &MainWindow::settingsBtnTriggered);
    QSignalSpy quitting(qApp, &QCoreApplication::aboutToQuit);
    QTest::mouseClick(child<QToolButton>(&w, "toolButton_close"), Qt::LeftButton);
    // Without a tray a hidden window could not come back: it is minimised, and says why.
    QCOMPARE(w.isHidden(), withTray);
    QCOMPARE(w.isMinimized(), !withTray);
    QCOMPARE(log.contains(QStringLiteral("No system tray is available")), !withTray);

    auto* icon = w.findChild<QSystemTrayIcon*>();
    QVERIFY(icon->isVisible());
    if (way == "menu") {
        icon->contextMenu()->actions().first()->trigger();
    } else {
        emit icon->activated(way == "double" ? QSystemTrayIcon::DoubleClick : QSystemTrayIcon::Trigger);
    }
    QCOMPARE(w.isVisible() && !w.isMinimized(), shows);
    QCOMPARE(stack->currentWidget(), static_cast<QWidget*>(w.controlPage()));
    QCOMPARE(settings.count(), 0);
    QCOMPARE(quitting.count(), 0);
}

void TestMainWindow::trayThatAppearsLater()
{
    LogCapture log;
    MainWindow w;
    QTRY_VERIFY(!w.trayAvailable());
    w.show();
    QTest::mouseClick(child<QToolButton>(&w, "toolButton_close"), Qt::LeftButton);
    QVERIFY(w.isMinimized());
    const auto tray = claimTray();
    if (!tray) {
        QSKIP("A tray needs an X server");
    }
    QTRY_VERIFY_WITH_TIMEOUT(log.contains(QStringLiteral("A system tray has appeared")), 10000);
    w.showNormal();
    QTest::mouseClick(child<QToolButton>(&w, "toolButton_close"), Qt::LeftButton);
    QVERIFY(w.isHidden());
}

void TestMainWindow::newVersionButton_data()
{
    QTest::addColumn<QString>("answer");
    QTest::addColumn<bool>("stays");
    QTest::newRow("yes") << QStringLiteral("是") << false;
    QTest::newRow("no") << QStringLiteral("否") << true;
}

void TestMainWindow::newVersionButton()
{
    QFETCH(QString, answer);
    QFETCH(bool, stays);
    MainWindow w;
    w.show();
    auto* button = child<QPushButton>(&w, "newVersionBtn");
    QVERIFY(!button->isVisible());
    w.showNewVersionButton();
    QVERIFY(button->isVisible());

    QSignalSpy update(&w, &MainWindow::requestUpdateAppVersion);
    // Runs inside the box's own loop.
    QTimer::singleShot(0, [answer]() {
        for (QAbstractButton* b : qobject_cast<QMessageBox*>(QApplication::activeModalWidget())->buttons()) {
            if (b->text() == answer) {
                b->click();
            }
        }
    });
    QTest::mouseClick(button, Qt::LeftButton);
    QCOMPARE(button->isVisible(), stays);
    QCOMPARE(update.count(), stays ? 0 : 1);
}

void TestMainWindow::deviceRows_data()
{
    QTest::addColumn<int>("count");
    QTest::addColumn<QVector<int>>("rows");
    QTest::newRow("none") << 0 << QVector<int>{};
    QTest::newRow("one row") << 6 << QVector<int>{6};
    QTest::newRow("seven") << 7 << QVector<int>{6, 1};
    QTest::newRow("thirteen") << 13 << QVector<int>{6, 6, 1};
}

void TestMainWindow::deviceRows()
{
    QFETCH(int, count);
    QFETCH(QVector<int>, rows);
    HomePage page;
    page.setControllerList(devices(3));
    page.setControllerList(devices(count));
    TestFiles::flushDeletes();
    const QList<QToolButton*> buttons = deviceButtons(&page);
    QCOMPARE(buttons.size(), count);

    auto* grid = static_cast<QGridLayout*>(child<QWidget>(&page, "devicesContainer")->layout());
    QVector<int> perRow;
    QVector<QString> readingOrder(count);
    for (QToolButton* b : buttons) {
        int row, column, rowSpan, columnSpan;
        grid->getItemPosition(grid->indexOf(b), &row, &column, &rowSpan, &columnSpan);
        perRow.resize(qMax(perRow.size(), row + 1));
        ++perRow[row];
        readingOrder[row * 6 + column] = b->text();
    }
    QCOMPARE(perRow, rows);
    // Row by row the buttons follow their names, whatever the hash order was.
    QVERIFY(std::is_sorted(readingOrder.begin(), readingOrder.end()));
    QCOMPARE(grid->count(), count + 2);
}

void TestMainWindow::renameStrip_data()
{
    QTest::addColumn<int>("y");
    QTest::addColumn<bool>("edits");
    QTest::newRow("just above the strip") << 111 << false;
    QTest::newRow("top of the strip") << 112 << true;
    QTest::newRow("bottom row") << 129 << true;
}

void TestMainWindow::renameStrip()
{
    QFETCH(int, y);
    QFETCH(bool, edits);
    HomePage page;
    page.setControllerList(devices(1));
    page.show();
    QToolButton* button = deviceButtons(&page).first();
    QSignalSpy entry(&page, &HomePage::controllerEntryOrdered);
    QTest::mouseClick(button, Qt::LeftButton, Qt::NoModifier, QPoint(55, y));
    QCOMPARE(button->findChild<QLineEdit*>()->isVisible(), edits);
    const QList<QVariant> call{firstId};
    QCOMPARE(QList<QList<QVariant>>(entry), edits ? QList<QList<QVariant>>() : QList<QList<QVariant>>{call});
}

void TestMainWindow::renameCommit_data()
{
    QTest::addColumn<QString>("typed");
    QTest::addColumn<int>("key");
    QTest::addColumn<QString>("name");
    QTest::newRow("return") << "Desk" << int(Qt::Key_Return) << "Desk";
    QTest::newRow("enter") << "Desk" << int(Qt::Key_Enter) << "Desk";
    QTest::newRow("focus out") << "Desk" << 0 << "Desk";
    QTest::newRow("unchanged") << "Strip 1" << int(Qt::Key_Return) << "";
    QTest::newRow("empty") << "" << int(Qt::Key_Return) << "";
    QTest::newRow("escape keeps editing") << "Desk" << int(Qt::Key_Escape) << "";
}

void TestMainWindow::renameCommit()
{
    QFETCH(QString, typed);
    QFETCH(int, key);
    QFETCH(QString, name);
    HomePage page;
    page.setControllerList(devices(1));
    page.show();
    // Activated once mapped: an X server without a window manager refuses focus before.
    QVERIFY(QTest::qWaitForWindowExposed(&page));
    page.activateWindow();
    QVERIFY(QTest::qWaitForWindowActive(&page));
    QToolButton* button = deviceButtons(&page).first();
    auto* edit = button->findChild<QLineEdit*>();
    QTest::mouseClick(button, Qt::LeftButton, Qt::NoModifier, QPoint(55, 120));
    QTRY_VERIFY(edit->hasFocus());

    QSignalSpy renamed(&page, &HomePage::controllerNameChanged);
    edit->clear();
    QTest::keyClicks(edit, typed);
    if (key) {
        QTest::keyClick(edit, Qt::Key(key));
    } else {
        edit->clearFocus();
    }
    QCOMPARE(edit->isVisible(), key == Qt::Key_Escape);
    QCOMPARE(button->text(), name.isEmpty() ? QStringLiteral("Strip 1") : name);
    const QList<QVariant> call{firstId, name};
    QCOMPARE(QList<QList<QVariant>>(renamed),
             name.isEmpty() ? QList<QList<QVariant>>() : QList<QList<QVariant>>{call});
}

void TestMainWindow::failedAdImageKeepsPicture()
{
    LogCapture log;
    HomePage page;
    auto* box = child<ImageWidget>(&page, "ADBox1");
    QVERIFY(!box->img().isNull());
    QTemporaryDir dir;
    QImage ad(40, 80, QImage::Format_RGB32);
    ad.fill(Qt::red);
    QVERIFY(ad.save(dir.filePath(QStringLiteral("ad.png"))));
    page.setADBox1(dir.filePath(QStringLiteral("ad.png")), QStringLiteral("http://127.0.0.1/ad"));
    QCOMPARE(box->img().pixelColor(0, 0), QColor(Qt::red));
    page.setADBox1(dir.filePath(QStringLiteral("missing.png")), QStringLiteral("http://127.0.0.1/other"));
    QCOMPARE(box->img().size(), QSize(40, 80));
    QVERIFY(log.contains(QStringLiteral("[HomePage]: Feilad to load AD iamge. path:")));
}

QTEST_MAIN(TestMainWindow)
#include "tst_MainWindow.moc"
