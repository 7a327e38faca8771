#include "CommandLine.h"

#include <unistd.h>

#include "Duration.h"
#include "LocalTime.h"
#include "Plans.h"

namespace Vexlor::ScheduleTool {

namespace {

// Walks the arguments of one command; options take their value as the next argument or
// after "=".
class ArgumentReader {
public:
    ArgumentReader(const QStringList& arguments, int start) : arguments(arguments), next(start) {}

    bool AtEnd() const { return next >= arguments.size(); }
    QString Take() { return arguments.at(next++); }

    // Splits "--name=value"; `value` is set only for that form.
    static QString OptionName(const QString& argument, std::optional<QString>& value) {
        const int equals = argument.indexOf(QLatin1Char('='));
        if (argument.startsWith(QLatin1String("--")) && equals > 0) {
            value = argument.mid(equals + 1);
            return argument.left(equals);
        }
        value.reset();
        return argument;
    }

    std::optional<QString> Value(const QString& name, std::optional<QString> inlineValue,
                                 QString& error) {
        if (inlineValue) {
            return inlineValue;
        }
        if (AtEnd()) {
            error = QStringLiteral("%1 needs a value").arg(name);
            return std::nullopt;
        }
        return Take();
    }

private:
    const QStringList& arguments;
    int next;
};

// The length of the well-formed UTF-8 sequence that starts at `bytes[i]`, or 0: no overlong
// forms, no surrogates, nothing past U+10FFFF.
int Utf8SequenceLength(const QByteArray& bytes, int i, char32_t& codePoint) {
    const auto byteAt = [&bytes](int k) { return static_cast<unsigned char>(bytes[k]); };
    const unsigned char lead = byteAt(i);
    if (lead < 0x80) {
        codePoint = lead;
        return 1;
    }
    int length = 0;
    unsigned char low = 0x80;  // the range of the second byte, narrower after some leads
    unsigned char high = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
        codePoint = lead & 0x1Fu;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        codePoint = lead & 0x0Fu;
        low = lead == 0xE0 ? 0xA0 : low;
        high = lead == 0xED ? 0x9F : high;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        codePoint = lead & 0x07u;
        low = lead == 0xF0 ? 0x90 : low;
        high = lead == 0xF4 ? 0x8F : high;
    } else {
        return 0;
    }
    if (i + length > bytes.size()) {
        return 0;
    }
    for (int k = 1; k < length; ++k) {
        const unsigned char next = byteAt(i + k);
        if (next < (k == 1 ? low : 0x80) || next > (k == 1 ? high : 0xBF)) {
            return 0;
        }
        codePoint = codePoint << 6 | (next & 0x3Fu);
    }
    return length;
}

// QString::fromUcs4 would drop a leading U+FEFF.
void AppendCodePoint(QString& text, char32_t codePoint) {
    if (QChar::requiresSurrogates(codePoint)) {
        text += QChar(QChar::highSurrogate(codePoint));
        text += QChar(QChar::lowSurrogate(codePoint));
    } else {
        text += QChar(static_cast<char16_t>(codePoint));
    }
}

// Decodes strictly. Qt's own decoders would turn bad bytes into U+FFFD and drop a leading
// byte order mark. On failure `text` shows the argument with control characters and the
// bytes that are not UTF-8 written as \xNN.
bool DecodeUtf8(const QByteArray& bytes, QString& text) {
    QString shown;
    bool valid = true;
    for (int i = 0; i < bytes.size();) {
        char32_t codePoint = 0;
        const int length = Utf8SequenceLength(bytes, i, codePoint);
        if (length == 0 || codePoint < 0x20 || codePoint == 0x7F) {
            valid = valid && length != 0;
            shown += QStringLiteral("\\x%1").arg(static_cast<unsigned char>(bytes[i]), 2, 16,
                                                 QLatin1Char('0'));
        } else {
            AppendCodePoint(shown, codePoint);
        }
        if (length != 0) {
            AppendCodePoint(text, codePoint);
        }
        i += length == 0 ? 1 : length;
    }
    if (!valid) {
        text = shown;
    }
    return valid;
}

// The date and time fields of "YYYY-MM-DD HH:MM[:SS]", carried as UTC.
bool ParseWallTime(const QString& text, QDateTime& wall) {
    const int space = text.indexOf(QLatin1Char(' '));
    const QDate date = QDate::fromString(text.left(space), QStringLiteral("yyyy-MM-dd"));
    for (const char* format : {"HH:mm:ss", "HH:mm"}) {
        const QTime time = QTime::fromString(text.mid(space + 1), QLatin1String(format));
        if (space > 0 && date.isValid() && time.isValid()) {
            wall = QDateTime(date, time, Qt::UTC);
            return true;
        }
    }
    return false;
}

std::optional<Time::TimePoint> ParseLocalTime(const QString& text, QString& error) {
    // Date and time apart: QDateTime refuses a local time in a gap before saying which.
    const int space = text.indexOf(QLatin1Char(' '));
    const QDate date = QDate::fromString(text.left(space), QStringLiteral("yyyy-MM-dd"));
    for (const char* format : {"HH:mm:ss", "HH:mm"}) {
        const QTime time = QTime::fromString(text.mid(space + 1), QLatin1String(format));
        if (space > 0 && date.isValid() && time.isValid()) {
            QString problem;
            const auto resolved = ResolveLocalTime(date, time, problem);
            if (!resolved) {
                error = QStringLiteral("--at: \"%1\" %2").arg(text, problem);
            }
            return resolved;
        }
    }
    error = QStringLiteral("--at: \"%1\" is not a local time like \"2030-01-31 18:30\"").arg(text);
    return std::nullopt;
}

// Linux refuses a single environment string longer than MAX_ARG_STRLEN (32 pages, the
// terminating NUL included), and the capture command gets the title as VEXLOR_TITLE=<title>.
// Checked at add, so that the recording does not fail only when it is due.
QString CheckTitleFitsTheEnvironment(const QString& title) {
    const long long limit = 32LL * ::sysconf(_SC_PAGESIZE);
    const long long overhead = static_cast<long long>(sizeof("VEXLOR_TITLE="));  // with NUL
    const long long size = title.toUtf8().size();
    if (size + overhead <= limit) {
        return {};
    }
    return QStringLiteral(
               "the title is too long: %1 bytes in UTF-8, at most %2 (the capture command's "
               "environment holds at most %3 bytes for VEXLOR_TITLE=<title>, terminating NUL "
               "included)")
        .arg(QString::number(size), QString::number(limit - overhead), QString::number(limit));
}

std::optional<Time::Microseconds> DurationValue(const QString& name, const QString& text,
                                                QString& error) {
    auto duration = ParseDuration(text);
    if (!duration) {
        error = QStringLiteral("%1: \"%2\" is not a duration (write it like 90s, 30m, 1h30m or 0)")
                    .arg(name, text);
    }
    return duration;
}

std::optional<int> IntegerValue(const QString& name, const QString& text, QString& error) {
    bool ok = false;
    const int value = text.toInt(&ok);
    if (!ok) {
        error = QStringLiteral("%1: \"%2\" is not a whole number").arg(name, text);
        return std::nullopt;
    }
    return value;
}

QString ParseAdd(ArgumentReader& reader, AddOptions& add) {
    QString error;
    QString atProblem;  // a time the clocks skip or show twice
    bool haveTitle = false;
    bool onlyPositionals = false;
    while (!reader.AtEnd()) {
        const QString argument = reader.Take();
        if (onlyPositionals || !argument.startsWith(QLatin1String("--"))) {
            if (haveTitle) {
                return QStringLiteral("add takes one title; \"%1\" is one too many").arg(argument);
            }
            add.title = argument;
            haveTitle = true;
            continue;
        }
        if (argument == QLatin1String("--")) {
            onlyPositionals = true;
            continue;
        }
        std::optional<QString> inlineValue;
        const QString name = ArgumentReader::OptionName(argument, inlineValue);
        if (name == QLatin1String("--repeat")) {
            const auto value = reader.Value(name, inlineValue, error);
            if (!value) {
                return error;
            }
            if (!ParseRule(*value, error)) {
                return QStringLiteral("--repeat: %1").arg(error);
            }
            add.repeat = *value;
            continue;
        }
        if (name == QLatin1String("--allow-overlap") && !inlineValue) {
            add.allowOverlap = true;
            continue;
        }
        if (name == QLatin1String("--enable") && !inlineValue) {
            add.enable = true;
            continue;
        }
        const bool known = name == QLatin1String("--at") || name == QLatin1String("--in") ||
                           name == QLatin1String("--for") || name == QLatin1String("--tag") ||
                           name == QLatin1String("--mode");
        if (!known) {
            return QStringLiteral("add: unknown option %1").arg(name);
        }
        const auto value = reader.Value(name, inlineValue, error);
        if (!value) {
            return error;
        }
        if (name == QLatin1String("--at") || name == QLatin1String("--in")) {
            if (add.at || add.in) {
                return QStringLiteral("add takes one of --at and --in, once");
            }
        }
        if (name == QLatin1String("--at")) {
            add.at = ParseLocalTime(*value, error);
            // A plan's first start may fall where the clocks change, like its later ones:
            // whether this is one is known at the end.
            if (!add.at && ParseWallTime(*value, add.atWall)) {
                atProblem = error;
                error.clear();
                add.at = ResolveWallTime(add.atWall, QString());
            } else if (add.at) {
                ParseWallTime(*value, add.atWall);
            }
        } else if (name == QLatin1String("--in")) {
            add.in = DurationValue(name, *value, error);
        } else if (name == QLatin1String("--for")) {
            const auto duration = DurationValue(name, *value, error);
            add.duration = duration.value_or(Time::Microseconds(0));
        } else if (name == QLatin1String("--tag")) {
            add.tag = IntegerValue(name, *value, error).value_or(-1);
        } else {
            const auto mode = IntegerValue(name, *value, error);
            if (mode && (*mode < 0 || *mode > 2)) {
                error = QStringLiteral("--mode must be 0, 1 or 2");
            }
            add.mode = mode.value_or(0);
        }
        if (!error.isEmpty()) {
            return error;
        }
    }
    if (!haveTitle || add.title.isEmpty()) {
        return QStringLiteral("add needs a title that is not empty");
    }
    error = CheckTitleFitsTheEnvironment(add.title);
    if (!error.isEmpty()) {
        return error;
    }
    if (!add.at && !add.in) {
        return QStringLiteral("add needs --at TIME or --in DURATION");
    }
    return add.repeat ? QString() : atProblem;
}

// import FILE, export [FILE], upcoming [--count N]
QString ParseCalendarCommand(const QString& command, ArgumentReader& reader,
                             Invocation& invocation) {
    QString error;
    if (command == QLatin1String("upcoming")) {
        invocation.command = CommandName::Upcoming;
        while (!reader.AtEnd()) {
            std::optional<QString> inlineValue;
            const QString name = ArgumentReader::OptionName(reader.Take(), inlineValue);
            if (name != QLatin1String("--count")) {
                return QStringLiteral("upcoming: unknown argument %1").arg(name);
            }
            const auto value = reader.Value(name, inlineValue, error);
            const auto count = value ? IntegerValue(name, *value, error) : std::nullopt;
            if (!count || *count < 1) {
                return error.isEmpty() ? QStringLiteral("--count must be at least 1") : error;
            }
            invocation.count = *count;
        }
        return {};
    }
    invocation.command =
        command == QLatin1String("import") ? CommandName::Import : CommandName::Export;
    if (!reader.AtEnd()) {
        invocation.calendarFile = reader.Take();
    }
    if (!reader.AtEnd()) {
        return QStringLiteral("%1 takes one file").arg(command);
    }
    if (invocation.command == CommandName::Import && invocation.calendarFile.isEmpty()) {
        return QStringLiteral("import needs a file");
    }
    return {};
}

QString ParseRun(ArgumentReader& reader, RunOptions& run) {
    QString error;
    while (!reader.AtEnd()) {
        const QString argument = reader.Take();
        std::optional<QString> inlineValue;
        const QString name = ArgumentReader::OptionName(argument, inlineValue);
        if (name == QLatin1String("--until-empty") && !inlineValue) {
            run.untilEmpty = true;
            continue;
        }
        if (name == QLatin1String("--no-keep-awake") && !inlineValue) {
            run.keepAwake = false;
            continue;
        }
        if (name != QLatin1String("--lead") && name != QLatin1String("--exec") &&
            name != QLatin1String("--notify")) {
            return QStringLiteral("run: unknown argument %1").arg(argument);
        }
        const auto value = reader.Value(name, inlineValue, error);
        if (!value) {
            return error;
        }
        if (name == QLatin1String("--lead")) {
            const auto lead = DurationValue(name, *value, error);
            if (!lead) {
                return error;
            }
            run.lead = *lead;
        } else if (name == QLatin1String("--exec")) {
            if (value->trimmed().isEmpty()) {
                return QStringLiteral("--exec needs a command");
            }
            run.exec = *value;
        } else if (*value == QLatin1String("desktop")) {
            run.notice = NoticeChoice::Desktop;
        } else if (*value == QLatin1String("console")) {
            run.notice = NoticeChoice::Console;
        } else if (*value == QLatin1String("none")) {
            run.notice = NoticeChoice::None;
        } else {
            return QStringLiteral("--notify must be desktop, console or none");
        }
    }
    return {};
}

}  // namespace

