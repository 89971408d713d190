#include "effects/screensync/AbsScreenSync.h"

#include "effects/IPanelMaker.h"
#include "service/config/ConfigurationManager.h"
#include "service/config/SignalStack.h"
#include "service/screen/DeskDuplManager.h"

#include <QColor>
#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QMutex>
#include <QPointer>
#include <QThread>
#include <QThreadPool>
#include <QtDebug>

#include <algorithm>
#include <limits>
#include <memory>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

QThread* AbsScreenSync::workThread = nullptr;
std::atomic<int> AbsScreenSync::instanceCount{0};

namespace {

constexpr char kTag[] = "[AbsScreenSync]:";

// The work thread starts and ends under this lock, so a new worker never moves into a thread
// that its dying predecessor has just told to quit.
QMutex& threadMutex()
{
    static QMutex mutex;
    return mutex;
}

// Main thread: every work thread not yet deleted, joined at exit.
QList<QPointer<QThread>>& liveThreads()
{
    static QList<QPointer<QThread>> threads;
    return threads;
}

void joinWorkThreads()
{
    for (const QPointer<QThread>& thread : qAsConst(liveThreads())) {
        if (thread) {
            thread->quit();
            thread->wait();
            delete thread.data();
        }
    }
    liveThreads().clear();
}

} // namespace

AbsScreenSync::AbsScreenSync(const EffectWorkerOptions& workerOptions, QObject* parent)
    : IEffectWorker(parent)
    , options(workerOptions)
{
    IPanelMaker* maker = IPanelMaker::current();
    if (maker && qApp->property("isAdvanced").toBool()) {
        originFrameWidget =
            QSharedPointer<QObject>(maker->frameView(this, true).release(), &QObject::deleteLater);
        frameImageWidget =
            QSharedPointer<QObject>(maker->frameView(this, false).release(), &QObject::deleteLater);
    }
    {
        QMutexLocker locker(&threadMutex());
        if (!workThread) {
            static bool joinerInstalled = false;
            if (!joinerInstalled) {
                joinerInstalled = true;
                cv::setNumThreads(0); // a 120-pixel frame is too small to share out
                qAddPostRoutine(joinWorkThreads);
            }
            auto thread = std::make_unique<QThread>();
            thread->setObjectName(QStringLiteral("screenSync"));
            // Deleted on the main thread once finished, never waited on from itself; the exit hook
            // joins and deletes one still running.
            connect(thread.get(), &QThread::finished, thread.get(), &QObject::deleteLater);
            workThread = thread.release();
            liveThreads().append(workThread);
            SignalStack::watch(workThread);
            workThread->start(QThread::InheritPriority);
            qInfo() << "The screen sync work thread has been started";
        }
        moveToThread(workThread);
        const int count = ++instanceCount;
        qInfo().noquote() << "There are" << count << "screen sync worker instances currently";
    }
    isScreenshot = qApp && qApp->property("isScreenshot").toBool();
    if (isScreenshot) {
        QDir().mkpath(ConfigurationManager::instance()->configPath() + QStringLiteral("/capturerScreenshot"));
        screenshotTimer.start();
    }
    frameTimer.start();
}

AbsScreenSync::~AbsScreenSync()
{
    if (capturer) {
        disconnect(capturer.data(), nullptr, this, nullptr); // so the source stops grabbing at once
    }
    {
        QMutexLocker locker(&threadMutex());
        const int count = --instanceCount;
        qInfo().noquote() << "There are" << count << "screen sync worker instances currently";
        if (count == 0 && workThread) {
            workThread->quit();
            workThread = nullptr;
            qInfo() << "The screen sync work thread has been deleted";
        }
    }
    qInfo().noquote() << kTag << options.id << "used to" << controlOptions.id << "has been destructed";
}

QThread* AbsScreenSync::currentWorkThread()
{
    QMutexLocker locker(&threadMutex());
    return workThread;
}

