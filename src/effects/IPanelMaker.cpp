#include "effects/IPanelMaker.h"

#include <QCoreApplication>

namespace {

IPanelMaker* installed = nullptr;

} // namespace

void IPanelMaker::PanelDeleter::operator()(AbsWorkerWidget* panel) const
{
    // A panel was made by the installed maker, which stays for the rest of the process.
    if (panel && installed) {
        delete installed->objectOf(panel);
    }
}

IPanelMaker::~IPanelMaker() = default;

IPanelMaker* IPanelMaker::current()
{
    // Widgets need a QApplication; a QCoreApplication (a widget-free program or test) has none.
    const QCoreApplication* app = QCoreApplication::instance();
    return app && app->inherits("QApplication") ? installed : nullptr;
}

void IPanelMaker::install(IPanelMaker* maker)
{
    installed = maker;
}

IPanelMaker::PanelPtr IPanelMaker::makePanel(Panel panel)
{
    IPanelMaker* maker = current();
    return maker ? maker->make(panel) : PanelPtr();
}

AbsWorkerWidget* IPanelMaker::sharedPanel(Panel panel)
{
    IPanelMaker* maker = current();
    return maker ? maker->shared(panel) : nullptr;
}

// A panel that exists was made by the installed maker, so these two need no QApplication check:
// panels are released while the application goes down too.
void IPanelMaker::pointPanel(AbsWorkerWidget* panel, const IEffectWorkerPtr& worker)
{
    if (panel && installed) {
        installed->point(panel, worker);
    }
}

QPointer<QObject> IPanelMaker::follow(AbsWorkerWidget* panel)
{
    return panel && installed ? QPointer<QObject>(installed->objectOf(panel)) : QPointer<QObject>();
}
