#pragma once

#include "service/screen/DeskCaptureBackend.h"
#include "service/screen/IDeskCapture.h"

#include <QHash>
#include <QList>
#include <QMutex>
#include <QObject>
#include <QSharedPointer>
#include <QString>
#include <QVector>

#include <atomic>
#include <memory>

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

    using State = DeskCaptureState;
    // Any thread.
    State state() const;
    // Any thread: a worker found no source (byUser: the user pressed the panel's button). A
    // session without a backend chooses again; a portal asks the desktop.
    void requestSources(bool byUser);
    // What the log tells for a state, in English (the panel shows it translated); empty for Ready.
    static const char* noticeOf(State state);

    // A registry over the given backends, started here.
    explicit DeskDuplManager(const QList<DeskCaptureBackend*>& backends, DeskCaptureOption* option,
                             QObject* parent = nullptr);
    // A registry over the backend the session offers, chosen again at a request while none serves
    // (instance() builds its own so).
    explicit DeskDuplManager(DeskCaptureOption* option, QObject* parent = nullptr);
    ~DeskDuplManager() override;
    // Ends the backends' sessions, then every capture thread; the registry stays, silent.
    void shutdown();

    static QString describe(const QString& name, const QRect& geometry);

signals:
    void capturerReady(int id);
    void capturerFailed(int id);
    void stateChanged(DeskCaptureState state);

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

    void addBackend(DeskCaptureBackend* backend);
    void updateState();
    void onMonitorsChanged(int backend);
    void onConnectionLost(int backend);
    void onGrabberFailed(int id);
    void onGrabberRecovered(int id);

    QList<DeskCaptureBackend*> backends;
    DeskCaptureOption* captureOption;
    std::unique_ptr<DeskCaptureOption> ownOption; // the one instance() made; others pass their own
    bool chooses = false; // made by instance(): a request with no usable backend chooses again
    std::atomic<int> current{int(State::NoSource)};
    bool logged = false; // the first state is told even when it is the initial one
    mutable QMutex mutex;
    QHash<int, Source> sources;
    int nextId = 0;
};