double AbsScreenSync::storedStrength(const QString& key, double low, double high)
{
    const QVariant stored =
        ConfigurationManager::instance()->effectVariant(options.id, controlOptions.id, key);
    if (!stored.isValid() || stored.isNull()) {
        return 0.0;
    }
    bool ok = false;
    const double value = stored.toDouble(&ok);
    if (ok && value >= low && value <= high) {
        return value;
    }
    // What the panel can't set: a hand-edited file. NaN and text give the default.
    const double used = ok && value > high ? high : ok && value < low ? low : 0.0;
    const QString shown =
        stored.toString().isEmpty() ? QString::fromLatin1(stored.typeName()) : stored.toString();
    qWarning().noquote() << kTag
                         << QStringLiteral("The stored \"%1\" of %2 is %3, outside %4 to %5: using %6")
                                .arg(key, controlOptions.id, shown)
                                .arg(low)
                                .arg(high)
                                .arg(used);
    return used;
}

int32_t AbsScreenSync::load(const ControlOptions& ctlOptions)
{
    colors.resize(ctlOptions.lines.size());
    for (int i = 0; i < ctlOptions.lines.size(); ++i) {
        colors[i].resize(int(ctlOptions.lines[i]));
    }
    installDirection = ctlOptions.installDirection;
    controlOptions = ctlOptions;
    lastGoodColors = blackColors();

    ConfigurationManager* store = ConfigurationManager::instance();
    blurStrength = storedStrength(QStringLiteral("blurStrength"), 0.0, 1.0);
    saturationStrength = storedStrength(QStringLiteral("saturationStrength"), -1.0, 1.0);

    DeskDuplManager* manager = DeskDuplManager::instance();
    connect(manager, &DeskDuplManager::capturerReady, this, &AbsScreenSync::onCapturerReady);
    connect(manager, &DeskDuplManager::capturerFailed, this, &AbsScreenSync::onCapturerFailed);

    bool ok = false;
    const double stored =
        store->effectVariant(options.id, controlOptions.id, QStringLiteral("sourceIndex")).toDouble(&ok);
    // Beyond int the conversion is undefined; such an id is unknown anyway.
    ok = ok && stored >= 0.0 && stored <= double(std::numeric_limits<int>::max());
    const QList<int> all = manager->allCapturer();
    if (all.isEmpty()) {
        // A portal asks the desktop now; what it shares arrives through capturerReady.
        manager->requestSources(false);
        qWarning() << kTag << "Cannot connect to any capture";
        return 0;
    }
    setInputSourceIdx(ok ? qintptr(stored) : all.first());
    return 0;
}

EffectWorkerOptions AbsScreenSync::workerOptions() const
{
    return options;
}

void AbsScreenSync::onCapturerReady(int id)
{
    qInfo().noquote() << kTag << "Capturer" << id << "is available.";
    if (capturer.isNull()) {
        setInputSourceIdx(id);
    }
}

void AbsScreenSync::onCapturerFailed(int id)
{
    if (capturer.isNull() || id != sourceIndex) {
        return;
    }
    DeskDuplManager* manager = DeskDuplManager::instance();
    if (manager->capturer(id)) {
        return; // still listed: its grabber comes back by itself
    }
    disconnect(capturer.data(), nullptr, this, nullptr);
    capturer.reset();
    pendingFrame = QImage();
    const QList<int> all = manager->allCapturer();
    if (all.isEmpty()) {
        qWarning().noquote() << kTag << "The capturer" << id << "of" << options.id << "on"
                             << controlOptions.id << "is gone and no other is left: black until one appears";
        emit updateColors(blackColors());
        return;
    }
    qInfo().noquote() << kTag << "The capturer" << id << "is gone:" << options.id << "on" << controlOptions.id
                      << "moves to capturer" << all.first();
    setInputSourceIdx(all.first());
}

void AbsScreenSync::unload()
{
    ConfigurationManager* store = ConfigurationManager::instance();
    store->setEffectVariant(options.id, controlOptions.id, QStringLiteral("blurStrength"), blurStrength);
    store->setEffectVariant(options.id, controlOptions.id, QStringLiteral("saturationStrength"),
                            saturationStrength);
    store->setEffectVariant(options.id, controlOptions.id, QStringLiteral("sourceIndex"), int(sourceIndex));
    store->saveEffectJsonObj(options.id);
    originFrameWidget.reset();
    frameImageWidget.reset();
}

