#include "cli/CommandLine.h"

#include <unistd.h>

#include <functional>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include <CLI/CLI.hpp>
#include <QTextCodec>

#include "base/Duration.h"
#include "base/WallTime.h"
#include "plans/Rules.h"

namespace Vexlor::ScheduleTool {

namespace {

// Nothing unless the bytes are UTF-8: no overlong forms, surrogates or code points past
// U+10FFFF, nothing cut short. QString::fromUtf8 would replace those and drop a leading U+FEFF.
std::optional<QString> DecodeUtf8(const QByteArray& bytes) {
    QTextCodec::ConverterState state(QTextCodec::IgnoreHeader);
    const QString text =
        QTextCodec::codecForMib(106)->toUnicode(bytes.constData(), bytes.size(), &state);
    if (state.invalidChars != 0 || state.remainingChars != 0) {
        return std::nullopt;
    }
    return text;
}

// A refused argument as given, every byte outside printable ASCII written as \xNN.
QString Escaped(const QByteArray& bytes) {
    QString shown;
    for (const char byte : bytes) {
        const auto value = static_cast<unsigned char>(byte);
        shown += value >= 0x20 && value < 0x7F
                     ? QString(QLatin1Char(byte))
                     : QStringLiteral("\\x%1").arg(value, 2, 16, QLatin1Char('0'));
    }
    return shown;
}

// Takes in one value of an option, or says why not; CLI11 puts the option's name before that.
using Reader = std::function<QString(const QString& text)>;

// Every value is read, in the order given, so that with TakeLast the last one counts and a bad
// one is refused wherever it stands.
CLI::Option* AddValue(CLI::App* command, const std::string& name, const std::string& type,
                      const std::string& help, Reader read) {
    const auto check = [read](std::string& value) {
        // The arguments passed DecodeUtf8 before CLI11 saw them.
        return read(*DecodeUtf8(QByteArray::fromStdString(value))).toStdString();
    };
    return command->add_option(name, help)->type_name(type)->check(CLI::Validator(check, {}));
}

template <typename Target>
Reader DurationInto(Target& target) {
    return [&target](const QString& text) {
        const auto duration = ParseDuration(text);
        if (!duration) {
            return QStringLiteral("\"%1\" is not a duration (write it like 90s, 30m, 1h30m or 0)")
                .arg(text);
        }
        target = *duration;
        return QString();
    };
}

Reader WholeNumberInto(int& target, int low, int high) {
    return [&target, low, high](const QString& text) {
        bool ok = false;
        const int value = text.toInt(&ok);  // base 10: "010" is ten
        if (!ok) {
            return QStringLiteral("\"%1\" is not a whole number").arg(text);
        }
        if (value < low || value > high) {
            return high == std::numeric_limits<int>::max()
                       ? QStringLiteral("\"%1\" is less than %2").arg(text).arg(low)
                       : QStringLiteral("\"%1\" is not from %2 to %3").arg(text).arg(low).arg(high);
        }
        target = value;
        return QString();
    };
}

// Refuses an empty value, and with `blank` one of white space alone.
Reader TextInto(std::optional<QString>& target, const QString& refusal, bool blank = false) {
    return [&target, refusal, blank](const QString& text) {
        if ((blank ? text.trimmed() : text).isEmpty()) {
            return refusal;
        }
        target = text;
        return QString();
    };
}

template <typename Target, typename Value>
Reader OneOfInto(Target& target, std::vector<std::pair<QString, Value>> choices) {
    return [&target, choices](const QString& text) {
        QStringList names;
        for (const auto& [name, value] : choices) {
            if (text == name) {
                target = value;
                return QString();
            }
            names << name;
        }
        return QStringLiteral("\"%1\" is not one of %2").arg(text, names.join(QLatin1Char('|')));
    };
}

// A time that the clocks skip or show twice, or one before 1970, is refused for a single
// recording, but may start a plan, whose later occurrences meet such times too: it is taken
// as RFC 5545 reads it and `problem` says why a single recording cannot have it. Whether
// --repeat is given is known only once every argument has been read.
Reader StartInto(AddOptions& options, QString& problem) {
    return [&options, &problem](const QString& text) {
        // Date and time apart: QDateTime refuses a local time in a gap before saying which.
        const int space = text.indexOf(QLatin1Char(' '));
        const QDate date = QDate::fromString(text.left(space), QStringLiteral("yyyy-MM-dd"));
        for (const char* format : {"HH:mm:ss", "HH:mm"}) {
            const QTime time = QTime::fromString(text.mid(space + 1), QLatin1String(format));
            if (space > 0 && date.isValid() && time.isValid()) {
                QString why;
                options.atWall = QDateTime(date, time, Qt::UTC);
                options.at = ResolveLocalTime(date, time, why);
                if (!options.at) {
                    problem = QStringLiteral("--at: \"%1\" %2").arg(text, why);
                    options.at = ResolveWallTime(options.atWall, QString());
                }
                return QString();
            }
        }
        return QStringLiteral("\"%1\" is not a local time like \"2030-01-31 18:30\"").arg(text);
    };
}

// Kept as written: the edit reads it again into its normal form.
Reader RuleInto(std::optional<QString>& target) {
    return [&target](const QString& text) {
        QString error;
        if (!ParseRule(text, error)) {
            return error;
        }
        target = text;
        return QString();
    };
}

Reader FileInto(QString& target) {
    return [&target](const QString& text) {
        if (text.isEmpty()) {
            return QStringLiteral("needs a file name");
        }
        target = text;
        return QString();
    };
}

// Linux refuses a single environment string longer than MAX_ARG_STRLEN (32 pages, the
// terminating NUL included), and the capture command gets the title as VEXLOR_TITLE=<title>.
// Checked at add, so that the recording does not fail only when it is due.
Reader TitleInto(QString& target) {
    return [&target](const QString& title) {
        const long long limit = 32LL * ::sysconf(_SC_PAGESIZE);
        const long long overhead = static_cast<long long>(sizeof("VEXLOR_TITLE="));  // with NUL
        const long long size = title.toUtf8().size();
        if (title.isEmpty()) {
            return QStringLiteral("the title must not be empty");
        }
        if (size + overhead > limit) {
            return QStringLiteral(
                       "the title is too long: %1 bytes in UTF-8, at most %2 (the capture "
                       "command's environment holds at most %3 bytes for VEXLOR_TITLE=<title>, "
                       "terminating NUL included)")
                .arg(QString::number(size), QString::number(limit - overhead),
                     QString::number(limit));
        }
        target = title;
        return QString();
    };
}

void DefineAdd(CLI::App* add, AddOptions& options, QString& atProblem) {
    AddValue(add, "TITLE", {},
             "The recording's title; it must fit the capture command's\n"
             "environment. -- before a title that starts with -.",
             TitleInto(options.title))
        ->required();
    AddValue(add, "--at", "\"YYYY-MM-DD HH:MM[:SS]\"",
             "Starts at this local time. A time that clocks skip or\n"
             "show twice when daylight saving time begins or ends, or\n"
             "one before 1970, is refused, but with --repeat taken as\n"
             "RFC 5545 says: a skipped time moves forward by the\n"
             "length of the gap, a doubled one is the first.",
             StartInto(options, atProblem))
        ->multi_option_policy(CLI::MultiOptionPolicy::Throw)
        ->excludes(AddValue(add, "--in", "DURATION", "Starts this long from now.",
                            DurationInto(options.in))
                       ->multi_option_policy(CLI::MultiOptionPolicy::Throw));
    AddValue(add, "--for", "DURATION", "Lasts this long; 0, the default: no planned end.",
             DurationInto(options.duration));
    AddValue(add, "--tag", "N", "A whole number handed to the capture (default -1).",
             WholeNumberInto(options.tag, std::numeric_limits<int>::min(),
                             std::numeric_limits<int>::max()));
    AddValue(add, "--mode", "0|1|2", "The mode handed to the capture (default 0).",
             WholeNumberInto(options.mode, 0, 2));
    add->add_flag("--allow-overlap", options.allowOverlap,
                  "Keeps the record even when it overlaps another.");
    add->add_flag("--enable", options.enable, "Switches scheduling on in the same edit.");
    AddValue(add, "--repeat", "RULE",
             "Repeats the recording: daily, weekdays, weekly or an\n"
             "RFC 5545 RRULE such as FREQ=WEEKLY;BYDAY=MO,WE;COUNT=10.\n"
             "The occurrences of the next 7 days, and the one after,\n"
             "are kept in the schedule.",
             RuleInto(options.repeat));
    add->footer("One of --at and --in is needed. DURATION: 90s, 30m, 1h30m or 0.");
}

void DefineRun(CLI::App* run, RunOptions& options) {
    AddValue(run, "--lead", "DURATION",
             "Begins each capture this much before its planned start;\n"
             "it still runs to the planned end (default 0).",
             DurationInto(options.lead));
    AddValue(run, "--exec", "COMMAND",
             "Runs COMMAND under /bin/sh -c for each capture, with\n"
             "VEXLOR_TITLE, VEXLOR_START, VEXLOR_DURATION_MS,\n"
             "VEXLOR_TAG and VEXLOR_MODE in its environment. The\n"
             "capture ends when it exits or at the planned end.",
             TextInto(options.exec, QStringLiteral("needs a command"), true))
        ->excludes(AddValue(
            run, "--capture", "screen|simulate",
            "Without --exec, how a capture is made: simulate (the\n"
            "default) waits for the planned end; screen records the\n"
            "X11 display with ffmpeg into one file per recording in\n"
            "--output DIR, default the user's videos folder.",
            OneOfInto(options.capture, std::vector<std::pair<QString, CaptureKind>>{
                                           {QStringLiteral("screen"), CaptureKind::Screen},
                                           {QStringLiteral("simulate"), CaptureKind::Simulate}})));
    AddValue(run, "--output", "DIR", "The folder of the screen recordings.",
             TextInto(options.outputDir, QStringLiteral("needs a folder")));
    run->add_flag("--audio", options.audio,
                  "Adds the default PulseAudio/PipeWire source to the\n"
                  "screen recordings.");
    run->add_flag("--until-empty", options.untilEmpty,
                  "Ends once scheduling is off and nothing runs.");
    AddValue(run, "--notify", "desktop|console|none",
             "Where notices go: desktop notifications, the console or\n"
             "nowhere. The default is desktop in a desktop session,\n"
             "else console.",
             OneOfInto(options.notice, std::vector<std::pair<QString, NoticeChoice>>{
                                           {QStringLiteral("desktop"), NoticeChoice::Desktop},
                                           {QStringLiteral("console"), NoticeChoice::Console},
                                           {QStringLiteral("none"), NoticeChoice::None}}));
    run->add_flag_callback(
        "--no-keep-awake", [&options] { options.keepAwake = false; },
        "Takes no logind sleep lock while scheduling is armed.");
    run->footer("DURATION: 90s, 30m, 1h30m or 0.");
}

struct Command {
    const char* word;
    CommandName name;
    const char* summary;
    bool json;    // --json
    bool titles;  // its TITLE names a stored record
};
const Command COMMANDS[] = {
    {"add", CommandName::Add, "Plans a recording.", false, false},
    {"import", CommandName::Import,
     "Takes the events of a calendar file: those with an RRULE\n"
     "become plans, the others recordings. Importing it again\n"
     "updates them by UID.",
     false, false},
    {"export", CommandName::Export, "Writes every plan and recording as a calendar.", false, false},
    {"upcoming", CommandName::Upcoming, "Prints the next recordings, plans expanded, local time.",
     false, false},
    {"list", CommandName::List,
     "Prints the stored schedule, one line per record: local\n"
     "start, duration, title, tag, mode.",
     true, false},
    {"remove", CommandName::Remove, "Removes the record with this title.", false, true},
    {"clear", CommandName::Clear, "Removes every record.", false, false},
    {"enable", CommandName::Enable, "Switches scheduling on.", false, false},
    {"disable", CommandName::Disable, "Switches scheduling off.", false, false},
    {"status", CommandName::Status,
     "Prints the enabled flag, the recording in progress (with\n"
     "a run active), the next recording and the time until it;\n"
     "a run also tells the notices shown and its next capture.",
     true, false},
    {"stop", CommandName::Stop,
     "Ends the recording in progress now; the run goes on\n"
     "with the next one.",
     false, false},
    {"run", CommandName::Run,
     "Runs the scheduler: starts each recording when it is due\n"
     "and prints a line per event.",
     false, false},
    {"help", CommandName::Help, "Lists the commands.", false, false},
};

const Command* CommandOf(const CLI::App* command) {
    for (const Command& known : COMMANDS) {
        if (command && command->get_name() == known.word) {
            return &known;
        }
    }
    return nullptr;
}

// The commands with their options and help; CLI11 reads the values into `invocation` as it
// parses.
void DefineCommands(CLI::App& app, Invocation& invocation, QString& atProblem) {
    app.require_subcommand(0, 1);
    // As ever: the last of repeated values counts, and a flag takes none.
    app.option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
    app.option_defaults()->disable_flag_override();
    app.get_formatter()->column_width(24);
    AddValue(&app, "--settings", "FILE", "The settings file; comes before the command.",
             TextInto(invocation.settingsFile, QStringLiteral("needs a file")));
    for (const Command& command : COMMANDS) {
        CLI::App* added = app.add_subcommand(command.word, command.summary);
        if (command.json) {
            added->add_flag("--json", invocation.json, "Prints one JSON document instead.");
        }
    }
    // After the commands, which would inherit it.
    app.footer(
        "DURATION: 90s, 30m, 1h30m or 0.\n"
        "The settings file is FILE, else $VEXLOR_SCHEDULE_SETTINGS, else\n"
        "vexlor-schedule/settings.ini in the user's configuration folder.\n"
        "Exit codes: 0 done, 1 refused or failed, 2 bad arguments.\n"
        "COMMAND --help shows the options of a command.");
    DefineAdd(app.get_subcommand("add"), invocation.add, atProblem);
    AddValue(app.get_subcommand("import"), "FILE.ics", {}, "The calendar file.",
             FileInto(invocation.calendarFile))
        ->required();
    AddValue(app.get_subcommand("export"), "FILE.ics", {},
             "The file to write; without it, standard output.", FileInto(invocation.calendarFile));
    AddValue(app.get_subcommand("upcoming"), "--count", "N", "How many to print (default 10).",
             WholeNumberInto(invocation.count, 1, std::numeric_limits<int>::max()));
    AddValue(app.get_subcommand("remove"), "TITLE", {},
             "The record's title (-- before one that starts with -).",
             [&invocation](const QString& title) {
                 invocation.removeTitle = title;
                 return QString();
             })
        ->required();
    DefineRun(app.get_subcommand("run"), invocation.run);
}

// Not a command of --help: the completion scripts call it.
constexpr const char* COMPLETE_WORD = "__complete";

// The option of `scope` written as `word` ("--notify", "-h"), if any.
const CLI::Option* OptionNamed(const CLI::App& scope, const std::string& word) {
    for (const CLI::Option* option : scope.get_options()) {
        if (option->nonpositional() && option->check_name(word)) {
            return option;
        }
    }
    return nullptr;
}

// The values an option takes: those of a type name such as "screen|simulate", or files.
Completion ValuesOf(const CLI::Option& option, const QString& prefix) {
    const QString type = QString::fromStdString(option.get_type_name());
    Completion values;
    if (type == QLatin1String("FILE") || type == QLatin1String("DIR")) {
        values.kind = type == QLatin1String("FILE") ? Completion::Files : Completion::Folders;
        return values;
    }
    if (type.contains(QLatin1Char('|')) && !type.contains(QLatin1Char('"'))) {
        for (const QString& value : type.split(QLatin1Char('|'))) {
            values.words << prefix + value;
        }
    }
    return values;
}

}  // namespace

Completion CompleteCommandLine(const QStringList& words) {
    Invocation unused;
    QString unusedProblem;
    CLI::App app("", "vexlor-schedule");
    DefineCommands(app, unused, unusedProblem);
    const CLI::App* command = nullptr;
    const CLI::Option* pending = nullptr;  // waits for its value
    std::optional<QString> settingsFile;
    bool afterDashes = false;
    int positionals = 0;
    const QString current = words.isEmpty() ? QString() : words.back();
    for (int i = 0; i + 1 < words.size(); ++i) {
        const QString& word = words[i];
        const CLI::App& scope = command ? *command : app;
        if (pending) {
            // bash splits "--notify=none" into three words.
            if (word != QLatin1String("=")) {
                if (pending->check_name("--settings")) {
                    settingsFile = word;
                }
                pending = nullptr;
            }
        } else if (!afterDashes && word == QLatin1String("--")) {
            afterDashes = true;
        } else if (!afterDashes && word.startsWith(QLatin1Char('-'))) {
            const int equals = word.indexOf(QLatin1Char('='));
            const CLI::Option* option = OptionNamed(scope, word.left(equals).toStdString());
            if (option && option->get_expected_min() > 0) {
                if (equals < 0) {
                    pending = option;
                } else if (option->check_name("--settings")) {
                    settingsFile = word.mid(equals + 1);
                }
            }
        } else if (!command) {
            for (const Command& known : COMMANDS) {
                if (word == QLatin1String(known.word)) {
                    command = app.get_subcommand(known.word);
                }
            }
        } else {
            ++positionals;
        }
    }
    const CLI::App& scope = command ? *command : app;
    Completion completion;
    const int equals = current.indexOf(QLatin1Char('='));
    if (pending) {
        completion = ValuesOf(*pending, {});
    } else if (!afterDashes && current.startsWith(QLatin1String("--")) && equals > 0) {
        if (const CLI::Option* option = OptionNamed(scope, current.left(equals).toStdString())) {
            completion = ValuesOf(*option, current.left(equals + 1));
        }
    } else if (!afterDashes && current.startsWith(QLatin1Char('-'))) {
        for (const CLI::Option* option : scope.get_options()) {
            for (const std::string& name : option->get_lnames()) {
                completion.words << QString::fromStdString("--" + name);
            }
        }
    } else if (!command) {
        for (const Command& known : COMMANDS) {
            completion.words << QString::fromLatin1(known.word);
        }
    } else if (const Command* known = CommandOf(command)) {
        completion.titles = known->titles && positionals == 0;
        // A title that starts with - is read as an option unless it comes after --.
        completion.titlesAfterDashes = afterDashes;
    }
    completion.settingsFile = settingsFile;
    return completion;
}

ParseResult ParseCommandLine(const QList<QByteArray>& arguments) {
    if (!arguments.isEmpty() && arguments.front() == COMPLETE_WORD) {
        // The shells' helper: it takes what was typed, whatever that is.
        Invocation invocation;
        invocation.command = CommandName::Complete;
        for (int i = 1; i < arguments.size(); ++i) {
            invocation.words << QString::fromUtf8(arguments[i]);
        }
        return {invocation, {}};
    }
    std::vector<std::string> backwards;  // as CLI11 takes them
    bool options = true;                 // until "--"
    for (int i = 0; i < arguments.size(); ++i) {
        if (!DecodeUtf8(arguments[i])) {
            return {std::nullopt, QStringLiteral("argument %1 is not valid UTF-8: \"%2\"")
                                      .arg(QString::number(i + 1), Escaped(arguments[i]))};
        }
        options = options && arguments[i] != "--";
        // CLI11 would read "--exec=" as "--exec" and take the next argument as its value.
        if (options && arguments[i].startsWith("--") &&
            arguments[i].indexOf('=') == arguments[i].size() - 1) {
            return {
                std::nullopt,
                QStringLiteral("%1 needs a value").arg(QString::fromUtf8(arguments[i].chopped(1)))};
        }
        backwards.insert(backwards.begin(), arguments[i].toStdString());
    }
    Invocation invocation;
    QString atProblem;
    CLI::App app("Plans recordings in a settings file and runs them.", "vexlor-schedule");
    DefineCommands(app, invocation, atProblem);
    try {
        app.parse(backwards);
    } catch (const CLI::CallForHelp&) {
        invocation.command = CommandName::Help;
        invocation.helpText = QString::fromStdString(app.help());  // that of the command given
        return {invocation, {}};
    } catch (const CLI::ParseError& error) {
        return {std::nullopt, QString::fromUtf8(error.what())};
    }
    if (app.get_subcommands().empty()) {
        return {std::nullopt, QStringLiteral("no command given")};
    }
    for (const Command& command : COMMANDS) {
        if (app.got_subcommand(command.word)) {
            invocation.command = command.name;
        }
    }
    if (invocation.command == CommandName::Help) {
        invocation.helpText = QString::fromStdString(
            app.get_formatter()->make_help(&app, app.get_name(), CLI::AppFormatMode::Normal));
    }
    if (invocation.command == CommandName::Add && !invocation.add.at && !invocation.add.in) {
        return {std::nullopt, QStringLiteral("add needs --at TIME or --in DURATION")};
    }
    if (invocation.command == CommandName::Add && !invocation.add.repeat && !atProblem.isEmpty()) {
        return {std::nullopt, atProblem};
    }
    const RunOptions& run = invocation.run;
    if (invocation.command == CommandName::Run && (run.outputDir || run.audio) &&
        run.capture != CaptureKind::Screen) {
        return {std::nullopt, QStringLiteral("--output and --audio need --capture screen")};
    }
    return {invocation, {}};
}

}  // namespace Vexlor::ScheduleTool
