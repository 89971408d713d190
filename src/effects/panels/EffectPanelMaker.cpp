#include "effects/panels/EffectPanelMaker.h"

#include "effects/colorful/panels/FrmFlowingEffect.h"
#include "effects/colorful/panels/FrmSingleColor.h"
#include "effects/colorful/panels/SFrmColorMap.h"
#include "effects/colorful/panels/SFrmMoodShadow.h"
#include "effects/music/panels/MM2SOptWid.h"
#include "effects/music/panels/MMSOptWidget.h"
#include "effects/screensync/AbsScreenSync.h"
#include "effects/screensync/panels/FrameWidget.h"
#include "effects/screensync/panels/SSLOptWidget.h"
#include "effects/screensync/panels/ScreenSyncSOptWidget.h"

void EffectPanelMaker::install()
{
    static EffectPanelMaker maker;
    IPanelMaker::install(&maker);
}

// New panels have no parent: they are top-level until the control page adopts one, and the
// caller deletes them.
AbsWorkerWidget* EffectPanelMaker::make(Panel panel)
{
    switch (panel) {
    case Panel::FrmSingleColor:
        if (!singleColor) {
            singleColor = new FrmSingleColor;
        }
        return singleColor.data();
    case Panel::FrmFlowingEffect:
        if (!flowing) {
            flowing = new FrmFlowingEffect;
        }
        return flowing.data();
    case Panel::SFrmColorMap:
        return new SFrmColorMap;
    case Panel::SFrmMoodShadow:
        return new SFrmMoodShadow;
    case Panel::ScreenSyncSOptWidget:
        return ScreenSyncSOptWidget::instance();
    case Panel::SSLOptWidget:
        return new SSLOptWidget;
    case Panel::MMSOptWidget:
        return MMSOptWidget::instance();
    case Panel::MM2SOptWid:
        return new MM2SOptWid;
    }
    return nullptr;
}

QObject* EffectPanelMaker::objectOf(AbsWorkerWidget* panel) const
{
    return panel;
}

void EffectPanelMaker::point(AbsWorkerWidget* panel, const IEffectWorkerPtr& worker) const
{
    panel->setEffectWorker(worker);
}

QObject* EffectPanelMaker::frameView(AbsScreenSync* worker, bool origin) const
{
    auto* view = new FrameWidget;
    QObject::connect(worker, origin ? &AbsScreenSync::originFrameTick : &AbsScreenSync::frameImageTick, view,
                     &FrameWidget::setImage, Qt::QueuedConnection);
    if (!origin) {
        view->move(0, 0);
        view->show();
    }
    return view;
}