QStringList AbsScreenSync::capturerDescs() const
{
    DeskDuplManager* manager = DeskDuplManager::instance();
    QStringList descs;
    for (int id : manager->allCapturer()) {
        descs.append(manager->capturerDesc(id));
    }
    return descs;
}

void AbsScreenSync::setInputSourceIdx(qintptr sourceIdx)
{
    const qintptr previous = capturer ? sourceIndex : -1;
    if (capturer) {
        qInfo().noquote() << kTag << "The" << options.id << "is disconnected from the" << sourceIndex
                          << "capturer.";
        disconnect(capturer.data(), nullptr, this, nullptr);
        capturer.reset();
    }
    sourceIndex = sourceIdx;
    DeskDuplManager* manager = DeskDuplManager::instance();
    capturer = manager->capturer(int(sourceIdx));
    if (capturer.isNull()) {
        const QList<int> all = manager->allCapturer();
        if (all.isEmpty()) {
            qWarning() << kTag << "DeskDuplManager is empty.";
            return;
        }
        sourceIndex = all.first();
        capturer = manager->capturer(all.first());
        if (capturer.isNull()) {
            return; // gone between the two calls
        }
    }
    const QSize output = capturer->outputSize();
    const QSize source = capturer->sourceSize();
    if (source.width() > 0 && source.height() > 0) {
        // 120 is the working width of the whole pipeline.
        const int height = int(120.0 / (double(source.width()) / double(source.height())));
        if (output != QSize(120, height)) {
            capturer->setOutputSize(120, height);
        }
    }
    // Into the mailbox: a slow pipeline takes the newest frame and skips the rest.
    connect(capturer.data(), &IDeskCapture::frameTick, this, &AbsScreenSync::takeFrame, Qt::QueuedConnection);
    qInfo().noquote() << kTag << "The" << options.id << "is connected from the" << sourceIndex << "capturer"
                      << "\r\n outputSize:" << capturer->outputSize();
    if (previous >= 0 && previous != sourceIndex) {
        storeEffectValue(QStringLiteral("sourceIndex"), int(sourceIndex));
    }
    emit inputSourceChanged(sourceIndex);
}

void AbsScreenSync::takeFrame(QImage frame)
{
    // A source this worker has left may still have frames queued.
    if (sender() != capturer.data()) {
        return;
    }
    pendingFrame = frame;
    if (!drainPosted) {
        drainPosted = true;
        QMetaObject::invokeMethod(this, &AbsScreenSync::drainFrame, Qt::QueuedConnection);
    }
}

void AbsScreenSync::drainFrame()
{
    drainPosted = false;
    QImage frame;
    frame.swap(pendingFrame);
    frameInput(frame);
}

void AbsScreenSync::frameInput(QImage originFrame, QImage resizedFrame)
{
    if (resizedFrame.isNull()) {
        return;
    }
    if (!originFrame.isNull()) {
        emit originFrameTick(originFrame);
    }
    frameInput(resizedFrame);
}

void AbsScreenSync::frameInput(QImage frame)
{
    if (frame.isNull()) {
        return;
    }
    emit frameImageTick(frame);
    QVector<QVector<OV_RGB>> result;
    // Nothing thrown may leave a queued slot: that would end the program.
    try {
        result = blurAndRead(frame);
    } catch (const std::exception& error) {
        if (!frameFaultLogged) {
            frameFaultLogged = true;
            qWarning().noquote() << kTag << options.id << "on" << controlOptions.id
                                 << "could not process a frame:" << error.what()
                                 << "- sending the last good colours (logged once)";
        }
        emit updateColors(lastGoodColors);
        return;
    }
    lastGoodColors = result;
    emit updateColors(result);

    frameTimeSum += frameTimer.restart();
    ++frameCount;
    if (frameCount > 90) {
        qDebug().noquote() << QStringLiteral("[[loop]]") + kTag << controlOptions.id
                           << "avg frame time:" << double(frameTimeSum) / double(frameCount) << "ms";
        frameTimeSum = 0;
        frameCount = 0;
    }
}

