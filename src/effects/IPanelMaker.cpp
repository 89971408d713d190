#include "effects/IPanelMaker.h"

#include <QCoreApplication>

namespace {

IPanelMaker* installed = nullptr;

} // namespace

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

AbsWorkerWidget* IPanelMaker::makePanel(Panel panel)
{
    IPanelMaker* maker = current();
    return maker ? maker->make(panel) : nullptr;
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
