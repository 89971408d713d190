#pragma once

#include "effects/IEffectWorker.h"

#include <QPointer>

#include <memory>

class AbsScreenSync;
class AbsWorkerWidget;

// The engine's only way to the option panels. Panels are widgets and live in the panel library
// above the engine (orvanta_effect_panels), which installs its maker at start; so the engine and
// the workers build and run without Qt Widgets. Where no maker is installed, or the process has
// no QApplication, no effect has a panel. Main thread only.
class IPanelMaker
{
public:
    // The panels of the built-in catalogue, named by class. The ones marked shared exist once per
    // process, made on first use and made anew once deleted; the others are new on every call.
    enum class Panel
    {
        FrmSingleColor,       // shared
        FrmFlowingEffect,     // shared
        SFrmColorMap,         // one for the six colour maps
        SFrmMoodShadow,       //
        ScreenSyncSOptWidget, // shared by the six screen modes
        SSLOptWidget,         // full screen's layout editor
        MMSOptWidget,         // shared by music modes 1, 3 and 4
        MM2SOptWid,           //
    };

    // Deletes a panel as the QObject it is: the engine never sees the widget class.
    struct PanelDeleter
    {
        PanelDeleter() = default;
        // So that a panel made with std::make_unique becomes a PanelPtr.
        template <typename T> PanelDeleter(const std::default_delete<T>&) {}
        void operator()(AbsWorkerWidget* panel) const;
    };
    using PanelPtr = std::unique_ptr<AbsWorkerWidget, PanelDeleter>;

    virtual ~IPanelMaker();

    // The maker of this process, null where panels can't exist.
    static IPanelMaker* current();
    // Kept for the rest of the process, so the maker must live as long.
    static void install(IPanelMaker* maker);

    // Shorthands that do nothing (or give null) where there is no maker.
    static PanelPtr makePanel(Panel panel);
    static AbsWorkerWidget* sharedPanel(Panel panel);
    static void pointPanel(AbsWorkerWidget* panel, const IEffectWorkerPtr& worker);
    // Follows a panel to its deletion: null once it is gone, or when it can't be followed.
    static QPointer<QObject> follow(AbsWorkerWidget* panel);

    // A new panel for the caller to own; null for the shared ones.
    virtual PanelPtr make(Panel panel) = 0;
    // The shared panel, made on first use and anew once deleted; null for the others. It has no
    // owner until a page adopts it; the built-in factory deletes it at its end if none did.
    virtual AbsWorkerWidget* shared(Panel panel) = 0;
    // The panel as the QObject it is, so the engine can follow and delete it.
    virtual QObject* objectOf(AbsWorkerWidget* panel) const = 0;
    // The panel's setEffectWorker: the worker it edits, or none.
    virtual void point(AbsWorkerWidget* panel, const IEffectWorkerPtr& worker) const = 0;
    // A diagnostic window of an advanced run that shows each frame the worker emits: its
    // originFrameTick (kept hidden) when origin is set, else its frameImageTick, shown at the
    // screen's corner. The caller deletes it, with deleteLater.
    virtual std::unique_ptr<QObject> frameView(AbsScreenSync* worker, bool origin) const = 0;
};
