#include "PortalSimulator.h"

#include <QMetaObject>

PortalSimulator::PortalSimulator()
{
    thread.setObjectName(QStringLiteral("PortalSimulator"));
    thread.start();
    portal = new ScreenCastPortal;
    portal->moveToThread(&thread);
}

PortalSimulator::~PortalSimulator()
{
    onThread([this] { delete portal; });
    thread.quit();
    thread.wait();
}

template <typename F> void PortalSimulator::onThread(F&& call)
{
    QMetaObject::invokeMethod(portal, std::forward<F>(call), Qt::BlockingQueuedConnection);
}

bool PortalSimulator::start(const QString& busAddress, const QString& pipewireSocket,
                            const QString& tokenFile)
{
    bool ok = false;
    onThread([&] {
        ok = portal->start(busAddress, pipewireSocket, tokenFile);
        error = portal->errorString();
    });
    return ok;
}

void PortalSimulator::setChoice(const PortalChoice& choice)
{
    onThread([&] { portal->choice = choice; });
}

void PortalSimulator::setVersion(uint version)
{
    onThread([&] { portal->version = version; });
}

void PortalSimulator::setAvailableSourceTypes(uint types)
{
    onThread([&] { portal->sourceTypes = types; });
}

void PortalSimulator::setAvailableCursorModes(uint modes)
{
    onThread([&] { portal->cursorModes = modes; });
}

void PortalSimulator::setSessionHandleAsString(bool asString)
{
    onThread([&] { portal->sessionHandleAsString = asString; });
}

void PortalSimulator::fill(int index, const QColor& colour)
{
    ScreenContent content;
    content.colour = colour;
    onThread([&] { portal->setContent(index, content); });
}

void PortalSimulator::showPicture(int index, const QImage& picture)
{
    ScreenContent content;
    content.kind = ScreenContent::Kind::Picture;
    content.picture = picture;
    onThread([&] { portal->setContent(index, content); });
}

void PortalSimulator::showMovingBar(int index, const QColor& background, const QColor& bar, int barWidth,
                                    int barHeight)
{
    ScreenContent content;
    content.kind = ScreenContent::Kind::MovingBar;
    content.colour = background;
    content.bar = bar;
    content.barWidth = barWidth;
    content.barHeight = barHeight;
    onThread([&] { portal->setContent(index, content); });
}

void PortalSimulator::showChanging(int index)
{
    ScreenContent content;
    content.kind = ScreenContent::Kind::Changing;
    onThread([&] { portal->setContent(index, content); });
}

void PortalSimulator::sendBroken(int index, ScreenStreams::Broken kind)
{
    onThread([&] { portal->sendBroken(index, kind); });
}

QVector<ScreenCastPortal::StreamInfo> PortalSimulator::streams()
{
    QVector<ScreenCastPortal::StreamInfo> out;
    onThread([&] { out = portal->streams(); });
    return out;
}

void PortalSimulator::endStream(int index)
{
    onThread([&] { portal->endStream(index); });
}

void PortalSimulator::resizeStream(int index, QSize size)
{
    onThread([&] { portal->resizeStream(index, size); });
}

void PortalSimulator::closeSessions()
{
    onThread([&] { portal->closeSessions(); });
}

int PortalSimulator::openSessions()
{
    int count = 0;
    onThread([&] { count = portal->openSessions(); });
    return count;
}

void PortalSimulator::leaveBus()
{
    onThread([&] { portal->leaveBus(); });
}

void PortalSimulator::kill()
{
    onThread([&] { portal->kill(); });
}

QList<PortalCall> PortalSimulator::calls() const
{
    return portal->calls();
}

QList<PortalCall> PortalSimulator::calls(const QString& method) const
{
    QList<PortalCall> matching;
    for (const PortalCall& call : portal->calls()) {
        if (call.method == method) {
            matching << call;
        }
    }
    return matching;
}

QStringList PortalSimulator::validTokens()
{
    QStringList out;
    onThread([&] { out = portal->validTokens(); });
    return out;
}
