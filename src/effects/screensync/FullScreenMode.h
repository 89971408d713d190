#pragma once

#include "effects/screensync/AbsScreenSync.h"

#include <QJsonObject>
#include <QMutex>
#include <QPoint>
#include <QSize>

// Every LED reads one pixel of a small virtual screen; the map comes from the user's stored
// value, else from the model's default file, else a plain grid. The layout editor changes the
// map from the user-interface thread, hence the two locks (size first, then map); each change
// goes to the store at once.
class FullScreenMode : public AbsScreenSync
{
    Q_OBJECT
public:
    Q_INVOKABLE FullScreenMode(const EffectWorkerOptions& options, QObject* parent = nullptr);
    ~FullScreenMode() override;

    int32_t load(const ControlOptions& ctlOptions) override;
    void unload() override;
    QVector<QVector<OV_RGB>> processFrame(QImage frame) override;

    QVector<QPoint> ledMapCopy();
    QSize screenSize();
    void setScreenSize(QSize size);
    void resetLEDMap();

    // What the editor's boxes can set, and what a stored map is held to.
    static constexpr int minScreenWidth = 10;
    static constexpr int maxScreenWidth = 300;
    static constexpr int minScreenHeight = 5;
    static constexpr int maxScreenHeight = 200;

    // The plain grid: nbLeds LEDs row by row on a 120 x 67 screen.
    static void makeDefaultMap(uint32_t nbLeds, QVector<QPoint>& map, int& width, int& height);
    // Takes a map object, stored or from the model's file, over `map`: the sizes held to the
    // editor's bounds, each LED's axis taken where it lies on the screen, and then every LED
    // moved onto the screen. A pure function of its arguments, bar the log lines naming
    // controllerId.
    static void applyMap(const QJsonObject& object, const QString& controllerId, QVector<QPoint>& map,
                         int& width, int& height);
    static void clampPoints(QVector<QPoint>& map, int width, int height);

signals:
    void frameSnapshot(QImage frame);
    void deviceDirChanged(int dir);

public slots:
    void setLEDPos(int id, QPoint pos);
    void onCtlDirChanged(uint32_t dir) override;

protected:
    QVector<QPoint> ledMap;
    QMutex ledMapMutex;
    QMutex sizeMutex;
    int screenWidth = -1;
    int screenHeight = -1;

private:
    QJsonObject readDefaultFile() const;
    // Takes both locks.
    QJsonObject mapObject();
    void storeMap();
};
