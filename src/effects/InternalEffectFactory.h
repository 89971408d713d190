#pragma once

#include "effects/IEffectFactory.h"
#include "effects/IPanelMaker.h"

#include <QHash>
#include <QList>
#include <QPointer>

class AbsWorkerWidget;

// The factory of the effects the program brings itself: the catalogue rows, and instances
// made by the worker class's meta-object.
class InternalEffectFactory : public IEffectFactory
{
    Q_OBJECT
public:
    explicit InternalEffectFactory(QObject* parent = nullptr);
    ~InternalEffectFactory() override;

    IEffectWorker* create(const QString& id) override;
    QList<EffectWorkerOptions> effects() override;

private:
    template <typename Worker> void addRow(const EffectWorkerOptions& record, const char* className);
    // A new panel stays until the factory goes, unless a page that adopted it deleted it first.
    AbsWorkerWidget* keep(IPanelMaker::PanelPtr panel);

    QHash<QString, QString> typeNames; // effect id -> class name + "*"
    QHash<QString, EffectWorkerOptions> options;
    // Every panel made or fetched here; the ones still alive go with the factory.
    struct MadePanel
    {
        AbsWorkerWidget* panel;
        QPointer<QObject> alive;
    };
    QList<MadePanel> panels;
};
