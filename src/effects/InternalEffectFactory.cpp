#include "effects/InternalEffectFactory.h"

#include "effects/IEffectWorker.h"
#include "effects/IPanelMaker.h"
#include "effects/colorful/ColorMap.h"
#include "effects/colorful/FlowingEffect.h"
#include "effects/colorful/MoodShadow.h"
#include "effects/colorful/SingleColor.h"
#include "effects/music/MusicMode1.h"
#include "effects/music/MusicMode2.h"
#include "effects/music/MusicMode3.h"
#include "effects/music/MusicMode4.h"
#include "effects/screensync/BottomHalfScreen.h"
#include "effects/screensync/CinemaScreen.h"
#include "effects/screensync/FullScreenMode.h"
#include "effects/screensync/LeftHalfScreen.h"
#include "effects/screensync/RightHalfScreen.h"
#include "effects/screensync/TopHalfScreen.h"
#include "service/config/DataPaths.h"

#include <QCoreApplication>
#include <QMetaMethod>
#include <QMetaObject>
#include <QMetaType>

#include <algorithm>

InternalEffectFactory::InternalEffectFactory(QObject* parent)
    : IEffectFactory(nullptr)
{
    qRegisterMetaType<EffectWorkerOptions>("EffectWorkerOptions");
    setParent(parent);

    addRow<SingleColor>(SingleColor::staticWorkerOptions(), "SingleColor");
    addRow<FlowingEffect>(FlowingEffect::staticWorkerOptions(), "FlowingEffect");
    // Panels only where widgets can exist (null elsewhere); none shows before the control page
    // adopts it.
    using Panel = IPanelMaker::Panel;
    EffectWorkerOptions mood = EffectWorkerOptions::make(QStringLiteral("com.orvanta.colorful.moodShadow"),
                                                         QStringLiteral("影随心动"), 1);
    mood.optionWidget = keep(IPanelMaker::makePanel(Panel::SFrmMoodShadow));
    addRow<MoodShadow>(mood, "MoodShadow");
    // One class, six pictures: the id's last component names the picture. One panel for the six.
    AbsWorkerWidget* colorMapPanel = keep(IPanelMaker::makePanel(Panel::SFrmColorMap));
    for (int i = 3; i <= 8; ++i) {
        EffectWorkerOptions record =
            EffectWorkerOptions::make(QStringLiteral("com.orvanta.colorful.ColorMap_%1").arg(i),
                                      QStringLiteral("幻彩模式 %1").arg(i), i - 1);
        record.optionWidget = colorMapPanel;
        addRow<ColorMap>(record, "ColorMap");
    }
    const QString screen = QStringLiteral("com.orvanta.screenSync.");
    const auto screenRow = [&screen](const char* local, const QString& name, int32_t order,
                                     const char* icon) {
        EffectWorkerOptions record = EffectWorkerOptions::make(screen + QLatin1String(local), name, order);
        record.icon = QImage(DataPaths::locate(QLatin1String(icon)));
        record.optionWidget = IPanelMaker::sharedPanel(Panel::ScreenSyncSOptWidget);
        return record;
    };
    EffectWorkerOptions fullScreen =
        screenRow("fullScreen", QStringLiteral("全屏模式"), 4, "images/fullScreen.png");
    fullScreen.extraOptionWidget = keep(IPanelMaker::makePanel(Panel::SSLOptWidget));
    addRow<FullScreenMode>(fullScreen, "FullScreenMode");
    addRow<TopHalfScreen>(screenRow("topHalfScreen", QStringLiteral("半屏-上"), 0, "images/05-fpng.png"),
                          "TopHalfScreen");
    addRow<BottomHalfScreen>(
        screenRow("bottomHalfScreen", QStringLiteral("半屏-下"), 1, "images/06-fpng.png"),
        "BottomHalfScreen");
    addRow<LeftHalfScreen>(screenRow("leftHalfScreen", QStringLiteral("半屏-左"), 2, "images/07-fpng.png"),
                           "LeftHalfScreen");
    addRow<RightHalfScreen>(screenRow("rightHalfScreen", QStringLiteral("半屏-右"), 3, "images/08-fpng.png"),
                            "RightHalfScreen");
    addRow<CinemaScreen>(screenRow("cinemaScreen", QStringLiteral("电影模式"), 5, "images/04-fpng.png"),
                         "CinemaScreen");
    const QString music = QStringLiteral("com.orvanta.dynamicMusic.mode_%1");
    const auto musicRow = [&music](int mode, const QString& name, int32_t order, AbsWorkerWidget* panel) {
        EffectWorkerOptions record = EffectWorkerOptions::make(music.arg(mode), name, order);
        record.optionWidget = panel;
        return record;
    };
    addRow<MusicMode1>(
        musicRow(1, QStringLiteral("音乐模式1"), 1, IPanelMaker::sharedPanel(Panel::MMSOptWidget)),
        "MusicMode1");
    addRow<MusicMode2>(
        musicRow(2, QStringLiteral("音乐模式2"), 0, keep(IPanelMaker::makePanel(Panel::MM2SOptWid))),
        "MusicMode2");
    addRow<MusicMode3>(
        musicRow(3, QStringLiteral("音乐模式3"), 2, IPanelMaker::sharedPanel(Panel::MMSOptWidget)),
        "MusicMode3");
    addRow<MusicMode4>(
        musicRow(4, QStringLiteral("音乐模式4"), 3, IPanelMaker::sharedPanel(Panel::MMSOptWidget)),
        "MusicMode4");
}

