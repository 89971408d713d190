#pragma once

#include "effects/panels/AbsWorkerWidget.h"

class MediaSourceOptWidget;
class QLabel;
class QSlider;
template <typename T> class SharedPanel;

// The panel of music modes 1, 3 and 4: the sound output and the strength, a curve with a bend
// at the slider's middle where both pieces meet at 1.0.
class MMSOptWidget : public AbsWorkerWidget
{
    Q_OBJECT
public:
    // The process-wide panel, made on first use where widgets can exist (null elsewhere), and
    // made anew after it was deleted.
    static MMSOptWidget* instance();

    static double strengthOf(int value);
    static int valueOf(double strength);

protected:
    void onEffectWorkerChanged(IEffectWorkerPtr worker) override;
    void onEffectWorkerCleared() override;
    void changeEvent(QEvent* event) override;

private:
    friend class SharedPanel<MMSOptWidget>; // makes the one instance()
    explicit MMSOptWidget(QWidget* parent = nullptr);
    void onSliderMoved(int value);
    void alignRows();

    // The picker form's side margins and the gap between its label and box.
    static constexpr int kInset = 20;
    static constexpr int kSourceSpacing = 10;

    MediaSourceOptWidget* source;
    QSlider* slider;
    QLabel* label;
};
