#pragma once

#include <QByteArray>
#include <QColor>
#include <QJsonValue>
#include <QObject>
#include <QRandomGenerator>
#include <QString>
#include <QTimer>

class OrvantaApp;

// Drives the running program for the soak programs (soak/): the first device found is opened on
// the control page and changed through the signals and widgets the pages and panels use. Every
// change is written to standard error, with its steady-clock time in nanoseconds, before it is
// made, so that a soak that kills the program knows every value it may find on disk:
//   "soak-driver <ns> ready <controller id>"
//   "soak-driver <ns> set <scope> <key path> <JSON value>", scope "global",
//       "controller:<id>" or "effect:<effect id>" (its path starting with the controller id)
//   "soak-driver <ns> colour <r> <g> <b>"
// Modes: "settings" changes brightness, direction, on and off, the name, the layout (as the strip
// dialog sets it), the effect and the single colour, every few milliseconds; "colours" shows the
// single colour at full brightness and a new colour every 500 ms. Only a soak build has it.
class SoakDriver : public QObject
{
    Q_OBJECT
public:
    SoakDriver(OrvantaApp& app, const QString& mode, QObject* parent = nullptr);

    static bool knowsMode(const QString& mode);

private:
    void waitForDevice();
    void changeSetting();
    void nextColour();
    void chooseEffect(const QString& effectId);
    void setBrightness(int percent);
    void setColour(const QColor& colour);
    void record(const QByteArray& what);
    void recordSet(const QString& scope, const QString& path, const QJsonValue& value);

    OrvantaApp& app;
    const QString mode;
    QString controllerId;
    QString currentEffect;
    QTimer timer;
    QRandomGenerator random;
    int names = 0;
    QColor lastColour;
};