ParseResult ParseCommandLine(const QList<QByteArray>& rawArguments) {
    QStringList arguments;
    for (int i = 0; i < rawArguments.size(); ++i) {
        QString text;
        if (!DecodeUtf8(rawArguments[i], text)) {
            return {std::nullopt, QStringLiteral("argument %1 is not valid UTF-8: \"%2\"")
                                      .arg(QString::number(i + 1), text)};
        }
        arguments << text;
    }
    Invocation invocation;
    int index = 0;
    while (index < arguments.size()) {
        std::optional<QString> inlineValue;
        const QString name = ArgumentReader::OptionName(arguments.at(index), inlineValue);
        if (name != QLatin1String("--settings")) {
            break;
        }
        ++index;
        if (!inlineValue) {
            if (index >= arguments.size()) {
                return {std::nullopt, QStringLiteral("--settings needs a file")};
            }
            inlineValue = arguments.at(index++);
        }
        if (inlineValue->isEmpty()) {
            return {std::nullopt, QStringLiteral("--settings needs a file")};
        }
        invocation.settingsFile = inlineValue;
    }
    if (index >= arguments.size()) {
        return {std::nullopt, QStringLiteral("no command given")};
    }
    const QString command = arguments.at(index++);
    ArgumentReader reader(arguments, index);
    struct Plain {
        const char* word;
        CommandName name;
    };
    static const Plain plainCommands[] = {
        {"list", CommandName::List},     {"clear", CommandName::Clear},
        {"enable", CommandName::Enable}, {"disable", CommandName::Disable},
        {"status", CommandName::Status}, {"help", CommandName::Help},
        {"--help", CommandName::Help},   {"-h", CommandName::Help}};
    for (const Plain& plain : plainCommands) {
        if (command == QLatin1String(plain.word)) {
            if (!reader.AtEnd()) {
                return {std::nullopt, QStringLiteral("%1 takes no arguments, got \"%2\"")
                                          .arg(command, reader.Take())};
            }
            invocation.command = plain.name;
            return {invocation, {}};
        }
    }
    QString error;
    if (command == QLatin1String("add")) {
        invocation.command = CommandName::Add;
        error = ParseAdd(reader, invocation.add);
    } else if (command == QLatin1String("remove")) {
        invocation.command = CommandName::Remove;
        if (reader.AtEnd()) {
            error = QStringLiteral("remove needs a title");
        } else {
            invocation.removeTitle = reader.Take();
            // "--" before a title that starts with "--", as with add; alone it is the title.
            if (invocation.removeTitle == QLatin1String("--") && !reader.AtEnd()) {
                invocation.removeTitle = reader.Take();
            }
            if (!reader.AtEnd()) {
                error = QStringLiteral("remove takes one title");
            }
        }
    } else if (command == QLatin1String("import") || command == QLatin1String("export") ||
               command == QLatin1String("upcoming")) {
        error = ParseCalendarCommand(command, reader, invocation);
    } else if (command == QLatin1String("run")) {
        invocation.command = CommandName::Run;
        error = ParseRun(reader, invocation.run);
    } else {
        error = QStringLiteral("unknown command \"%1\"").arg(command);
    }
    if (!error.isEmpty()) {
        return {std::nullopt, error};
    }
    return {invocation, {}};
}

