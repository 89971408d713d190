#pragma once

#include "effects/panels/AbsWorkerWidget.h"

#include <QGradient>
#include <QList>
#include <QScopedPointer>

class ComboBoxDelegate;
class MoodShadow;

namespace Ui {
class SFrmMoodShadow;
}

// The mood shadow's panel: the strap list shown as gradients, the chosen strap's stops on the
// bar below it, and its speed and range.
class SFrmMoodShadow : public AbsWorkerWidget
{
    Q_OBJECT
public:
    explicit SFrmMoodShadow(QWidget* parent = nullptr);
    ~SFrmMoodShadow() override;

protected:
    void onEffectWorkerChanged(IEffectWorkerPtr worker) override;
    void changeEvent(QEvent* event) override;

private slots:
    void onAddBtnClicked();
    void onRmBtnClicked();
    void onStrapChanged(int strapIdx);
    void onStrapNameChanged(QString name);
    void onGradientKeyColorChanged(QList<QGradientStop> colors);

private:
    MoodShadow* moodShadow() const;

    QScopedPointer<Ui::SFrmMoodShadow> ui;
    ComboBoxDelegate* delegate;
};
