#include "ControlPage.h"
#include "ControllerConfigDialog.h"
#include "ImageWidget.h"
#include "SliderBar.h"

#include <QtTest>
#include <QtWidgets>

#include <algorithm>

namespace {

template <typename T> T* child(QWidget* parent, const char* name)
{
    T* widget = parent->findChild<T*>(QString::fromLatin1(name));
    if (!widget) {
        qFatal("missing widget %s", name);
    }
    return widget;
}

// Keys run against `order`, so a grid that follows key order shows up.
QMap<QString, WorkGroupModel> makeGroups(int count)
{
    QMap<QString, WorkGroupModel> groups;
    for (int i = 0; i < count; ++i) {
        groups[QStringLiteral("g.%1").arg(count - i)] = {QStringLiteral("组%1").arg(i), {}, i};
    }
    return groups;
}

QMap<QString, WorkerModel> makeWorkers(int count)
{
    QMap<QString, WorkerModel> workers;
    for (int i = 0; i < count; ++i) {
        workers[QStringLiteral("g.1.w%1").arg(count - i)] = {QStringLiteral("效果%1").arg(i), {}, {}, i};
    }
    return workers;
}

QRadioButton* buttonWithText(QWidget* container, const QString& text)
{
    for (QRadioButton* button : container->findChildren<QRadioButton*>()) {
        if (button->text() == text) {
            return button;
        }
    }
    return nullptr;
}

// Widgets per grid row, in row order, and the widget at (0, 0).
QList<int> rowCounts(QWidget* container, QWidget** first)
{
    auto* grid = qobject_cast<QGridLayout*>(container->layout());
    QMap<int, int> counts;
    for (int i = 0, row, column, span; i < grid->count(); ++i) {
        grid->getItemPosition(i, &row, &column, &span, &span);
        if (grid->itemAt(i)->widget()) {
            ++counts[row];
        }
    }
    *first = grid->itemAtPosition(0, 0) ? grid->itemAtPosition(0, 0)->widget() : nullptr;
    return counts.values();
}

// The last linesChanged as (nbLeds, lines).
QPair<int, QVector<uint32_t>> lastLines(const QSignalSpy& spy)
{
    return {spy.last().at(0).toInt(), spy.last().at(1).value<QVector<uint32_t>>()};
}

// Every signal of the page, in declaration order.
struct PageSpies
{
    explicit PageSpies(ControlPage* page)
        : spies{{page, &ControlPage::dirChanged},
                {page, &ControlPage::enableChanged},
                {page, &ControlPage::brightnessChanged},
                {page, &ControlPage::workGoupChanged},
                {page, &ControlPage::workerChanged}}
    {
    }
    QSignalSpy spies[5];
};

void sendMouse(QWidget* widget, QEvent::Type type, QPoint pos, Qt::MouseButtons buttons)
{
    const Qt::MouseButton button = type == QEvent::MouseMove ? Qt::NoButton : Qt::LeftButton;
    QMouseEvent event(type, pos, widget->mapToGlobal(pos), button, buttons, Qt::NoModifier);
    QApplication::sendEvent(widget, &event);
}

} // namespace

class TestControlPage : public QObject
{
    Q_OBJECT

private slots:
    void settersDoNotEcho_data();
    void settersDoNotEcho();
    void userActionsEmit_data();
    void userActionsEmit();
    void gridRows_data();
    void gridRows();
    void iconFallsBackToDataFolder();
    void panelsComeAndGo();
    void sliderBarActions_data();
    void sliderBarActions();
    void sliderBarGlides();
    void dialogLinesAndClose();
    void dialogHeaderDrag_data();
    void dialogHeaderDrag();
};

void TestControlPage::settersDoNotEcho_data()
{
    QTest::addColumn<float>("brightness");
    QTest::addColumn<int>("shown");
    // 0.29f * 100.0f is exactly 29.0f in single precision, where doubles give 28.99... and 28.
    QTest::newRow("0.29") << 0.29f << 29;
    QTest::newRow("0.999 truncates") << 0.999f << 99;
}

