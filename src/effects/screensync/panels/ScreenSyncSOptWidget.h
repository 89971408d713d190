#pragma once

#include "effects/panels/AbsWorkerWidget.h"

#include "service/screen/DeskCaptureBackend.h"

#include <QImage>
#include <QScopedPointer>
#include <QVector>

class QLabel;
class QPushButton;
template <typename T> class SharedPanel;

namespace Ui {
class ScreenSyncSOptWidget;
}

// The one small panel of the six screen modes: the video source, saturation and blur.
class ScreenSyncSOptWidget : public AbsWorkerWidget
{
    Q_OBJECT
public:
    // The process-wide panel, made on first use where widgets can exist (null elsewhere), and
    // made anew after it was deleted.
    static ScreenSyncSOptWidget* instance();
    ~ScreenSyncSOptWidget() override;

    // What the panel says in a state of the screen sources, in the current language.
    static QString noticeOf(DeskCaptureState state);

signals:
    void frameSourcesChanged(qintptr idx);
    void blurChanged(float strength);
    void saturationChanged(float strength);

protected:
    void onEffectWorkerChanged(IEffectWorkerPtr worker) override;
    void changeEvent(QEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;

private slots:
    void onComboBoxChanged(int idx);
    void onCapturerReady(qintptr capIdx);
    void onSaturationChanged(int value);
    void onBlurChanged(int value);
    void onFrameUpdated(QImage frame);

private:
    friend class SharedPanel<ScreenSyncSOptWidget>; // makes the one instance()
    explicit ScreenSyncSOptWidget(QWidget* parent = nullptr);
    // Selects the row of shownSource, signals blocked; a source not listed leaves the text.
    void showSource();
    // While there is no source: why, instead of the source box, and the button that asks again.
    void showState();

    QScopedPointer<Ui::ScreenSyncSOptWidget> ui;
    // The ids of the rows, rebuilt with them from the registry at each change, so a row always
    // picks the monitor it names.
    QVector<qintptr> capturerIds;
    qintptr shownSource = -1;                              // the source of the worker shown
    DeskCaptureState shownState = DeskCaptureState::Ready; // as the registry last announced it
    QWidget* noticeBox;
    QLabel* noticeLabel;
    QPushButton* shareButton;
};
