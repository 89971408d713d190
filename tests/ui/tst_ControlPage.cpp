#include "ui/ControlPage.h"

#include <QtTest>
#include <QtWidgets>

namespace {

// The text of the checked button in a container of radio buttons.
QString checked(QWidget* container)
{
    for (QRadioButton* button : container->findChildren<QRadioButton*>()) {
        if (button->isChecked()) {
            return button->text();
        }
    }
    return QString();
}
} // namespace

class TestControlPage : public QObject
{
    Q_OBJECT

private slots:
    // The program's setters move the controls and emit nothing; the slider shows the single
    // precision product, truncated.
    void settersDoNotEcho_data()
    {
        QTest::addColumn<float>("brightness");
        QTest::addColumn<int>("shown");
        // 0.29f * 100.0f is exactly 29.0f in single precision, where doubles give 28.99... and 28.
        QTest::newRow("0.29") << 0.29f << 29;
        QTest::newRow("0.999 truncates") << 0.999f << 99;
    }
    void settersDoNotEcho()
    {
        QFETCH(float, brightness);
        QFETCH(int, shown);
        ControlPage page;
        page.show();
        QSignalSpy spies[] = {{&page, &ControlPage::dirChanged},
                              {&page, &ControlPage::enableChanged},
                              {&page, &ControlPage::brightnessChanged},
                              {&page, &ControlPage::workGoupChanged},
                              {&page, &ControlPage::workerChanged}};
        page.setDir(1);
        page.setEnable(false);
        page.setBrightness(brightness);
        // Keys run against `order`, so that a lookup by position shows up.
        page.setWorkGroups({{"g.3", {"组0", {}, 0}}, {"g.2", {"组1", {}, 1}}, {"g.1", {"组2", {}, 2}}},
                           "g.2");
        page.setWorkers({{"w.2", {"效果0", {}, {}, 0}}, {"w.1", {"效果1", {}, {}, 1}}}, "w.1");
        page.setCurrentGroup("g.3");
        QVERIFY(page.findChild<QRadioButton*>("installDirectionRTLButton")->isChecked());
        QVERIFY(page.findChild<QRadioButton*>("LEDDisableButton")->isChecked());
        QCOMPARE(page.findChild<QSlider*>("brightnessSlider")->value(), shown);
        QCOMPARE(checked(page.findChild<QWidget*>("workGroupContainer")), QString("组0"));
        QCOMPARE(checked(page.findChild<QWidget*>("workerContainer")), QString("效果1"));
        QCOMPARE(page.currentGroupId(), QString("g.3"));
        QCOMPARE(page.currentWorkerId(), QString("w.1"));
        for (const QSignalSpy& spy : spies) {
            QCOMPARE(spy.count(), 0);
        }
    }
};

QTEST_MAIN(TestControlPage)
#include "tst_ControlPage.moc"
