#include "ui/HomePage.h"

#include "ui_HomePage.h"

#include <QDebug>
#include <QDesktopServices>
#include <QFileInfo>
#include <QGridLayout>
#include <QKeyEvent>
#include <QLineEdit>
#include <QMouseEvent>
#include <QToolButton>
#include <QUrl>
#include <QVBoxLayout>
#include <algorithm>

namespace {

constexpr char kTag[] = "[HomePage]:";
constexpr int kButtonsPerRow = 6;
// Height of the strip at the bottom of a device button that opens the rename editor.
constexpr int kRenameStripHeight = 18;

QLineEdit* nameEditOf(QObject* button)
{
    return reinterpret_cast<QLineEdit*>(button->property("nameEdit").value<quintptr>());
}
} // namespace

HomePage::HomePage(QWidget* parent)
    : QWidget(parent)
    , ui(new Ui::HomePage)
{
    // The page's pictures live in the static library's resources, which need registering.
    Q_INIT_RESOURCE(ui);
    ui->setupUi(this);
    // The notice bars share the scroll area with the device buttons, so the page keeps its height.
    auto* column = new QWidget(ui->controllerButtonScrollArea->viewport()); // where setWidget puts it
    auto* columnLayout = new QVBoxLayout(column);
    columnLayout->setContentsMargins(0, 0, 0, 0);
    columnLayout->setSpacing(10);
    noticeArea = new QWidget(column);
    noticeArea->setObjectName(QStringLiteral("portNoticeArea"));
    auto* noticeLayout = new QVBoxLayout(noticeArea);
    noticeLayout->setContentsMargins(10, 10, 10, 0);
    noticeLayout->setSpacing(6);
    noticeArea->hide();
    columnLayout->addWidget(noticeArea);
    columnLayout->addWidget(ui->controllerButtonScrollArea->takeWidget(), 1);
    ui->controllerButtonScrollArea->setWidget(column);
    // The page's events are offered to the picture panel, which filters nothing.
    installEventFilter(ui->ADBox1);
    // A high-density screen gets the double-size picture, which the panel draws as sharply.
    ui->ADBox1->setImg(QImage(devicePixelRatioF() > 1.0 ? QStringLiteral(":/images/product00_h@2x.png")
                                                        : QStringLiteral(":/images/product00_h.png")));
}

HomePage::~HomePage()
{
    deviceButtons.clear();
}

void HomePage::setControllerList(QHash<QString, DeviceModel> ctls)
{
    QHash<QString, DeviceButtonRecord> old;
    old.swap(deviceButtons);
    for (const DeviceButtonRecord& record : qAsConst(old)) {
        // An editor open on a button that goes must not commit while it disappears.
        record.button->removeEventFilter(this);
        if (QLineEdit* edit = nameEditOf(record.button.data())) {
            edit->removeEventFilter(this);
        }
        record.button->hide();
    }
    // The buttons go later, so that a refill caused by one of their own signals is safe.
    old.clear();

    delete ui->devicesContainer->layout();
    auto* layout = new QGridLayout(ui->devicesContainer);
    layout->setVerticalSpacing(20);
    layout->setHorizontalSpacing(10);

    // Sorted by what the user reads, so that buttons keep their places between refills.
    QVector<DeviceModel> devices;
    devices.reserve(ctls.size());
    for (auto it = ctls.cbegin(); it != ctls.cend(); ++it) {
        devices.append(it.value());
    }
    std::sort(devices.begin(), devices.end(), [](const DeviceModel& a, const DeviceModel& b) {
        return a.name != b.name ? a.name < b.name : a.id < b.id;
    });

    int i = 0;
    for (const DeviceModel& device : qAsConst(devices)) {
        DeviceButtonRecord record{
            device.name, device.id, device.icon, device.reserved,
            QSharedPointer<QToolButton>(new QToolButton(ui->devicesContainer), &QObject::deleteLater)};
        QToolButton* button = record.button.data();
        button->setIcon(device.icon);
        button->setIconSize(QSize(100, 100));
        button->setFixedSize(110, 130);
        button->setText(device.name);
        button->setToolButtonStyle(Qt::ToolButtonTextUnderIcon);
        button->setProperty("class", QStringLiteral("DeviceButton"));
        button->setProperty("role", QStringLiteral("deviceButton"));
        button->installEventFilter(this);

        auto* edit = new QLineEdit(button->text(), button);
        const int h = button->rect().bottom();
        edit->setGeometry(QRect(QPoint(0, h - 21), QPoint(109, h)));
        edit->setAlignment(Qt::AlignCenter);
        edit->hide();
        edit->installEventFilter(this);
        edit->setProperty("role", QStringLiteral("deviceButtonNameEdit"));
        edit->setProperty("class", QStringLiteral("DeviceRenameEditor"));

        button->setProperty("nameEdit", QVariant::fromValue(reinterpret_cast<quintptr>(edit)));
        button->setProperty("controllerId", device.id);

        layout->addWidget(button, i / kButtonsPerRow, i % kButtonsPerRow, Qt::AlignLeft | Qt::AlignTop);
        const QString id = device.id;
        connect(button, &QToolButton::clicked, this, [this, id]() { emit controllerEntryOrdered(id); });
        deviceButtons.insert(device.id, record);
        ++i;
    }

    // Pin the grid to the top-left corner.
    layout->addItem(new QSpacerItem(20, 40, QSizePolicy::Minimum, QSizePolicy::Expanding), 100, 0);
    layout->addItem(new QSpacerItem(20, 40, QSizePolicy::Expanding, QSizePolicy::Minimum), 0, 7);
}