QString UsageText() {
    return QStringLiteral(
        "usage: vexlor-schedule [--settings FILE] COMMAND ...\n"
        "  add TITLE (--at \"YYYY-MM-DD HH:MM[:SS]\" | --in DURATION) [--for DURATION]\n"
        "            [--tag N] [--mode 0|1|2] [--allow-overlap] [--enable] [--repeat RULE]\n"
        "  import FILE.ics   events become plans (with an RRULE) or recordings\n"
        "  export [FILE.ics] every plan and recording as a calendar (standard output without "
        "FILE)\n"
        "  upcoming [--count N]  the next N recordings (10), plans expanded\n"
        "  list          the stored schedule, one line per record\n"
        "  remove TITLE\n"
        "  clear\n"
        "  enable\n"
        "  disable\n"
        "  status        the enabled flag, the next recording and the time until it\n"
        "  run [--lead DURATION] [--exec COMMAND] [--until-empty]\n"
        "      [--notify desktop|console|none] [--no-keep-awake]\n"
        "RULE: daily, weekdays, weekly or an RFC 5545 RRULE such as FREQ=WEEKLY;BYDAY=MO,WE.\n"
        "DURATION: 90s, 30m, 1h30m or 0 (--for 0, the default: no planned end).\n"
        "The settings file is FILE, else $VEXLOR_SCHEDULE_SETTINGS, else one in the user's\n"
        "configuration folder.\n"
        "Exit codes: 0 done, 1 refused or failed, 2 bad arguments.\n");
}

}  // namespace Vexlor::ScheduleTool