InternalEffectFactory::~InternalEffectFactory()
{
    // No panel keeps a worker alive past the factory, nor outlives it.
    for (const MadePanel& made : qAsConst(panels)) {
        if (made.alive) {
            IPanelMaker::pointPanel(made.panel, IEffectWorkerPtr());
            delete made.alive.data();
        }
    }
}

AbsWorkerWidget* InternalEffectFactory::keep(IPanelMaker::PanelPtr panel)
{
    AbsWorkerWidget* kept = panel.release();
    if (kept) {
        panels.append({kept, IPanelMaker::follow(kept)});
    }
    return kept;
}

template <typename Worker>
void InternalEffectFactory::addRow(const EffectWorkerOptions& record, const char* className)
{
    const QByteArray typeName = QByteArray(className) + '*';
    typeNames[record.id] = QString::fromLatin1(typeName);
    options[record.id] = record;
    for (AbsWorkerWidget* panel : {record.optionWidget, record.extraOptionWidget}) {
        const bool known = std::any_of(panels.cbegin(), panels.cend(), [panel](const MadePanel& made) {
            return made.alive && made.panel == panel;
        });
        if (panel && !known) {
            panels.append({panel, IPanelMaker::follow(panel)});
        }
    }
    qRegisterMetaType<Worker*>(typeName.constData());
}

IEffectWorker* InternalEffectFactory::create(const QString& id)
{
    const int type = QMetaType::type(typeNames.value(id).toUtf8().constData());
    const QMetaObject* meta = QMetaType::metaObjectForType(type);
    if (!meta) {
        return nullptr;
    }
    QObject* object = nullptr;
    for (int i = 0; i < meta->constructorCount(); ++i) {
        const QList<QByteArray> types = meta->constructor(i).parameterTypes();
        if (types.size() == 2 && types.at(0) == "EffectWorkerOptions" && types.at(1) == "QObject*") {
            object =
                meta->newInstance(Q_ARG(const EffectWorkerOptions&, options[id]), Q_ARG(QObject*, nullptr));
            break;
        }
    }
    if (!object) {
        object = meta->newInstance(Q_ARG(QObject*, nullptr));
    }
    auto* worker = dynamic_cast<IEffectWorker*>(object);
    if (object && !worker) {
        delete object;
    }
    return worker;
}

QList<EffectWorkerOptions> InternalEffectFactory::effects()
{
    return options.values();
}
