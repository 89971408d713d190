#pragma once

#include "PrivateXServer.h"

#include <QString>

#include <memory>

// The private X server of a soak that starts the program many times. Without -noreset the server
// resets when its last client goes, and a program started at that moment cannot connect. Should
// the server still go (a machine shared with other suites), a program that could not reach it says
// so, and the soak gets a new server and runs that round again, a few times at most: that is the
// harness's failure, not the program's.
class SoakDisplay
{
public:
    explicit SoakDisplay(const QString& geometry)
        : size(geometry)
    {
    }

    bool start()
    {
        server = std::make_unique<PrivateXServer>(QStringList{QStringLiteral("-noreset")}, size);
        return server->start();
    }
    QString display() const { return server->display(); }
    QString errorString() const { return server->errorString(); }

    // True when the program's last words tell of a lost X server and a new one started.
    bool replaceAfter(const QString& lastWords)
    {
        if (!lastWords.contains(QLatin1String("could not connect to display")) ||
            replacements >= kMaxReplacements) {
            return false;
        }
        ++replacements;
        return start();
    }
    int replaced() const { return replacements; }

private:
    static constexpr int kMaxReplacements = 3;
    QString size;
    std::unique_ptr<PrivateXServer> server;
    int replacements = 0;
};