void TestControlPage::settersDoNotEcho()
{
    QFETCH(float, brightness);
    QFETCH(int, shown);
    ControlPage page;
    page.show();
    PageSpies spied(&page);
    page.setDir(1);
    page.setEnable(false);
    page.setBrightness(brightness);
    page.setWorkGroups(makeGroups(3), QStringLiteral("g.2"));
    page.setWorkers(makeWorkers(3), QStringLiteral("g.1.w2"));
    page.setCurrentGroup(QStringLiteral("g.3"));

    QVERIFY(child<QRadioButton>(&page, "installDirectionRTLButton")->isChecked());
    QVERIFY(!child<QRadioButton>(&page, "installDirectionLTRButton")->isChecked());
    QVERIFY(child<QRadioButton>(&page, "LEDDisableButton")->isChecked());
    QCOMPARE(child<QSlider>(&page, "brightnessSlider")->value(), shown);
    QVERIFY(buttonWithText(child<QWidget>(&page, "workGroupContainer"), QStringLiteral("组0"))->isChecked());
    QVERIFY(buttonWithText(child<QWidget>(&page, "workerContainer"), QStringLiteral("效果1"))->isChecked());
    QCOMPARE(page.currentGroupId(), QStringLiteral("g.3"));
    QCOMPARE(page.currentWorkerId(), QStringLiteral("g.1.w2"));
    for (const QSignalSpy& spy : spied.spies) {
        QCOMPARE(spy.count(), 0);
    }
}

void TestControlPage::userActionsEmit_data()
{
    QTest::addColumn<int>("dir");
    QTest::addColumn<QString>("action");
    QTest::addColumn<int>("signal");
    QTest::addColumn<QVariant>("expected");
    QTest::newRow("right to left") << 0 << "installDirectionRTLButton" << 0 << QVariant(1);
    QTest::newRow("back to left to right") << 1 << "installDirectionLTRButton" << 0 << QVariant(0);
    QTest::newRow("switch off") << 0 << "LEDDisableButton" << 1 << QVariant(false);
    QTest::newRow("slider") << 0 << "brightnessSlider" << 2 << QVariant(0.42f);
    QTest::newRow("group") << 0 << "组1" << 3 << QVariant(QStringLiteral("g.2"));
    QTest::newRow("effect") << 0 << "效果2" << 4 << QVariant(QStringLiteral("g.1.w1"));
}

void TestControlPage::userActionsEmit()
{
    QFETCH(int, dir);
    QFETCH(QString, action);
    QFETCH(int, signal);
    QFETCH(QVariant, expected);
    ControlPage page;
    page.show();
    page.setWorkGroups(makeGroups(3), QStringLiteral("g.3"));
    page.setWorkers(makeWorkers(3), QStringLiteral("g.1.w3"));
    page.setDir(dir);
    PageSpies spied(&page);

    if (action == QLatin1String("brightnessSlider")) {
        child<QSlider>(&page, "brightnessSlider")->setValue(42);
    } else {
        QAbstractButton* button = page.findChild<QRadioButton*>(action);
        for (const char* container : {"workGroupContainer", "workerContainer"}) {
            button = button ? button : buttonWithText(child<QWidget>(&page, container), action);
        }
        QVERIFY(button);
        QTest::mouseClick(button, Qt::LeftButton, Qt::NoModifier, QPoint(10, button->height() / 2));
    }
    for (int i = 0; i < 5; ++i) {
        QCOMPARE(spied.spies[i].count(), i == signal ? 1 : 0);
    }
    QCOMPARE(spied.spies[signal].first().first(), expected);
    if (signal == 3) {
        QCOMPARE(page.currentGroupId(), expected.toString());
    }
}

void TestControlPage::gridRows_data()
{
    QTest::addColumn<bool>("effects");
    QTest::addColumn<int>("count");
    QTest::addColumn<QList<int>>("rows");
    QTest::addColumn<bool>("subModeShown");
    QTest::newRow("five effects") << true << 5 << QList<int>{4, 1} << true;
    QTest::newRow("one effect hides the sub mode") << true << 1 << QList<int>{1} << false;
    QTest::newRow("no effects, empty sub mode") << true << 0 << QList<int>{} << true;
    QTest::newRow("four groups") << false << 4 << QList<int>{3, 1} << true;
}

void TestControlPage::gridRows()
{
    QFETCH(bool, effects);
    QFETCH(int, count);
    QFETCH(QList<int>, rows);
    QFETCH(bool, subModeShown);
    ControlPage page;
    page.show();
    page.setWorkers(makeWorkers(1));
    if (effects) {
        page.setWorkers(makeWorkers(count));
    } else {
        page.setWorkers(makeWorkers(2));
        page.setWorkGroups(makeGroups(count));
    }
    QWidget* first = nullptr;
    QCOMPARE(rowCounts(child<QWidget>(&page, effects ? "workerContainer" : "workGroupContainer"), &first),
             rows);
    // The lowest `order` leads, whatever the key order.
    if (count > 0) {
        QCOMPARE(qobject_cast<QRadioButton*>(first)->text(),
                 effects ? QStringLiteral("效果0") : QStringLiteral("组0"));
    }
    QCOMPARE(child<QWidget>(&page, "workersRegion")->isVisible(), subModeShown);
}

