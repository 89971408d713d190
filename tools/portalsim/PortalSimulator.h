#pragma once

#include "PortalScript.h"
#include "ScreenCastPortal.h"
#include "ScreenStreams.h"

#include <QList>
#include <QString>
#include <QStringList>
#include <QThread>
#include <QVector>

// A desktop portal for screen cast tests: org.freedesktop.portal.Desktop's ScreenCast on a bus
// (a PrivatePipeWire's own, typically), serving real PipeWire video streams of painted screens.
// It records every call, answers with a scripted choice, issues and checks restore tokens, ends
// streams and sessions on demand and can leave the bus or die as a crash would. It runs on a
// thread of its own, so a client in the same process may call it synchronously.
class PortalSimulator
{
public:
    PortalSimulator();
    ~PortalSimulator();

    // Owns the name on the bus and connects to the PipeWire socket. tokenFile keeps the tokens
    // of persist_mode 2 across kills and processes ("" keeps them in memory only).
    bool start(const QString& busAddress, const QString& pipewireSocket,
               const QString& tokenFile = QString());
    QString errorString() const { return error; }

    // The dialog's next answer, and the portal's properties (version 4, monitor and window
    // sources, every cursor mode by default).
    void setChoice(const PortalChoice& choice);
    void setVersion(uint version);
    void setAvailableSourceTypes(uint types);
    void setAvailableCursorModes(uint modes);
    void setSessionHandleAsString(bool asString);

    // What screen index (in Start's order) shows, now and in later sessions.
    void fill(int index, const QColor& colour);
    void showPicture(int index, const QImage& picture);
    void showMovingBar(int index, const QColor& background, const QColor& bar, int barWidth = 16,
                       int barHeight = 0);
    void showChanging(int index);
    void sendBroken(int index, ScreenStreams::Broken kind);

    // The newest started session's streams.
    QVector<ScreenCastPortal::StreamInfo> streams();
    void endStream(int index);
    void resizeStream(int index, QSize size);
    // Closed on every session, their streams ended.
    void closeSessions();
    int openSessions();
    // The name leaves the bus, the sessions end silently; start() brings it back.
    void leaveBus();
    // As a crash: bus and PipeWire connections gone, transient tokens lost; start() again.
    void kill();

    QList<PortalCall> calls() const;
    QList<PortalCall> calls(const QString& method) const;
    QStringList validTokens();

private:
    template <typename F> void onThread(F&& call);

    QThread thread;
    ScreenCastPortal* portal = nullptr; // lives on thread
    QString error;
};
