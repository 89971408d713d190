#include "effects/music/panels/MM2SOptWid.h"

#include "effects/colorful/panels/SFrmMoodShadow.h"
#include "effects/music/MusicMode2.h"
#include "effects/music/panels/MediaSourceOptWidget.h"

#include <QGridLayout>

MM2SOptWid::MM2SOptWid(QWidget* parent)
    : AbsWorkerWidget(parent)
    , source(new MediaSourceOptWidget(this))
    , mood(new SFrmMoodShadow(this))
{
    auto* grid = new QGridLayout(this);
    grid->setSpacing(0);
    grid->setContentsMargins(0, 0, 0, 0);
    grid->addWidget(source, 0, 0);
    grid->addWidget(mood, 1, 0);
    setFixedWidth(443);
    setFixedHeight(source->minimumHeight() + mood->maximumHeight());
}

void MM2SOptWid::onEffectWorkerChanged(IEffectWorkerPtr worker)
{
    auto* mode = qobject_cast<MusicMode2*>(worker.data());
    if (!mode) {
        return;
    }
    source->setEffectWorker(worker);
    // The mood panel edits the background worker directly.
    mood->setEffectWorker(mode->getMoodShadow());
}

void MM2SOptWid::onEffectWorkerCleared()
{
    source->setEffectWorker(IEffectWorkerPtr());
    mood->setEffectWorker(IEffectWorkerPtr());
}