void TestControlPage::iconFallsBackToDataFolder()
{
    QTemporaryDir dir;
    const QString previous = QDir::currentPath();
    QVERIFY(QDir::setCurrent(dir.path()));
    QDir().mkpath(QStringLiteral("images/icons"));
    QImage red(100, 100, QImage::Format_ARGB32);
    red.fill(Qt::red);
    QVERIFY(red.save(QStringLiteral("images/icons/com_orvanta_screenSync.png")));

    ControlPage page;
    page.setWorkers({{QStringLiteral("com.orvanta.screenSync"), {QStringLiteral("同步"), {}, {}, 0}},
                     {QStringLiteral("com.orvanta.missing"), {QStringLiteral("无图"), {}, {}, 1}}});
    QDir::setCurrent(previous);

    QWidget* container = child<QWidget>(&page, "workerContainer");
    const QImage shown = buttonWithText(container, QStringLiteral("同步"))->icon().pixmap(100, 100).toImage();
    QCOMPARE(shown.pixelColor(50, 50), QColor(Qt::red));
    QVERIFY(buttonWithText(container, QStringLiteral("无图"))->icon().pixmap(100, 100).isNull());
}

void TestControlPage::panelsComeAndGo()
{
    ControlPage page;
    page.show();
    QImage product(48, 32, QImage::Format_ARGB32);
    product.fill(Qt::blue);
    page.setProductImage(product);
    auto* small1 = new QWidget;
    small1->resize(443, 120);
    auto* small2 = new QWidget;
    small2->resize(443, 200);
    QWidget large;
    auto* stack = child<QStackedWidget>(&page, "lOperateWidConatiner");
    auto* options = child<QWidget>(&page, "otherOptionsWidget");

    page.setOperateWidget(small1, &large);
    QCOMPARE(stack->currentWidget(), &large);
    page.setOperateWidget(small2, nullptr);
    QCOMPARE(stack->currentWidget(), child<QWidget>(&page, "productImgWid"));
    QCOMPARE(child<ImageWidget>(&page, "productImgWid")->img(), product);
    // The old panel is parked hidden, still alive; the new one sets the region's height.
    QVERIFY(small1->isHidden());
    QCOMPARE(small1->parentWidget(), options);
    QCOMPARE(options->height(), 200);
    page.setOperateWidget(nullptr, &large);
    QVERIFY(small2->isHidden());
    QCOMPARE(stack->currentWidget(), &large);
    QCOMPARE(stack->count(), 2);
    large.setParent(nullptr);
}

void TestControlPage::sliderBarActions_data()
{
    QTest::addColumn<bool>("keyMove");
    QTest::addColumn<int>("key");
    QTest::addColumn<int>("expected");
    QTest::newRow("click") << false << 0 << 1;
    QTest::newRow("right without keyMove") << false << int(Qt::Key_Right) << -1;
    QTest::newRow("down") << true << int(Qt::Key_Down) << 1;
    QTest::newRow("left at first") << true << int(Qt::Key_Left) << -1;
}

void TestControlPage::sliderBarActions()
{
    QFETCH(bool, keyMove);
    QFETCH(int, key);
    QFETCH(int, expected);
    SliderBar bar;
    bar.setItems(QStringLiteral("常规;快捷键;关于"));
    bar.setKeyMove(keyMove);
    bar.resize(300, 40);
    bar.show();
    QCOMPARE(bar.currentIndex(), 0);
    QSignalSpy spy(&bar, &SliderBar::currentItemChanged);
    if (key == 0) {
        QTest::mouseClick(&bar, Qt::LeftButton, Qt::NoModifier, bar.itemRect(1).center().toPoint());
    } else {
        QTest::keyClick(&bar, Qt::Key(key));
    }
    QCOMPARE(spy.count(), expected < 0 ? 0 : 1);
    if (expected >= 0) {
        QCOMPARE(spy.first(), (QVariantList{expected, QStringLiteral("快捷键")}));
        QCOMPARE(bar.currentItem(), QStringLiteral("快捷键"));
    }
}

