#pragma once

#include <QMetaType>
#include <QString>
#include <QStringList>

// Why a serial port the user means did not open, and what would let it open.
struct PortProblem
{
    enum class Kind
    {
        None,       // nothing to tell beyond the failed open
        LogInAgain, // the user is in the node's group, this session not yet
        NoAccess,   // neither user nor session may read and write the node
        InUse,      // allowed, but another program holds the port
    };
    Kind kind = Kind::None;
    QString port;
    QString group; // the node's group

    // What the user can run for it ("sudo usermod -aG <group> $USER"), or empty.
    QString command() const;
    // The remedy in English, for the log.
    QString remedy() const;
};
Q_DECLARE_METATYPE(PortProblem)

// Looks at a serial port that did not open; the facts come from the platform's own file.
class PortAccess
{
public:
    struct Facts
    {
        int accessError = 0; // errno of an access check for reading and writing, 0 if allowed
        QString nodeGroup;
        QStringList userGroups;    // the user's groups as the group database has them now
        QStringList processGroups; // the groups this process runs with
    };

    // `refused`: the open failed for want of permission (which a busy port gives too).
    static PortProblem diagnose(const QString& port, const Facts& facts, bool refused);
    static Facts facts(const QString& port);
};
