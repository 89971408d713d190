#pragma once

#include "service/screen/IDeskCapture.h"

#include <QHash>
#include <QList>
#include <QMutex>
#include <QObject>
#include <QSharedPointer>
#include <QString>
#include <QVector>

class DeskCaptureBackend;
class DeskCaptureOption;
class DeskCapturer;

// The registry of screen-capture sources: one per monitor of each backend, ids from one counter.
// A monitor keeps its id and its object for the whole run: gone, it is unlisted and silent;
// back under its name, the same object is listed again. A listed source whose grabber fails is
// announced failed once (and again when it is unlisted) and ready again with its first frame. The lists are
// read from the screen sync work thread too, hence the mutex.
class DeskDuplManager : public QObject
{
    Q_OBJECT
public:
    // The first call, on the main thread after the application object exists, enumerates at once.
    static DeskDuplManager* instance();

    QList<int> allCapturer() const;
    QSharedPointer<IDeskCapture> capturer(int id) const;
    QString capturerDesc(int id) const;

    DeskCaptureOption* option() const { return captureOption; }

    // A registry over the given backends, started here; instance() builds its own.
    explicit DeskDuplManager(const QList<DeskCaptureBackend*>& backends, DeskCaptureOption* option,
                             QObject* parent = nullptr);
    ~DeskDuplManager() override;
    // Ends every capture thread; the registry stays, silent.
    void shutdown();

    static QString describe(const QString& name, const QRect& geometry);

signals:
    void capturerReady(int id);
    void capturerFailed(int id);

private:
    struct Source
    {
        int backend = 0;
        QString name;
        QString desc;
        bool present = false;
        bool failed = false; // its grabber failed while listed; cleared when unlisted
        QSharedPointer<DeskCapturer> capturer;
    };

    void onMonitorsChanged(int backend);
    void onConnectionLost(int backend);
    void onGrabberFailed(int id);
    void onGrabberRecovered(int id);

    QList<DeskCaptureBackend*> backends;
    DeskCaptureOption* captureOption;
    mutable QMutex mutex;
    QHash<int, Source> sources;
    int nextId = 0;
};
