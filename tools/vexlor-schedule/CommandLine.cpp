#include "CommandLine.h"

#include <unistd.h>

#include <algorithm>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <CLI/CLI.hpp>

#include "Duration.h"
#include "LocalTime.h"

namespace Vexlor::ScheduleTool {

namespace {

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

// An argument as text for a message: its bytes passed the UTF-8 check, and are read exactly.
QString Text(const std::string& bytes) {
    QString text;
    DecodeUtf8(QByteArray::fromStdString(bytes), text);
    return text;
}

// CLI11 parses; these marks make it read the arguments as this program always has:
//  - a single dash starts no option: "-x" is a title, a value or an unknown argument;
//  - "--name=" has an empty value, where CLI11 would take the next argument instead;
//  - a flag given a value ("--enable=yes") is an unknown option;
//  - whatever else starts with "--" is an option ("---x" an unknown one), or, where unknown
//    options are words, a word.
// The mark is a byte that UTF-8 never holds, so taking it out of what CLI11 hands back gives
// the argument as it was.
constexpr char MARK = '\xff';

enum class UnknownOption { IsOption, IsWord };

std::string Marked(const std::string& argument, const CLI::App& parser, UnknownOption unknown) {
    if (argument == "--" || argument.rfind('-', 0) != 0) {
        return argument;
    }
    if (argument.rfind("--", 0) != 0) {
        return MARK + argument;
    }
    const std::size_t equals = argument.find('=');
    const CLI::Option* option = parser.get_option_no_throw(argument.substr(0, equals));
    const bool flag = option && option->get_items_expected_max() == 0;
    if (option && !flag) {
        return equals == argument.size() - 1 ? argument + MARK : argument;
    }
    if (flag && equals == std::string::npos) {
        return argument;
    }
    return unknown == UnknownOption::IsWord ? MARK + argument : "--" + (MARK + argument.substr(2));
}

std::string Unmarked(std::string text) {
    text.erase(std::remove(text.begin(), text.end(), MARK), text.end());
    return text;
}

// What CLI11 made of a list of arguments, marks taken out, each part in the order given.
struct Reading {
    std::vector<std::pair<std::string, std::string>> options;  // name, value ("" for a flag)
    std::vector<std::string> words;                            // what filled the positional slot
    std::vector<std::string> unplaced;  // "--", surplus words and unknown options
    bool help = false;
    std::optional<std::string> lacksValue;  // the option given last without its value
    std::optional<std::string> failure;     // anything else CLI11 refused
};

Reading Read(CLI::App& parser, const std::vector<std::string>& arguments, UnknownOption unknown) {
    std::vector<std::string> marked;  // CLI11 takes them from the back
    for (auto argument = arguments.rbegin(); argument != arguments.rend(); ++argument) {
        marked.push_back(Marked(*argument, parser, unknown));
    }
    Reading reading;
    try {
        parser.parse(marked);
    } catch (const CLI::CallForHelp&) {
        reading.help = true;
        return reading;
    } catch (const CLI::ArgumentMismatch&) {
        // A value is the next argument whatever it is, so only the last can go without.
        reading.lacksValue = arguments.back();
        return reading;
    } catch (const CLI::ParseError& error) {
        // None expected with the options made here; refused, not let through.
        reading.failure = error.what();
        return reading;
    }
    std::map<const CLI::Option*, std::size_t> taken;
    for (const CLI::Option* option : parser.parse_order()) {
        std::string value = Unmarked(option->results().at(taken[option]++));
        if (option->get_positional()) {
            reading.words.push_back(std::move(value));
        } else {
            const bool flag = option->get_items_expected_max() == 0;
            reading.options.emplace_back(option->get_name(), flag ? std::string() : value);
        }
    }
    for (const std::string& argument : parser.remaining()) {
        reading.unplaced.push_back(Unmarked(argument));
    }
    return reading;
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

struct Command {
    const char* word;
    CommandName name;
    const char* syntax;  // what follows the word on the usage line
    const char* summary;
};

const Command COMMANDS[] = {
    {"add", CommandName::Add, "TITLE (--at \"YYYY-MM-DD HH:MM[:SS]\" | --in DURATION) [OPTIONS]",
     "Plans a recording."},
    {"list", CommandName::List, "",
     "Prints the stored schedule, one line per record: local start, duration, title, tag, "
     "mode."},
    {"remove", CommandName::Remove, "[--] TITLE", "Removes the record with this title."},
    {"clear", CommandName::Clear, "", "Removes every record."},
    {"enable", CommandName::Enable, "", "Switches scheduling on."},
    {"disable", CommandName::Disable, "", "Switches scheduling off."},
    {"status", CommandName::Status, "",
     "Prints the enabled flag, the next recording and the time until it."},
    {"run", CommandName::Run, "[OPTIONS]",
     "Runs the scheduler: starts each recording when it is due, prints a line per event."},
    {"help", CommandName::Help, "", "Lists the commands."},
    {"--help", CommandName::Help, "", "Lists the commands."},
    {"-h", CommandName::Help, "", "Lists the commands."},
};

// CLI11's help, begun with a usage line written out: which options are needed together is
// more than CLI11 knows.
class HelpFormatter : public CLI::Formatter {
public:
    explicit HelpFormatter(const Command& command)
        : head(std::string("usage: vexlor-schedule ") + command.word +
               (*command.syntax ? " " : "") + command.syntax + "\n\n" + command.summary + "\n") {}

    std::string make_description(const CLI::App*) const override { return {}; }
    std::string make_usage(const CLI::App*, std::string) const override { return head; }

private:
    std::string head;
};

std::unique_ptr<CLI::App> MakeParser(const Command& command) {
    auto parser =
        std::make_unique<CLI::App>(std::string(), std::string("vexlor-schedule ") + command.word);
    parser->formatter(std::make_shared<HelpFormatter>(command));
    parser->set_help_flag("--help", "Shows this text.");
    // Judged below, in the order given, with the messages this program has always given.
    parser->allow_extras();
    const auto value = [&parser](const char* name, const char* type, const char* text) {
        parser->add_option(name, CLI::callback_t(), text)
            ->type_name(type)
            ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    };
    switch (command.name) {
        case CommandName::Add:
            parser->add_option("TITLE",
                               "The recording's title; -- before it if it starts with --.");
            value("--at", "\"YYYY-MM-DD HH:MM[:SS]\"",
                  "Starts at this local time; one that the clocks skip or show twice,\n"
                  "or one before 1970, is refused.");
            value("--in", "DURATION", "Starts this long from now.");
            value("--for", "DURATION", "Lasts this long; 0, the default, means no planned end.");
            value("--tag", "N", "A whole number handed to the capture (default -1).");
            value("--mode", "0|1|2", "The capture mode (default 0).");
            parser->add_flag("--allow-overlap", "Keeps the record even if it overlaps another.");
            parser->add_flag("--enable", "Switches scheduling on in the same edit.");
            parser->footer("One of --at and --in is needed. DURATION: 90s, 30m, 1h30m or 0.");
            break;
        case CommandName::Remove:
            parser->add_option("TITLE", "The record's title; -- before it if it starts with --.");
            break;
        case CommandName::Run:
            value("--lead", "DURATION",
                  "Begins each capture this much before its planned start;\n"
                  "it still ends at the planned end.");
            value("--exec", "COMMAND",
                  "Runs COMMAND under /bin/sh -c for each capture, with VEXLOR_TITLE,\n"
                  "VEXLOR_START, VEXLOR_DURATION_MS, VEXLOR_TAG and VEXLOR_MODE set.\n"
                  "Without it the capture is simulated.");
            value("--notify", "desktop|console|none",
                  "Where notices go; desktop in a desktop session, else console.");
            parser->add_flag("--until-empty", "Ends once scheduling is off and nothing runs.");
            parser->add_flag("--no-keep-awake", "Takes no logind sleep lock.");
            parser->footer("DURATION: 90s, 30m, 1h30m or 0.");
            break;
        default:
            break;
    }
    return parser;
}

QString ParseAdd(const Reading& reading, AddOptions& add) {
    // After the first "--" every word is a title.
    bool afterDashes = false;
    for (const std::string& argument : reading.unplaced) {
        if (argument == "--" && !afterDashes) {
            afterDashes = true;
        } else if (!afterDashes && argument.rfind("--", 0) == 0) {
            return QStringLiteral("add: unknown option %1")
                .arg(Text(argument.substr(0, argument.find('='))));
        } else {
            return QStringLiteral("add takes one title; \"%1\" is one too many")
                .arg(Text(argument));
        }
    }
    QString error;
    for (const auto& [option, text] : reading.options) {
        const QString name = Text(option);
        const QString value = Text(text);
        if (option == "--allow-overlap") {
            add.allowOverlap = true;
        } else if (option == "--enable") {
            add.enable = true;
        } else if (option == "--at" || option == "--in") {
            if (add.at || add.in) {
                return QStringLiteral("add takes one of --at and --in, once");
            }
            if (option == "--at") {
                add.at = ParseLocalTime(value, error);
            } else {
                add.in = DurationValue(name, value, error);
            }
        } else if (option == "--for") {
            add.duration = DurationValue(name, value, error).value_or(Time::Microseconds(0));
        } else if (option == "--tag") {
            add.tag = IntegerValue(name, value, error).value_or(-1);
        } else {
            const auto mode = IntegerValue(name, value, error);
            if (mode && (*mode < 0 || *mode > 2)) {
                error = QStringLiteral("--mode must be 0, 1 or 2");
            }
            add.mode = mode.value_or(0);
        }
        if (!error.isEmpty()) {
            return error;
        }
    }
    if (reading.words.empty() || reading.words.front().empty()) {
        return QStringLiteral("add needs a title that is not empty");
    }
    add.title = Text(reading.words.front());
    error = CheckTitleFitsTheEnvironment(add.title);
    if (!error.isEmpty()) {
        return error;
    }
    if (!add.at && !add.in) {
        return QStringLiteral("add needs --at TIME or --in DURATION");
    }
    return {};
}

// Every argument but --help is the title, and "--" before one that starts with "--", as with
// add; alone, "--" is the title.
QString ParseRemove(const Reading& reading, const std::vector<std::string>& arguments,
                    QString& title) {
    const bool leadingDashes = arguments.size() > 1 && arguments.front() == "--" &&
                               !reading.unplaced.empty() && reading.unplaced.front() == "--";
    std::vector<std::string> titles = reading.words;
    titles.insert(titles.end(), reading.unplaced.begin() + (leadingDashes ? 1 : 0),
                  reading.unplaced.end());
    if (titles.empty()) {
        return QStringLiteral("remove needs a title");
    }
    if (titles.size() > 1) {
        return QStringLiteral("remove takes one title");
    }
    title = Text(titles.front());
    return {};
}

QString ParseRun(const Reading& reading, RunOptions& run) {
    if (!reading.unplaced.empty()) {
        return QStringLiteral("run: unknown argument %1").arg(Text(reading.unplaced.front()));
    }
    QString error;
    for (const auto& [option, text] : reading.options) {
        const QString value = Text(text);
        if (option == "--until-empty") {
            run.untilEmpty = true;
        } else if (option == "--no-keep-awake") {
            run.keepAwake = false;
        } else if (option == "--lead") {
            const auto lead = DurationValue(Text(option), value, error);
            if (!lead) {
                return error;
            }
            run.lead = *lead;
        } else if (option == "--exec") {
            if (value.trimmed().isEmpty()) {
                return QStringLiteral("--exec needs a command");
            }
            run.exec = value;
        } else if (value == QLatin1String("desktop")) {
            run.notice = NoticeChoice::Desktop;
        } else if (value == QLatin1String("console")) {
            run.notice = NoticeChoice::Console;
        } else if (value == QLatin1String("none")) {
            run.notice = NoticeChoice::None;
        } else {
            return QStringLiteral("--notify must be desktop, console or none");
        }
    }
    return {};
}

// The arguments after the command's word, into `invocation`; an error text, or nothing.
QString ParseCommand(const Command& command, const std::vector<std::string>& arguments,
                     Invocation& invocation) {
    const auto parser = MakeParser(command);
    // An unknown "--name" is an unknown option to add, and elsewhere a word like any other:
    // the title to remove, an unknown argument to run.
    const Reading reading =
        Read(*parser, arguments,
             command.name == CommandName::Add ? UnknownOption::IsOption : UnknownOption::IsWord);
    if (reading.failure) {
        return Text(*reading.failure);
    }
    if (reading.lacksValue) {
        return QStringLiteral("%1 needs a value").arg(Text(*reading.lacksValue));
    }
    if (reading.help) {
        if (command.name != CommandName::Help) {
            invocation.helpFor = command.name;
        }
        return {};
    }
    invocation.command = command.name;
    switch (command.name) {
        case CommandName::Add:
            return ParseAdd(reading, invocation.add);
        case CommandName::Remove:
            return ParseRemove(reading, arguments, invocation.removeTitle);
        case CommandName::Run:
            return ParseRun(reading, invocation.run);
        default:
            if (!reading.unplaced.empty()) {
                return QStringLiteral("%1 takes no arguments, got \"%2\"")
                    .arg(QLatin1String(command.word), Text(reading.unplaced.front()));
            }
            return {};
    }
}

}  // namespace

ParseResult ParseCommandLine(const QList<QByteArray>& rawArguments) {
    std::vector<std::string> arguments;
    for (int i = 0; i < rawArguments.size(); ++i) {
        QString text;
        if (!DecodeUtf8(rawArguments[i], text)) {
            return {std::nullopt, QStringLiteral("argument %1 is not valid UTF-8: \"%2\"")
                                      .arg(QString::number(i + 1), text)};
        }
        arguments.push_back(rawArguments[i].toStdString());
    }
    const auto refused = [](const QString& error) { return ParseResult{std::nullopt, error}; };

    // Before the command only --settings, as often as given: the last counts.
    CLI::App global;
    global.set_help_flag();   // "--help" and "-h" are command words, as "help" is
    global.prefix_command();  // the first word is the command, and all after it its own
    global.add_option("--settings")->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    const Reading leading = Read(global, arguments, UnknownOption::IsWord);
    if (leading.failure) {
        return refused(Text(*leading.failure));
    }
    Invocation invocation;
    for (const auto& setting : leading.options) {
        if (setting.second.empty()) {
            return refused(QStringLiteral("--settings needs a file"));
        }
        invocation.settingsFile = Text(setting.second);
    }
    if (leading.lacksValue) {
        return refused(QStringLiteral("--settings needs a file"));
    }
    if (leading.unplaced.empty()) {
        return refused(QStringLiteral("no command given"));
    }
    const std::string& word = leading.unplaced.front();
    const auto command = std::find_if(std::begin(COMMANDS), std::end(COMMANDS),
                                      [&word](const Command& known) { return word == known.word; });
    if (command == std::end(COMMANDS)) {
        return refused(QStringLiteral("unknown command \"%1\"").arg(Text(word)));
    }
    const std::vector<std::string> rest(leading.unplaced.begin() + 1, leading.unplaced.end());
    const QString error = ParseCommand(*command, rest, invocation);
    if (!error.isEmpty()) {
        return refused(error);
    }
    return {invocation, {}};
}

QString UsageText() {
    return QStringLiteral(
        "usage: vexlor-schedule [--settings FILE] COMMAND ...\n"
        "  add TITLE (--at \"YYYY-MM-DD HH:MM[:SS]\" | --in DURATION) [--for DURATION]\n"
        "            [--tag N] [--mode 0|1|2] [--allow-overlap] [--enable]\n"
        "  list          the stored schedule, one line per record\n"
        "  remove TITLE\n"
        "  clear\n"
        "  enable\n"
        "  disable\n"
        "  status        the enabled flag, the next recording and the time until it\n"
        "  run [--lead DURATION] [--exec COMMAND] [--until-empty]\n"
        "      [--notify desktop|console|none] [--no-keep-awake]\n"
        "COMMAND --help shows that command's usage and options.\n"
        "DURATION: 90s, 30m, 1h30m or 0 (--for 0, the default: no planned end).\n"
        "The settings file is FILE, else $VEXLOR_SCHEDULE_SETTINGS, else one in the user's\n"
        "configuration folder.\n"
        "Exit codes: 0 done, 1 refused or failed, 2 bad arguments.\n");
}

QString CommandHelpText(CommandName name) {
    const auto command = std::find_if(std::begin(COMMANDS), std::end(COMMANDS),
                                      [name](const Command& known) { return known.name == name; });
    if (name == CommandName::Help || command == std::end(COMMANDS)) {
        return UsageText();
    }
    return QString::fromStdString(MakeParser(*command)->help());
}

}  // namespace Vexlor::ScheduleTool