void HomePage::setADBox1(QString imgFilename, QString clickUrl)
{
    const QImage image(imgFilename);
    if (image.isNull()) {
        qInfo().noquote() << kTag << "Feilad to load AD iamge. path:" << imgFilename;
        return;
    }
    ui->ADBox1->setImg(image);
    adClickUrl = clickUrl;
}

void HomePage::showPortNotice(const QString& port, PortNoticeBar::Reason reason, const QString& group,
                              const QString& command)
{
    if (notices.contains(port)) {
        return;
    }
    auto* bar = new PortNoticeBar(port, reason, group, command, noticeArea);
    notices.insert(port, bar);
    noticeArea->layout()->addWidget(bar);
    noticeArea->show();
    connect(bar, &PortNoticeBar::closeClicked, this, [this, bar]() { dropNotice(bar); });
    qInfo().noquote() << kTag << "Notice shown for the port" << port;
}

void HomePage::clearPortNotice(const QString& port)
{
    const QString file = QFileInfo(port).canonicalFilePath();
    for (auto it = notices.begin(); it != notices.end(); ++it) {
        PortNoticeBar* bar = it.value();
        if (bar &&
            (it.key() == port || (!file.isEmpty() && QFileInfo(it.key()).canonicalFilePath() == file))) {
            dropNotice(bar);
        }
    }
}

void HomePage::dropNotice(PortNoticeBar* bar)
{
    bar->hide();
    bar->deleteLater();
    // The area folds away with its last bar.
    const bool any = std::any_of(notices.cbegin(), notices.cend(),
                                 [](const QPointer<PortNoticeBar>& b) { return b && !b->isHidden(); });
    noticeArea->setVisible(any);
}

bool HomePage::eventFilter(QObject* watched, QEvent* event)
{
    const QString role = watched->property("role").toString();
    if (role == QLatin1String("deviceButton")) {
        if (event->type() != QEvent::MouseButtonPress && event->type() != QEvent::MouseButtonRelease) {
            return false;
        }
        auto* button = static_cast<QToolButton*>(watched);
        auto* mouse = static_cast<QMouseEvent*>(event);
        QRect strip = button->rect();
        strip.moveTop(button->geometry().height() - kRenameStripHeight);
        if (mouse->button() != Qt::LeftButton || !strip.contains(mouse->pos())) {
            return false;
        }
        button->setProperty("isLeftButtonPress", event->type() == QEvent::MouseButtonPress);
        if (button->property("isLeftButtonPress").toBool()) {
            // Swallowed, so the button never goes down and no click follows.
            return true;
        }
        QLineEdit* edit = nameEditOf(button);
        edit->setText(button->text());
        edit->setVisible(true);
        edit->setFocus(Qt::OtherFocusReason);
        edit->selectAll();
        return true;
    }
    if (role == QLatin1String("deviceButtonNameEdit")) {
        bool commit = event->type() == QEvent::FocusOut;
        if (event->type() == QEvent::KeyPress) {
            const int key = static_cast<QKeyEvent*>(event)->key();
            commit = key == Qt::Key_Return || key == Qt::Key_Enter;
        }
        if (commit) {
            auto* edit = static_cast<QLineEdit*>(watched);
            commitRename(edit, static_cast<QToolButton*>(edit->parentWidget()));
            return true;
        }
    }
    if (watched->objectName() == QLatin1String("ADBox1") && event->type() == QEvent::MouseButtonPress) {
        // The target comes from the network: only a web page opens, never a file or a program.
        const QString scheme = QUrl(adClickUrl).scheme().toLower();
        if (scheme != QLatin1String("http") && scheme != QLatin1String("https")) {
            qInfo().noquote() << kTag << "Not opened, not an http(s) url:" << adClickUrl;
        } else if (!QDesktopServices::openUrl(QUrl(adClickUrl))) {
            qInfo().noquote() << kTag << "Failed to open url:" << adClickUrl;
        }
    }
    return false;
}

void HomePage::commitRename(QLineEdit* edit, QToolButton* button)
{
    // Hiding the focused editor sends a focus-out of its own: that one finds it hidden already.
    if (edit->isHidden()) {
        return;
    }
    edit->hide();
    const QString name = edit->text();
    if (name.isEmpty() || name == button->text()) {
        return;
    }
    button->setText(name);
    emit controllerNameChanged(button->property("controllerId").toString(), name);
}

void HomePage::changeEvent(QEvent* event)
{
    if (event->type() == QEvent::LanguageChange) {
        ui->retranslateUi(this);
    }
    QWidget::changeEvent(event);
}
