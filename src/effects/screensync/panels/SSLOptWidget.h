#pragma once

#include "effects/panels/AbsWorkerWidget.h"

#include <QImage>
#include <QPoint>

class FullScreenMode;
class QPushButton;
class QSpinBox;
class ScreenSyncEditView;

// The full-screen mode's layout editor: the live frame behind numbered LED squares; dragging a
// square moves the spot its LED reads. Also the virtual screen's size and a reset to the model's
// map.
class SSLOptWidget : public AbsWorkerWidget
{
    Q_OBJECT
public:
    explicit SSLOptWidget(QWidget* parent = nullptr);

protected:
    void onEffectWorkerChanged(IEffectWorkerPtr worker) override;
    void changeEvent(QEvent* event) override;

private slots:
    void onFrameTick(QImage frame);
    void onLedItemPosChanged(int id, QPoint newPos);
    void onScreenSizeChanged(int);
    void onResetBtnClicked();
    void onDeviceDirChanged(int dir);

private:
    void reload();
    // The worker as the full-screen mode; logs and gives null when it is none.
    FullScreenMode* fullScreen() const;

    ScreenSyncEditView* view;
    QSpinBox* widthBox;
    QSpinBox* heightBox;
    QPushButton* resetBtn;
};
