#pragma once

#include "effects/music/panels/LEDBarEnum.h"
#include "effects/panels/AbsWorkerWidget.h"

#include <QPointer>
#include <QScopedPointer>
#include <QVector>
#include <utility>

class AbsMusicEffect;

namespace Ui {
class MediaSourceOptWidget;
}

// The sound output a music effect listens to, one row per output of the sound server; an output
// that appears while the panel exists adds its row.
class MediaSourceOptWidget : public AbsWorkerWidget
{
    Q_OBJECT
public:
    explicit MediaSourceOptWidget(QWidget* parent = nullptr);
    ~MediaSourceOptWidget() override;

signals:
    void frequenceRangeChanged(LEDBarEnum bar, std::pair<int, int> range);
    void DBOffsetChanged(LEDBarEnum bar, float offset);
    void capturerChanged(QString id);

protected:
    void onEffectWorkerChanged(IEffectWorkerPtr worker) override;
    void changeEvent(QEvent* event) override;

private slots:
    void onDeviceSelectChanged(int idx);
    void onCapturerReady(QString id);
    void onCapturerLost(QString id);

private:
    void showCapturer(const QString& id);

    QScopedPointer<Ui::MediaSourceOptWidget> ui;
    int maxFrequency = 16000;
    // Not owning: the panel never keeps a worker alive.
    QPointer<AbsMusicEffect> current;
    QVector<std::pair<QString, QString>> devices;
};
