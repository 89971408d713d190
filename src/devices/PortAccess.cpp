#include "devices/PortAccess.h"

#include <cerrno>

QString PortProblem::command() const
{
    return kind == Kind::NoAccess ? QStringLiteral("sudo usermod -aG %1 $USER").arg(group) : QString();
}

QString PortProblem::remedy() const
{
    switch (kind) {
    case Kind::LogInAgain:
        return QStringLiteral("you are in the group %1, but this session is not yet: log out and in again")
            .arg(group);
    case Kind::NoAccess:
        return QStringLiteral("plug the device in again now the rule is installed, or run \"%1\" and log "
                              "in again")
            .arg(command());
    case Kind::InUse:
        return QStringLiteral("another program holds the port");
    case Kind::None:
        break;
    }
    return QString();
}

PortProblem PortAccess::diagnose(const QString& port, const Facts& facts, bool refused)
{
    PortProblem problem;
    problem.port = port;
    problem.group = facts.nodeGroup;
    if (!refused) {
        return problem;
    }
    if (facts.accessError == 0) {
        problem.kind = PortProblem::Kind::InUse;
    } else if (facts.accessError == EACCES) {
        // Joined since this session began: the session's processes keep the groups of its start.
        const bool joinedLater =
            facts.userGroups.contains(facts.nodeGroup) && !facts.processGroups.contains(facts.nodeGroup);
        problem.kind = joinedLater ? PortProblem::Kind::LogInAgain : PortProblem::Kind::NoAccess;
    }
    return problem;
}