void TestControlPage::sliderBarGlides()
{
    SliderBar bar;
    bar.setHorizontal(false);
    bar.setItems(QStringLiteral("a;b;c;d;e;f"));
    bar.resize(80, 400);
    bar.show();
    QCOMPARE(bar.barRect(), bar.itemRect(0));
    QSignalSpy spy(&bar, &SliderBar::currentItemChanged);
    bar.moveTo(QStringLiteral("f"));
    QCOMPARE(spy.count(), 1);
    QCOMPARE(bar.barRect(), bar.itemRect(0));
    // Sample the bar at every tick: it moves toward the target by steps and stops on it.
    QVector<double> tops{bar.barRect().top()};
    QElapsedTimer clock;
    clock.start();
    while (bar.barRect() != bar.itemRect(5) && clock.elapsed() < 5000) {
        QTest::qWait(1);
        if (bar.barRect().top() != tops.last()) {
            tops.append(bar.barRect().top());
        }
    }
    QCOMPARE(bar.barRect(), bar.itemRect(5));
    QVERIFY2(tops.size() > 5, "the bar jumped instead of gliding");
    QVERIFY(std::is_sorted(tops.cbegin(), tops.cend()));
}

void TestControlPage::dialogLinesAndClose()
{
    ControllerConfigDialog dialog;
    QSignalSpy spy(&dialog, &ControllerConfigDialog::linesChanged);
    auto* add = child<QPushButton>(&dialog, "addBtn");
    auto* remove = child<QPushButton>(&dialog, "removeBtn");
    auto* label = child<QLabel>(&dialog, "totalLabel");
    remove->click();
    QCOMPARE(label->text(), QStringLiteral("总计 0 个LED灯珠"));
    for (int i = 0; i < 3; ++i) {
        add->click();
    }
    QCOMPARE(spy.count(), 0);
    const QList<QSpinBox*> boxes = dialog.findChildren<QSpinBox*>();
    QCOMPARE(boxes.size(), 3);
    boxes[0]->setValue(10);
    boxes[1]->setValue(20);
    boxes[2]->setValue(30);
    QCOMPARE(label->text(), QStringLiteral("总计 60 个LED灯珠"));
    QCOMPARE(lastLines(spy), qMakePair(60, QVector<uint32_t>{10, 20, 30}));
    boxes[2]->setValue(5);
    QCOMPARE(lastLines(spy), qMakePair(35, QVector<uint32_t>{10, 20, 5}));
    const int emitted = spy.count();
    remove->click();
    QCOMPARE(label->text(), QStringLiteral("总计 30 个LED灯珠"));
    QCOMPARE(dialog.findChildren<QSpinBox*>().size(), 2);
    QCOMPARE(spy.count(), emitted);
    // A row added after a removal counts from its own index.
    add->click();
    dialog.findChildren<QSpinBox*>().last()->setValue(7);
    QCOMPARE(lastLines(spy), qMakePair(37, QVector<uint32_t>{10, 20, 7}));

    // The header's close button cancels.
    dialog.show();
    QSignalSpy rejected(&dialog, &QDialog::rejected);
    auto* close = child<QToolButton>(&dialog, "toolButton");
    QVERIFY(!close->icon().isNull());
    QTest::mouseClick(close, Qt::LeftButton);
    QCOMPARE(rejected.count(), 1);
    QVERIFY(!dialog.isVisible());
}

void TestControlPage::dialogHeaderDrag_data()
{
    QTest::addColumn<QPoint>("press");
    QTest::addColumn<bool>("viaChild");
    QTest::addColumn<bool>("moves");
    QTest::newRow("header, through its label") << QPoint(20, 15) << true << true;
    QTest::newRow("last header row") << QPoint(100, 29) << false << true;
    QTest::newRow("left of the close square") << QPoint(389, 10) << false << true;
    QTest::newRow("close square") << QPoint(390, 10) << false << false;
    QTest::newRow("below header") << QPoint(100, 30) << false << false;
}

void TestControlPage::dialogHeaderDrag()
{
    QFETCH(QPoint, press);
    QFETCH(bool, viaChild);
    QFETCH(bool, moves);
    ControllerConfigDialog dialog;
    dialog.setFixedSize(420, 480);
    dialog.move(200, 200);
    dialog.show();
    QVERIFY(QTest::qWaitForWindowExposed(&dialog));
    const QPoint start = dialog.pos();
    QWidget* target = viaChild ? dialog.childAt(press) : &dialog;
    QVERIFY(target);
    const QPoint local = target->mapFrom(&dialog, press);
    sendMouse(target, QEvent::MouseButtonPress, local, Qt::LeftButton);
    sendMouse(target, QEvent::MouseMove, local + QPoint(40, 25), Qt::LeftButton);
    sendMouse(target, QEvent::MouseButtonRelease, local + QPoint(40, 25), Qt::NoButton);
    QCOMPARE(dialog.pos(), moves ? start + QPoint(40, 25) : start);
}

QTEST_MAIN(TestControlPage)
#include "tst_ControlPage.moc"
