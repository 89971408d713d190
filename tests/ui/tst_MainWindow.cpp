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
#include <QTranslator>

namespace {
// English texts for a handful of source texts, without a .qm file.
class EnglishTranslator : public QTranslator
{
public:
    QString translate(const char* context, const char* sourceText, const char*, int) const override
    {
        static const QHash<QString, QString> english{
            {"MainWindow/首页", "Home"},     {"MainWindow/设置", "Settings"}, {"MainWindow/帮助", "Help"},
            {"MainWindow/全关", "All off"},  {"MainWindow/全开", "All on"},   {"MainWindow/退出", "Quit"},
            {"HomePage/灯光设备", "Devices"}};
        return english.value(QString::fromUtf8(context) + '/' + QString::fromUtf8(sourceText));
    }
    bool isEmpty() const override { return false; }
};

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
    QList<QToolButton*> buttons;
    for (QToolButton* b : page->findChildren<QToolButton*>()) {
        if (b->property("role") == QStringLiteral("deviceButton")) {
            buttons << b;
        }
    }
    return buttons;
}

// Clicks the button labelled `text` of the next message box, once it runs.
void answerNextMessageBox(const QString& text)
{
    auto* timer = new QTimer(qApp);
    QObject::connect(timer, &QTimer::timeout, timer, [timer, text]() {
        auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
        if (!box) {
            return;
        }
        for (QAbstractButton* b : box->buttons()) {
            if (b->text() == text) {
                timer->deleteLater();
                b->click();
            }
        }
    });
    timer->start(10);
}

void sendMouse(QWidget* w, QEvent::Type type, QPoint local, Qt::MouseButton button, bool* accepted = nullptr)
{
    QMouseEvent event(type, local, w->frameGeometry().topLeft() + local, button,
                      type == QEvent::MouseButtonRelease ? Qt::NoButton : Qt::MouseButtons(Qt::LeftButton),
                      Qt::NoModifier);
    QApplication::sendEvent(w, &event);
    if (accepted) {
        *accepted = event.isAccepted();
    }
}
} // namespace

class TestMainWindow : public QObject
{
    Q_OBJECT
private slots:
    void dragRule_data();
    void dragRule();
    void closeAndComeBack_data();
    void closeAndComeBack();
    void newVersionButton_data();
    void newVersionButton();
    void languageChangeRelabels();
    void deviceRows_data();
    void deviceRows();
    void renameStrip_data();
    void renameStrip();
    void renameCommit_data();
    void renameCommit();
    void failedAdImageKeepsPicture();
    void screenshot();
    void quitEntryQuits();
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
    bool pressAccepted = false;
    sendMouse(&w, QEvent::MouseButtonPress, press, Qt::LeftButton, &pressAccepted);
    QCOMPARE(pressAccepted, accepted);
    sendMouse(&w, QEvent::MouseMove, press + QPoint(40, 30), Qt::NoButton);
    QCOMPARE(w.pos(), drags ? start + QPoint(40, 30) : start);
    sendMouse(&w, QEvent::MouseButtonRelease, press + QPoint(40, 30), Qt::LeftButton);
    // After the release a move with the button held must not drag any more.
    const QPoint after = w.pos();
    sendMouse(&w, QEvent::MouseMove, press + QPoint(80, 60), Qt::NoButton);
    QCOMPARE(w.pos(), after);
}

void TestMainWindow::closeAndComeBack_data()
{
    QTest::addColumn<QString>("way");
    QTest::addColumn<bool>("shows");
    QTest::newRow("tray double click") << "double" << true;
    QTest::newRow("tray single click") << "single" << false;
    QTest::newRow("tray menu first entry") << "menu" << true;
}

void TestMainWindow::closeAndComeBack()
{
    QFETCH(QString, way);
    LogCapture log;
    MainWindow w;
    w.show();
    QVERIFY(QTest::qWaitForWindowExposed(&w));
    emit w.homePage()->controllerEntryOrdered(QStringLiteral("OV5512:00000001"));
    auto* stack = w.findChild<QStackedWidget*>(QStringLiteral("mainStackedWidget"));
    QCOMPARE(stack->currentWidget(), static_cast<QWidget*>(w.controlPage()));

    QSignalSpy settings(&w, &MainWindow::settingsBtnTriggered);
    QSignalSpy quitting(qApp, &QCoreApplication::aboutToQuit);
    QTest::mouseClick(w.findChild<QToolButton*>(QStringLiteral("toolButton_close")), Qt::LeftButton);
    if (w.trayAvailable()) {
        QVERIFY(w.isHidden());
    } else {
        // Without a tray a hidden window could not come back: it is minimised, and says why.
        QVERIFY(w.isVisible());
        QVERIFY(w.isMinimized());
        QVERIFY(log.contains(QStringLiteral("No system tray is available")));
    }

    auto* tray = w.findChild<QSystemTrayIcon*>();
    QVERIFY(tray && tray->isVisible());
    if (way == "menu") {
        tray->contextMenu()->actions().first()->trigger();
    } else {
        emit tray->activated(way == "double" ? QSystemTrayIcon::DoubleClick : QSystemTrayIcon::Trigger);
    }
    QFETCH(bool, shows);
    QCOMPARE(w.isVisible() && !w.isMinimized(), shows);
    QCOMPARE(stack->currentWidget(), static_cast<QWidget*>(w.controlPage()));
    QCOMPARE(settings.count(), 0);
    QCOMPARE(quitting.count(), 0);
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
    auto* button = w.findChild<QPushButton*>(QStringLiteral("newVersionBtn"));
    QVERIFY(!button->isVisible());
    w.showNewVersionButton();
    QVERIFY(button->isVisible());

    QSignalSpy update(&w, &MainWindow::requestUpdateAppVersion);
    answerNextMessageBox(answer);
    QTest::mouseClick(button, Qt::LeftButton);
    QCOMPARE(button->isVisible(), stays);
    QCOMPARE(update.count(), stays ? 0 : 1);
}

