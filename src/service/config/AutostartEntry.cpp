#include "service/config/AutostartEntry.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QRegularExpression>
#include <QTextCodec>

namespace {

const QString kGroup = QStringLiteral("Desktop Entry");

// The string escapes of a desktop entry's values.
QString escapeValue(const QString& text)
{
    QString out;
    for (const QChar c : text) {
        switch (c.unicode()) {
        case '\\':
            out += QLatin1String("\\\\");
            break;
        case '\n':
            out += QLatin1String("\\n");
            break;
        case '\t':
            out += QLatin1String("\\t");
            break;
        case '\r':
            out += QLatin1String("\\r");
            break;
        default:
            out += c;
        }
    }
    if (out.startsWith(QLatin1Char(' '))) {
        out.replace(0, 1, QStringLiteral("\\s"));
    }
    return out;
}

bool unescapeValue(const QString& text, QString* out)
{
    out->clear();
    for (int i = 0; i < text.size(); ++i) {
        if (text[i] != QLatin1Char('\\')) {
            *out += text[i];
            continue;
        }
        if (++i == text.size()) {
            return false;
        }
        switch (text[i].unicode()) {
        case 's':
            *out += QLatin1Char(' ');
            break;
        case 'n':
            *out += QLatin1Char('\n');
            break;
        case 't':
            *out += QLatin1Char('\t');
            break;
        case 'r':
            *out += QLatin1Char('\r');
            break;
        case '\\':
            *out += QLatin1Char('\\');
            break;
        default: // the Exec quoting's escapes travel on to it
            *out += QLatin1Char('\\');
            *out += text[i];
        }
    }
    return true;
}

// One argument of an Exec line: quoted, with the quoting's escapes and the percent doubled.
QString quoteArgument(const QString& argument)
{
    QString quoted = QStringLiteral("\"");
    for (const QChar c : argument) {
        if (c == QLatin1Char('"') || c == QLatin1Char('`') || c == QLatin1Char('$') ||
            c == QLatin1Char('\\')) {
            quoted += QLatin1Char('\\');
        }
        quoted += c;
    }
    quoted += QLatin1Char('"');
    return quoted.replace(QLatin1Char('%'), QStringLiteral("%%"));
}

} // namespace

AutostartEntry::AutostartEntry(const QString& entryName, const QString& programPath,
                               const QString& programArgument)
    : name(entryName)
    , program(programPath)
    , argument(programArgument)
{
}

AutostartEntry AutostartEntry::forThisProgram()
{
    return AutostartEntry(QCoreApplication::applicationName(), QCoreApplication::applicationFilePath(),
                          QStringLiteral("--auto_startup"));
}

QByteArray AutostartEntry::render(const QString& program, const QString& argument)
{
    const QString exec = quoteArgument(program) + QLatin1Char(' ') + QString(argument).replace('%', "%%");
    const QString text = QStringLiteral("[Desktop Entry]\n"
                                        "Type=Application\n"
                                        "Name=Orvanta\n"
                                        "Exec=%1\n"
                                        "TryExec=%2\n"
                                        "Path=%3\n"
                                        "Terminal=false\n"
                                        "%4=true\n")
                             .arg(escapeValue(exec), escapeValue(program),
                                  escapeValue(QFileInfo(program).absolutePath()), QLatin1String(markKey));
    return text.toUtf8();
}

