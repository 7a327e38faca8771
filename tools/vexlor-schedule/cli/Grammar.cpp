#include "cli/Grammar.h"

#include <functional>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "base/Duration.h"
#include "base/TitleRule.h"
#include "base/WallTime.h"
#include "cli/Arguments.h"
#include "plans/Rules.h"

namespace Vexlor::ScheduleTool {

namespace {

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

// The most that `upcoming` prints. Its answer is made in one piece, by the running scheduler
// when one is active, which must not stall on it; a thousand is more than a screen or a
// script wants.
constexpr int MOST_UPCOMING = 1000;

Reader CountInto(int& target) {
    const Reader whole = WholeNumberInto(target, 1, std::numeric_limits<int>::max());
    return [&target, whole](const QString& text) {
        const int before = target;
        const QString refusal = whole(text);
        if (!refusal.isEmpty() || target <= MOST_UPCOMING) {
            return refusal;
        }
        target = before;
        return QStringLiteral("\"%1\" is more than %2, the most that upcoming prints")
            .arg(text)
            .arg(MOST_UPCOMING);
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

// Checked here so that the recording does not fail only when it is due; a plan's title is
// checked again once --repeat is known.
Reader TitleInto(QString& target) {
    return [&target](const QString& title) {
        const QString problem = TitleProblem(title);
        if (problem.isEmpty()) {
            target = title;
        }
        return problem;
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
    AddValue(app.get_subcommand("upcoming"), "--count", "N",
             "How many to print (default 10, at most " + std::to_string(MOST_UPCOMING) + ").",
             CountInto(invocation.count));
    AddValue(app.get_subcommand("remove"), "TITLE", {},
             "The record's title (-- before one that starts with -).",
             [&invocation](const QString& title) {
                 invocation.removeTitle = title;
                 return QString();
             })
        ->required();
    DefineRun(app.get_subcommand("run"), invocation.run);
}

}  // namespace

Grammar::Grammar() : app("Plans recordings in a settings file and runs them.", "vexlor-schedule") {
    DefineCommands(app, invocation, atProblem);
}

}  // namespace Vexlor::ScheduleTool