void TestMainWindow::languageChangeRelabels()
{
    MainWindow w;
    w.show();
    auto* home = w.findChild<QPushButton*>(QStringLiteral("pushButton_home"));
    QCOMPARE(home->text(), QStringLiteral("首页"));
    const QList<QAction*> entries = w.findChild<QSystemTrayIcon*>()->contextMenu()->actions();

    EnglishTranslator english;
    QCoreApplication::installTranslator(&english);
    QTRY_COMPARE(home->text(), QStringLiteral("Home"));
    QCOMPARE(w.findChild<QPushButton*>(QStringLiteral("pushButton_on"))->text(), QStringLiteral("All on"));
    QCOMPARE(entries.first()->text(), QStringLiteral("Settings"));
    QCOMPARE(entries.last()->text(), QStringLiteral("Quit"));
    QCOMPARE(w.homePage()->findChild<QLabel*>(QStringLiteral("label_3"))->text(), QStringLiteral("Devices"));
    QCOMPARE(w.windowTitle(), QStringLiteral("Orvanta"));
    // Shortcuts are not texts to translate: a relabelled bar keeps them.
    QCOMPARE(home->shortcut(), QKeySequence(QStringLiteral("Alt+H")));
    QCoreApplication::removeTranslator(&english);
    QTRY_COMPARE(home->text(), QStringLiteral("首页"));
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
    auto* grid =
        qobject_cast<QGridLayout*>(page.findChild<QWidget*>(QStringLiteral("devicesContainer"))->layout());
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
    // Read row by row, the buttons follow the names, whatever the hash order was.
    QVector<QString> sorted = readingOrder;
    std::sort(sorted.begin(), sorted.end());
    QCOMPARE(readingOrder, sorted);
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
    QCOMPARE(entry.count(), edits ? 0 : 1);
    if (!edits) {
        QCOMPARE(entry.first().first().toString(), QStringLiteral("OV5512:00000001"));
    }
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
    QApplication::setActiveWindow(&page);
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
    QCOMPARE(renamed.count(), name.isEmpty() ? 0 : 1);
    QCOMPARE(button->text(), name.isEmpty() ? QStringLiteral("Strip 1") : name);
    if (!name.isEmpty()) {
        QCOMPARE(renamed.first(), (QList<QVariant>{QStringLiteral("OV5512:00000001"), name}));
    }
}

void TestMainWindow::failedAdImageKeepsPicture()
{
    LogCapture log;
    HomePage page;
    auto* box = page.findChild<ImageWidget*>(QStringLiteral("ADBox1"));
    QVERIFY(!box->img().isNull());
    QTemporaryDir dir;
    QImage ad(40, 80, QImage::Format_RGB32);
    ad.fill(Qt::red);
    const QString adPath = dir.filePath(QStringLiteral("ad.png"));
    QVERIFY(ad.save(adPath));
    page.setADBox1(adPath, QStringLiteral("http://127.0.0.1/ad"));
    QCOMPARE(box->img().pixelColor(0, 0), QColor(Qt::red));

    page.setADBox1(dir.filePath(QStringLiteral("missing.png")), QStringLiteral("http://127.0.0.1/other"));
    QCOMPARE(box->img().size(), QSize(40, 80));
    QVERIFY(log.contains(QStringLiteral("[HomePage]: Feilad to load AD iamge. path:")));
}

// Saves the window for a person to look at, and checks the theme reached it.
void TestMainWindow::screenshot()
{
    MainWindow w;
    w.homePage()->setControllerList(devices(3));
    w.show();
    QVERIFY(QTest::qWaitForWindowExposed(&w));
    const QImage shot = w.grab().toImage();
    QVERIFY(QDir().mkpath(QStringLiteral("screenshots")));
    QVERIFY(shot.save(QStringLiteral("screenshots/main_window@%1x.png").arg(w.devicePixelRatioF())));
    const qreal ratio = w.devicePixelRatioF();
    // The dark ground of the style sheet, between the last device and the right edge.
    QCOMPARE(shot.pixelColor(QPoint(1200, 300) * ratio), QColor(34, 34, 34));
    // The logo picture is drawn in the bar.
    const QImage logo = w.findChild<QLabel*>(QStringLiteral("label_logo"))->grab().toImage();
    int drawn = 0;
    for (int x = 0; x < logo.width(); ++x) {
        drawn += logo.pixelColor(x, logo.height() / 2) != QColor(34, 34, 34);
    }
    QVERIFY(drawn > logo.width() / 4);
}

// Runs last: it ends the event loop of the application.
void TestMainWindow::quitEntryQuits()
{
    MainWindow w;
    QSignalSpy quitting(qApp, &QCoreApplication::aboutToQuit);
    QAction* quit = w.findChild<QSystemTrayIcon*>()->contextMenu()->actions().last();
    QTimer::singleShot(0, quit, &QAction::trigger);
    // Should the entry not quit, the loop ends with another code after a while.
    QTimer fallback;
    connect(&fallback, &QTimer::timeout, qApp, []() { QCoreApplication::exit(3); });
    fallback.start(5000);
    QCOMPARE(QCoreApplication::exec(), 0);
    QCOMPARE(quitting.count(), 1);
}

QTEST_MAIN(TestMainWindow)
#include "tst_MainWindow.moc"
