#include "service/config/AutostartEntry.h"

#include "service/config/ConfigurationFile.h"

#include <QDir>
#include <QFile>
#include <QStandardPaths>

QString AutostartEntry::filePath() const
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) +
           QStringLiteral("/autostart/") + name + QStringLiteral(".desktop");
}

AutostartEntry::State AutostartEntry::state(QString* why) const
{
    const ConfigurationFile::ReadResult file = ConfigurationFile::read(filePath(), maxBytes);
    switch (file.status) {
    case ConfigurationFile::Status::Missing:
        return State::Absent;
    case ConfigurationFile::Status::Read:
        return judge(parse(file.bytes), program, argument, why);
    case ConfigurationFile::Status::TooLarge:
    case ConfigurationFile::Status::NotRegular:
    case ConfigurationFile::Status::Unreadable:
        break;
    }
    if (why) {
        *why = file.error;
    }
    return State::Foreign;
}

AutostartEntry::Result AutostartEntry::enable(QString* why)
{
    if (state(why) == State::Foreign) {
        return Result::Refused;
    }
    const QString path = filePath();
    QDir().mkpath(QFileInfo(path).absolutePath());
    return ConfigurationFile::write(path, render(program, argument), why) ? Result::Done : Result::Failed;
}

AutostartEntry::Result AutostartEntry::disable(QString* why)
{
    switch (state(why)) {
    case State::Absent:
        return Result::Done;
    case State::Foreign:
        return Result::Refused;
    case State::On:
    case State::Off:
        break;
    }
    QFile file(filePath());
    if (!file.remove()) {
        if (why) {
            *why = file.errorString();
        }
        return Result::Failed;
    }
    return Result::Done;
}
