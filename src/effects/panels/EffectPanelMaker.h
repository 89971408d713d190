#pragma once

#include "effects/IPanelMaker.h"
#include "effects/panels/SharedPanel.h"

class FrmFlowingEffect;
class FrmSingleColor;

// The maker of the built-in option panels, which the engine asks for through IPanelMaker.
// A program that shows panels installs it once, after its QApplication exists and before its
// first effects registry; new panels belong to the caller (the built-in factory deletes them
// with itself, as it does the shared ones nobody adopted). Main thread only.
class EffectPanelMaker : public IPanelMaker
{
public:
    static void install();

    PanelPtr make(Panel panel) override;
    AbsWorkerWidget* shared(Panel panel) override;
    QObject* objectOf(AbsWorkerWidget* panel) const override;
    void point(AbsWorkerWidget* panel, const IEffectWorkerPtr& worker) const override;
    std::unique_ptr<QObject> frameView(AbsScreenSync* worker, bool origin) const override;

private:
    SharedPanel<FrmSingleColor> singleColor;
    SharedPanel<FrmFlowingEffect> flowing;
};
