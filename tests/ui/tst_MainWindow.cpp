#include "LogCapture.h"
#include "ui/ControlPage.h"
#include "ui/HomePage.h"
#include "ui/MainWindow.h"

#include <QtTest>
#include <QtWidgets>
#include <memory>
#include <xcb/xcb.h>

namespace {
const QString firstId = QStringLiteral("OV5512:00000001");

// Takes the X selection that a desktop's tray holds, so that the program sees a tray; the
// selection goes with the returned connection.
std::shared_ptr<xcb_connection_t> claimTray()
{
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

} // namespace

class TestMainWindow : public QObject
{
    Q_OBJECT

private slots:
    // Closed with the bar's button, the window hides in the tray, also one that appeared after the
    // start (without one it minimises and says why), and comes back on the page it showed; a single
    // click or the menu's first entry asks for no settings and quits nothing.
    void closeAndComeBack_data()
    {
        QTest::addColumn<QString>("tray");
        QTest::addColumn<bool>("shows");
        QTest::addColumn<QString>("way");
        QTest::newRow("tray double click") << "now" << true << "double";
        QTest::newRow("tray single click") << "now" << false << "single";
        QTest::newRow("tray menu first entry") << "now" << true << "menu";
        QTest::newRow("tray appearing later") << "later" << true << "double";
        QTest::newRow("no tray, double click") << "none" << true << "double";
    }
    void closeAndComeBack()
    {
        QFETCH(QString, tray);
        QFETCH(bool, shows);
        QFETCH(QString, way);
        if (tray != "none" && QGuiApplication::platformName() != QLatin1String("xcb")) {
            QSKIP("A tray needs an X server");
        }
        auto claimed = tray == "now" ? claimTray() : nullptr;
        LogCapture log;
        MainWindow w;
        QTRY_COMPARE(w.trayAvailable(), tray == "now");
        w.show();
        emit w.homePage()->controllerEntryOrdered(firstId);
        auto* stack = w.findChild<QStackedWidget*>("mainStackedWidget");
        QSignalSpy settings(&w, &MainWindow::settingsBtnTriggered);
        QSignalSpy quitting(qApp, &QCoreApplication::aboutToQuit);
        QTest::mouseClick(w.findChild<QToolButton*>("toolButton_close"), Qt::LeftButton);
        QCOMPARE(log.contains(QStringLiteral("No system tray is available")), tray != "now");
        if (tray == "later") {
            QVERIFY(w.isMinimized());
            claimed = claimTray();
            QTRY_VERIFY_WITH_TIMEOUT(log.contains(QStringLiteral("A system tray has appeared")), 10000);
            w.showNormal();
            QTest::mouseClick(w.findChild<QToolButton*>("toolButton_close"), Qt::LeftButton);
        }
        QCOMPARE(w.isHidden(), tray != "none");
        QCOMPARE(w.isMinimized(), tray == "none");
        auto* icon = w.findChild<QSystemTrayIcon*>();
        if (way == "menu") {
            icon->contextMenu()->actions().first()->trigger();
        } else {
            emit icon->activated(way == "double" ? QSystemTrayIcon::DoubleClick : QSystemTrayIcon::Trigger);
        }
        QCOMPARE(w.isVisible() && !w.isMinimized(), shows);
        QCOMPARE(stack->currentWidget(), static_cast<QWidget*>(w.controlPage()));
        QVERIFY(settings.isEmpty() && quitting.isEmpty());
    }

    // A click above the lowest 18 pixels of a device button opens the device; inside that strip it
    // opens the name editor, which Return, Enter and the loss of focus commit; the same or an
    // empty name is no change, and Escape keeps editing.
    void rename_data()
    {
        QTest::addColumn<int>("y");
        QTest::addColumn<QString>("typed");
        QTest::addColumn<int>("key");
        QTest::addColumn<QString>("name");
        QTest::newRow("above the strip opens") << 111 << "" << 0 << "";
        QTest::newRow("top of the strip, return") << 112 << "Desk" << int(Qt::Key_Return) << "Desk";
        QTest::newRow("enter") << 120 << "Desk" << int(Qt::Key_Enter) << "Desk";
        QTest::newRow("bottom row, focus out") << 129 << "Desk" << 0 << "Desk";
        QTest::newRow("unchanged") << 120 << "Strip 1" << int(Qt::Key_Return) << "";
        QTest::newRow("empty") << 120 << "" << int(Qt::Key_Return) << "";
        QTest::newRow("escape keeps editing") << 120 << "Desk" << int(Qt::Key_Escape) << "";
    }
    void rename()
    {
        QFETCH(int, y);
        QFETCH(QString, typed);
        QFETCH(int, key);
        QFETCH(QString, name);
        HomePage page;
        const QIcon icon(QStringLiteral(ORVANTA_SOURCE_DIR "/resources/images/Ov5512Icon.jpg"));
        page.setControllerList({{firstId, DeviceModel{"Strip 1", firstId, icon, 0}}});
        QToolButton* button = nullptr;
        for (QToolButton* b : page.findChildren<QToolButton*>()) {
            button = b->property("role") == "deviceButton" ? b : button;
        }
        page.show();
        // Activated once mapped: an X server without a window manager refuses focus before.
        QVERIFY(QTest::qWaitForWindowExposed(&page));
        page.activateWindow();
        QVERIFY(QTest::qWaitForWindowActive(&page));
        QSignalSpy entry(&page, &HomePage::controllerEntryOrdered);
        QSignalSpy renamed(&page, &HomePage::controllerNameChanged);
        auto* edit = button->findChild<QLineEdit*>();
        QTest::mouseClick(button, Qt::LeftButton, Qt::NoModifier, QPoint(55, y));
        QCOMPARE(entry.count(), y < 112 ? 1 : 0);
        if (y >= 112) {
            QTRY_VERIFY(edit->hasFocus());
            edit->clear();
            QTest::keyClicks(edit, typed);
            key ? QTest::keyClick(edit, Qt::Key(key)) : edit->clearFocus();
        }
        QCOMPARE(edit->isVisible(), key == Qt::Key_Escape);
        QCOMPARE(button->text(), name.isEmpty() ? QStringLiteral("Strip 1") : name);
        const QList<QVariant> call{firstId, name};
        QCOMPARE(QList<QList<QVariant>>(renamed),
                 name.isEmpty() ? QList<QList<QVariant>>() : QList<QList<QVariant>>{call});
    }
};

QTEST_MAIN(TestMainWindow)
#include "tst_MainWindow.moc"
