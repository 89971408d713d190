#pragma once

#include "service/audio/AudioBackend.h"
#include "service/audio/AudioCapturer.h"

#include <QHash>
#include <QList>
#include <QObject>
#include <QSet>
#include <QSharedPointer>
#include <QString>
#include <QWeakPointer>

#include <memory>

// The registry of audio sources, one per output sink, usable at first access. The list is
// main-thread state fed by queued calls from the sound server's thread, so callers never lock.
class AudioCapManager : public QObject
{
    Q_OBJECT
public:
    // The one registry, spelled so. The first call, on the main thread, waits at most 1 s for
    // the server's sinks; with no server it returns at once with an empty list.
    static AudioCapManager* instacne();

    QList<QString> allCapturers() const;
    QString defaultCapturer() const;
    QSharedPointer<AudioCapturer> capturer(const QString& id) const;
    QString capturerDesc(const QString& id) const;

    // For capturers: open or close their stream, and let go of it when they die.
    static void updateCapture(AudioCapturer* capturer, bool listened);
    static void forgetCapturer(AudioCapturer* capturer);

    // From the sound server's thread, by queued call.
    void applySinkList(const QVector<AudioSinkInfo>& sinks, const QString& defaultSink);
    void applySink(const AudioSinkInfo& sink);
    void removeSink(const QString& name);
    void applyDefaultSink(const QString& name);

signals:
    void capturerReady(QString id);
    // The default output that exists now changed: its id, or empty while there is none.
    void defaultCapturerChanged(QString id);

private:
    friend struct std::default_delete<AudioCapManager>; // the one owner, in the source file
    AudioCapManager();
    ~AudioCapManager() override;
    static void shutdown();

    void addSink(const AudioSinkInfo& sink, bool announce);
    void dropSink(const QString& name);
    void announceDefault();
    void recheckAll();

    std::unique_ptr<AudioBackend> backend;
    QList<QString> order; // sink names in the server's order
    QHash<QString, QSharedPointer<AudioCapturer>> present;
    QHash<QString, QWeakPointer<AudioCapturer>> known; // held elsewhere after their sink left
    QSet<QString> seen;                                // names announced or present at first access
    QString defaultSink;
    QString announcedDefault; // the default sink while present, as last announced
};