AutostartEntry::Contents AutostartEntry::parse(const QByteArray& bytes)
{
    Contents contents;
    QTextCodec::ConverterState state;
    const QString text =
        QTextCodec::codecForName("UTF-8")->toUnicode(bytes.constData(), bytes.size(), &state);
    if (state.invalidChars > 0 || bytes.contains('\0')) {
        contents.problem = QStringLiteral("it is not UTF-8 text");
        return contents;
    }
    static const QRegularExpression keyLine(
        QStringLiteral(R"(^([A-Za-z0-9-]+(?:\[[^\]=]+\])?)\s*=\s*(.*)$)"));
    const QStringList lines = text.split(QLatin1Char('\n'));
    QString group;
    bool seenOurGroup = false;
    for (int n = 0; n < lines.size(); ++n) {
        QString line = lines[n];
        if (line.endsWith(QLatin1Char('\r'))) {
            line.chop(1);
        }
        if (line.trimmed().isEmpty() || line.startsWith(QLatin1Char('#'))) {
            continue;
        }
        if (line.startsWith(QLatin1Char('[')) && line.endsWith(QLatin1Char(']'))) {
            group = line.mid(1, line.size() - 2);
            if (group == kGroup && seenOurGroup) {
                contents.problem = QStringLiteral("line %1 repeats the group [%2]").arg(n + 1).arg(kGroup);
                return contents;
            }
            seenOurGroup = seenOurGroup || group == kGroup;
            continue;
        }
        const QRegularExpressionMatch match = keyLine.match(line);
        if (!match.hasMatch() || group.isEmpty()) {
            contents.problem = QStringLiteral("line %1 is neither a group, a key nor a comment").arg(n + 1);
            return contents;
        }
        if (group != kGroup) {
            continue;
        }
        QString value;
        if (contents.values.contains(match.captured(1)) || !unescapeValue(match.captured(2), &value)) {
            contents.problem =
                QStringLiteral("line %1 repeats its key or ends in a lone backslash").arg(n + 1);
            return contents;
        }
        contents.values.insert(match.captured(1), value);
    }
    if (!seenOurGroup) {
        contents.problem = QStringLiteral("it has no [%1] group").arg(kGroup);
    }
    return contents;
}

QStringList AutostartEntry::execArguments(const QString& exec, bool* ok)
{
    QStringList arguments;
    QString current;
    bool inArgument = false;
    bool quoted = false;
    *ok = false;
    for (int i = 0; i < exec.size(); ++i) {
        const QChar c = exec[i];
        if (quoted) {
            if (c == QLatin1Char('"')) {
                quoted = false;
            } else if (c == QLatin1Char('\\')) {
                if (++i == exec.size()) {
                    return {};
                }
                current += exec[i];
            } else {
                current += c;
            }
        } else if (c == QLatin1Char(' ') || c == QLatin1Char('\t') || c == QLatin1Char('\n')) {
            if (inArgument) {
                arguments << current;
                current.clear();
                inArgument = false;
            }
        } else if (c == QLatin1Char('"')) {
            quoted = true;
            inArgument = true;
        } else {
            current += c;
            inArgument = true;
        }
    }
    if (quoted) {
        return {};
    }
    if (inArgument) {
        arguments << current;
    }
    // "%%" is a percent sign; any other field code is something the launcher fills in.
    for (QString& argument : arguments) {
        QString plain;
        for (int i = 0; i < argument.size(); ++i) {
            if (argument[i] == QLatin1Char('%') && i + 1 < argument.size() &&
                argument[i + 1] == QLatin1Char('%')) {
                ++i;
            } else if (argument[i] == QLatin1Char('%')) {
                return {};
            }
            plain += argument[i];
        }
        argument = plain;
    }
    *ok = !arguments.isEmpty();
    return arguments;
}

AutostartEntry::State AutostartEntry::judge(const Contents& contents, const QString& program,
                                            const QString& argument, QString* why)
{
    const auto foreign = [why](const QString& reason) {
        if (why) {
            *why = reason;
        }
        return State::Foreign;
    };
    if (!contents.problem.isEmpty()) {
        return foreign(QStringLiteral("it is no desktop entry: ") + contents.problem);
    }
    if (contents.values.value(QLatin1String(markKey)) != QLatin1String("true")) {
        return foreign(
            QStringLiteral("it is not the program's own (no %1=true)").arg(QLatin1String(markKey)));
    }
    if (contents.values.value(QStringLiteral("Hidden")) == QLatin1String("true") ||
        contents.values.value(QStringLiteral("X-GNOME-Autostart-enabled")) == QLatin1String("false")) {
        return State::Off;
    }
    bool ok = false;
    const QStringList command = execArguments(contents.values.value(QStringLiteral("Exec")), &ok);
    return ok && command == QStringList{program, argument} ? State::On : State::Off;
}
