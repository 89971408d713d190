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

#include <memory>

void EffectPanelMaker::install()
{
    static EffectPanelMaker maker;
    IPanelMaker::install(&maker);
}

// Panels have no parent: they are top-level until the control page adopts one.
IPanelMaker::PanelPtr EffectPanelMaker::make(Panel panel)
{
    switch (panel) {
    case Panel::SFrmColorMap:
        return std::make_unique<SFrmColorMap>();
    case Panel::SFrmMoodShadow:
        return std::make_unique<SFrmMoodShadow>();
    case Panel::SSLOptWidget:
        return std::make_unique<SSLOptWidget>();
    case Panel::MM2SOptWid:
        return std::make_unique<MM2SOptWid>();
    case Panel::FrmSingleColor:
    case Panel::FrmFlowingEffect:
    case Panel::ScreenSyncSOptWidget:
    case Panel::MMSOptWidget:
        break;
    }
    return PanelPtr();
}

AbsWorkerWidget* EffectPanelMaker::shared(Panel panel)
{
    switch (panel) {
    case Panel::FrmSingleColor:
        return singleColor.get();
    case Panel::FrmFlowingEffect:
        return flowing.get();
    case Panel::ScreenSyncSOptWidget:
        return ScreenSyncSOptWidget::instance();
    case Panel::MMSOptWidget:
        return MMSOptWidget::instance();
    case Panel::SFrmColorMap:
    case Panel::SFrmMoodShadow:
    case Panel::SSLOptWidget:
    case Panel::MM2SOptWid:
        break;
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

std::unique_ptr<QObject> EffectPanelMaker::frameView(AbsScreenSync* worker, bool origin) const
{
    auto view = std::make_unique<FrameWidget>();
    QObject::connect(worker, origin ? &AbsScreenSync::originFrameTick : &AbsScreenSync::frameImageTick,
                     view.get(), &FrameWidget::setImage, Qt::QueuedConnection);
    if (!origin) {
        view->move(0, 0);
        view->show();
    }
    return view;
}
