#include "service/screen/DeskCaptureOption.h"

#include "service/config/ConfigurationManager.h"

#include <QtDebug>

constexpr char kTag[] = "[DeskCaptureOption]:";

DeskCaptureOption::DeskCaptureOption(int startMode, QObject* parent)
    : QObject(parent)
    , mode(startMode)
{
}

int DeskCaptureOption::totalOfMode() const
{
    return 2;
}

int DeskCaptureOption::curMode() const
{
    return mode.load();
}

void DeskCaptureOption::setCurMode(int newMode)
{
    if (newMode < 0 || newMode >= totalOfMode()) {
        qWarning().noquote() << kTag << "Refused capture mode" << newMode << "- modes are 0 to"
                             << totalOfMode() - 1;
        return;
    }
    if (mode.exchange(newMode) == newMode) {
        return;
    }
    ConfigurationManager* store = ConfigurationManager::instance();
    store->setGlobalValue(QStringLiteral("deskCaptureMode"), newMode);
    store->saveGlobalValues(); // a choice in the settings survives a crash
    emit curModeChanged(newMode);
}
