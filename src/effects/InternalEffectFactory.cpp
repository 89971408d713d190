#include "InternalEffectFactory.h"

#include "AbsWorkerWidget.h"
#include "BottomHalfScreen.h"
#include "CinemaScreen.h"
#include "ColorMap.h"
#include "DefaultsFile.h"
#include "FlowingEffect.h"
#include "FullScreenMode.h"
#include "IEffectWorker.h"
#include "LeftHalfScreen.h"
#include "MM2SOptWid.h"
#include "MMSOptWidget.h"
#include "MoodShadow.h"
#include "MusicMode1.h"
#include "MusicMode2.h"
#include "MusicMode3.h"
#include "MusicMode4.h"
#include "RightHalfScreen.h"
#include "SFrmColorMap.h"
#include "SFrmMoodShadow.h"
#include "SSLOptWidget.h"
#include "ScreenSyncSOptWidget.h"
#include "SingleColor.h"
#include "TopHalfScreen.h"

#include <QCoreApplication>
#include <QMetaMethod>
#include <QMetaObject>
#include <QMetaType>

InternalEffectFactory::InternalEffectFactory(QObject* parent)
    : IEffectFactory(nullptr)
{
    qRegisterMetaType<EffectWorkerOptions>("EffectWorkerOptions");
    setParent(parent);

    addRow<SingleColor>(SingleColor::staticWorkerOptions(), "SingleColor");
    addRow<FlowingEffect>(FlowingEffect::staticWorkerOptions(), "FlowingEffect");
    // Panels only where widgets can exist; none shows before the control page adopts it.
    const bool widgets = AbsWorkerWidget::panelsPossible();
    EffectWorkerOptions mood = EffectWorkerOptions::make(QStringLiteral("com.orvanta.colorful.moodShadow"),
                                                         QStringLiteral("影随心动"), 1);
    mood.optionWidget = widgets ? new SFrmMoodShadow : nullptr;
    addRow<MoodShadow>(mood, "MoodShadow");
    // One class, six pictures: the id's last component names the picture. One panel for the six.
    AbsWorkerWidget* colorMapPanel = widgets ? new SFrmColorMap : nullptr;
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
        record.icon = QImage(locateDefaultsFile(QLatin1String(icon)));
        record.optionWidget = ScreenSyncSOptWidget::instance();
        return record;
    };
    EffectWorkerOptions fullScreen =
        screenRow("fullScreen", QStringLiteral("全屏模式"), 4, "images/fullScreen.png");
    fullScreen.extraOptionWidget = widgets ? new SSLOptWidget : nullptr;
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
    addRow<MusicMode1>(musicRow(1, QStringLiteral("音乐模式1"), 1, MMSOptWidget::instance()), "MusicMode1");
    addRow<MusicMode2>(musicRow(2, QStringLiteral("音乐模式2"), 0, widgets ? new MM2SOptWid : nullptr),
                       "MusicMode2");
    addRow<MusicMode3>(musicRow(3, QStringLiteral("音乐模式3"), 2, MMSOptWidget::instance()), "MusicMode3");
    addRow<MusicMode4>(musicRow(4, QStringLiteral("音乐模式4"), 3, MMSOptWidget::instance()), "MusicMode4");
}

InternalEffectFactory::~InternalEffectFactory()
{
    // No panel keeps a worker alive past the factory, nor outlives it.
    for (const QPointer<AbsWorkerWidget>& panel : qAsConst(panels)) {
        if (panel) {
            panel->setEffectWorker(IEffectWorkerPtr());
            delete panel.data();
        }
    }
}

template <typename Worker>
void InternalEffectFactory::addRow(const EffectWorkerOptions& record, const char* className)
{
    const QByteArray typeName = QByteArray(className) + '*';
    typeNames[record.id] = QString::fromLatin1(typeName);
    options[record.id] = record;
    for (AbsWorkerWidget* panel : {record.optionWidget, record.extraOptionWidget}) {
        if (panel && !panels.contains(panel)) {
            panels.append(panel);
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
