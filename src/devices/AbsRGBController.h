#pragma once

#include "devices/ControlOptions.h"
#include "devices/OV_RGB.h"

#include <QElapsedTimer>
#include <QObject>
#include <QSharedPointer>
#include <QTimer>

// Abstract model of one attached LED device: settings, last colours, brightness and on/off,
// the 800 ms refresh and persistence. A device class adds the encoding and its frame header.
class AbsRGBController : public QObject
{
    Q_OBJECT
public:
    explicit AbsRGBController(QObject* parent = nullptr);
    ~AbsRGBController() override;

    ControlOptions& controlOptions();

    void setKindName(QString kindName);
    void setBrightness(float brightness);
    void setEnable(bool enable);
    void setInstallDirection(uint32_t dir);
    void setWorkMode(QString workMode);
    void setSubMode(QString subMode);
    void setLayout(uint32_t nbLeds, QVector<uint32_t> lines);

    bool loadConfig();
    void saveConfig();

    virtual void updateFrameHeader() = 0;

    // Before the system sleeps: no frame leaves from here on but one black frame, and darkened
    // says whether it left the port. After resume, wake checks the device: woken(true) and the
    // frames go on, or woken(false) and the device is released as on a write error.
    void enterSleep();
    void wake();
    bool isAsleep() const { return asleep; }

public slots:
    virtual void update(QVector<OV_RGB> colors);
    virtual void update(QVector<QVector<OV_RGB>> colors);

signals:
    void statusChanged(uint32_t status, QString description);
    void kindNameChanged(QString kindName);
    void enableChanged(bool enable);
    void brightnessChanged(float brightness);
    void workModeChanged();
    void subModeChanged(QString subMode);
    void installDirectionChanged(uint32_t dir);
    void darkened(bool written);
    void woken(bool kept);

protected:
    virtual void writeColors(const QVector<QVector<OV_RGB>>& colors) = 0;
    // The black frame before sleep; a device class that can tell when it left the port says so.
    virtual void sendDarkFrame();
    // The check after resume; a device class that can lose its port looks at it first.
    virtual void checkAfterSleep();
    // Frames flow again, starting with the current colours.
    void resumeFrames();
    // The device did not survive the sleep: reported as a failure of the given code.
    void releaseAfterSleep(uint32_t code, const QString& why);
    QVector<QVector<OV_RGB>> blackFrame() const;

    ControlOptions options;

private slots:
    void internalUpdate();

private:
    QString storageKey() const; // the key settings are written under: model + ":" + serial
    void persist(const QString& key, const QVariant& value);

    QTimer refreshTimer;
    QVector<QVector<OV_RGB>> colors;      // as delivered, unscaled
    QVector<QVector<OV_RGB>> blackColors; // one line of nbLeds black records once enable changed
    QElapsedTimer intervalTimer;
    int64_t intervalSumMs = 0;
    int64_t intervalCount = 0;
    QElapsedTimer rawDumpTimer; // since the last LED dump in the statistics
    bool asleep = false;
};

using AbsRGBControllerPtr = QSharedPointer<AbsRGBController>;
Q_DECLARE_METATYPE(AbsRGBControllerPtr)
