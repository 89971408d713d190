#pragma once

#include "effects/IEffectWorker.h"
#include "service/screen/IDeskCapture.h"

#include <QElapsedTimer>
#include <QImage>
#include <QSharedPointer>
#include <QStringList>

#include <atomic>

class QThread;

// Base of the screen-following effects: takes the frames of one capture source, blurs and
// mirrors them, lets the mode read the LEDs off the frame and publishes the colours. All screen
// workers share one work thread, started with the first and ended with the last. A worker keeps
// only the newest frame of its source, so a slow pipeline skips frames instead of queueing them;
// its source gone, it moves to the first there is, or sends black while there is none.
class AbsScreenSync : public IEffectWorker
{
    Q_OBJECT
public:
    explicit AbsScreenSync(const EffectWorkerOptions& options, QObject* parent = nullptr);
    ~AbsScreenSync() override;

    int32_t load(const ControlOptions& ctlOptions) override;
    EffectWorkerOptions workerOptions() const override;
    void unload() override;

    virtual QVector<QVector<OV_RGB>> processFrame(QImage frame) = 0;

    // Descriptions of all capturers, in the registry's order, for the source list.
    QStringList capturerDescs() const;
    OV_RGB saturate(int red, int green, int blue) const;

    qintptr currentSourceIndex() const { return sourceIndex; }
    double currentBlurStrength() const { return blurStrength; }
    double currentSaturationStrength() const { return saturationStrength; }
    uint32_t currentInstallDirection() const { return installDirection; }
    bool hasCapturer() const { return !capturer.isNull(); }

    // The shared work thread, null while no screen worker exists.
    static QThread* currentWorkThread();
    static int instances() { return instanceCount.load(); }

signals:
    void
    frameOutput(QVector<QVector<OV_RGB>> colors); // declared for listeners; colours leave by updateColors
    void frameImageTick(QImage frame);
    void originFrameTick(QImage frame);
    // The source this worker now follows, whoever chose it.
    void inputSourceChanged(qintptr sourceIdx);

public slots:
    void frameInput(QImage frame);
    void frameInput(QImage originFrame, QImage resizedFrame);
    void setInputSourceIdx(qintptr sourceIdx);
    void setBlurStrength(float strength);
    void setSaturationStrength(float strength);
    void onCtlDirChanged(uint32_t dir) override;
    void onCtlBrightnessChanged(float brightness) override;
    void onCtlKindNameChanged(QString kindName) override;
    void onCtlEnableChanged(bool enable) override;

protected:
    QVector<QVector<OV_RGB>> colors; // line, then LED in strip order
    uint32_t installDirection = 0;
    EffectWorkerOptions options;
    ControlOptions controlOptions;
    qintptr sourceIndex = 0;
    QSharedPointer<IDeskCapture> capturer;
    double saturationStrength = 0.0;
    double blurStrength = 0.0;
    // The diagnostic windows of an advanced run, where panels can exist.
    QSharedPointer<QObject> originFrameWidget;
    QSharedPointer<QObject> frameImageWidget;
    QElapsedTimer screenshotTimer;
    QElapsedTimer frameTimer;
    bool isScreenshot = false;
    qint64 frameTimeSum = 0;
    int frameCount = 0;

    // Called on a change: the value goes to the store at once.
    void storeEffectValue(const QString& key, const QVariant& value);
    // Black in the shape of the strip.
    QVector<QVector<OV_RGB>> blackColors() const;

private slots:
    void takeFrame(QImage frame);
    void drainFrame();

private:
    void onCapturerReady(int id);
    void onCapturerFailed(int id);
    // Blur, mirror and the mode's reading of the LEDs: steps 3 to 9 of a frame.
    QVector<QVector<OV_RGB>> blurAndRead(QImage frame);
    double storedStrength(const QString& key, double low, double high);

    QImage pendingFrame;      // the newest frame not yet processed
    bool drainPosted = false; // a drainFrame call is queued
    QVector<QVector<OV_RGB>> lastGoodColors;
    bool frameFaultLogged = false;

    static QThread* workThread;
    static std::atomic<int> instanceCount;
};