QVector<QVector<OV_RGB>> AbsScreenSync::blurAndRead(QImage frame)
{
    if (frame.depth() != 32) {
        frame = frame.convertToFormat(QImage::Format_RGBA8888);
    }

    cv::Mat src(frame.height(), frame.width(), CV_8UC4, const_cast<uchar*>(frame.constBits()),
                size_t(frame.bytesPerLine()));
    int k = int(blurStrength * 47.0);
    if (k % 2 == 0) {
        k += 1;
    }
    cv::Mat dst;
    if (k == 1) {
        cv::GaussianBlur(src, dst, cv::Size(k, k), 0.0, 0.0, cv::BORDER_REFLECT_101);
    } else {
        // In floats and without the alpha byte (always 255): at these kernel sizes the 8-bit
        // fixed-point filter takes about three times as long, and the results differ by at most one
        // step of rounding. The buffers are per thread: the workers share the work thread.
        thread_local cv::Mat colours;
        thread_local cv::Mat wide;
        cv::cvtColor(src, colours, cv::COLOR_RGBA2RGB);
        colours.convertTo(wide, CV_32FC3);
        cv::GaussianBlur(wide, wide, cv::Size(k, k), 0.0, 0.0, cv::BORDER_REFLECT_101);
        wide.convertTo(colours, CV_8UC3);
        cv::cvtColor(colours, dst, cv::COLOR_RGB2RGBA);
    }
    QImage image(dst.data, dst.cols, dst.rows, int(dst.step), QImage::Format_RGBA8888);

    if (isScreenshot && screenshotTimer.elapsed() > 5000) {
        const QImage copy = image.copy();
        const QString path = ConfigurationManager::instance()->configPath() +
                             QStringLiteral("/capturerScreenshot/") + options.id +
                             QDateTime::currentDateTime().toString(QStringLiteral("MM_dd_hh_mm_ss")) +
                             QStringLiteral(".png");
        QThreadPool::globalInstance()->start([copy, path] { copy.save(path); }, 0);
        screenshotTimer.restart();
    }
    if (installDirection == 1) {
        image = image.mirrored(true, false);
    }
    return processFrame(image);
}

QVector<QVector<OV_RGB>> AbsScreenSync::blackColors() const
{
    QVector<QVector<OV_RGB>> black = colors;
    for (QVector<OV_RGB>& line : black) {
        line.fill(OV_RGB{0, 0, 0});
    }
    return black;
}

void AbsScreenSync::storeEffectValue(const QString& key, const QVariant& value)
{
    if (controlOptions.id.isEmpty()) {
        return; // not loaded: nothing to keep it under
    }
    ConfigurationManager* store = ConfigurationManager::instance();
    store->setEffectVariant(options.id, controlOptions.id, key, value);
    store->saveEffectJsonObj(options.id);
}

OV_RGB AbsScreenSync::saturate(int red, int green, int blue) const
{
    QColor color = QColor(red, green, blue, 255).toHsv();
    double s = color.saturationF() + saturationStrength;
    if (s > 1.0) {
        s = 1.0;
    }
    if (s < 0.0) {
        s = 0.0;
    }
    color.setHsvF(color.hueF(), s, color.valueF(), 1.0);
    return OV_RGB{uint8_t(color.red()), uint8_t(color.green()), uint8_t(color.blue())};
}

void AbsScreenSync::setBlurStrength(float strength)
{
    // The kernel grows with it: the panel's range, whoever calls. NaN fails both tests.
    const double value = strength >= 0.0f ? std::min(double(strength), 1.0) : 0.0;
    if (value == blurStrength) {
        return;
    }
    blurStrength = value;
    storeEffectValue(QStringLiteral("blurStrength"), blurStrength);
}

void AbsScreenSync::setSaturationStrength(float strength)
{
    const double value = strength >= -1.0f ? std::min(double(strength), 1.0) : strength < -1.0f ? -1.0 : 0.0;
    if (value == saturationStrength) {
        return;
    }
    saturationStrength = value;
    storeEffectValue(QStringLiteral("saturationStrength"), saturationStrength);
}

void AbsScreenSync::onCtlDirChanged(uint32_t dir)
{
    installDirection = dir;
}

void AbsScreenSync::onCtlBrightnessChanged(float) {}

void AbsScreenSync::onCtlKindNameChanged(QString) {}

void AbsScreenSync::onCtlEnableChanged(bool) {}
