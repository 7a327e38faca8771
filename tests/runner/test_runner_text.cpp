#include <time.h>
#include <unistd.h>

#include <array>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <QProcess>

#include "CommandLine.h"
#include "Duration.h"
#include "SettingsPath.h"

namespace Vexlor::ScheduleTool {
namespace {

using Time::Microseconds;
constexpr long long SECOND = 1000000;

struct DurationRow {
    const char* text;
    std::optional<long long> micros;
};

void PrintTo(const DurationRow& row, std::ostream* out) {
    *out << '"' << row.text << '"';
}

class ParseDurationTest : public testing::TestWithParam<DurationRow> {};

TEST_P(ParseDurationTest, ReadsTheWrittenForm) {
    const auto parsed = ParseDuration(QString::fromUtf8(GetParam().text));
    if (GetParam().micros) {
        ASSERT_TRUE(parsed.has_value());
        EXPECT_EQ(parsed->count(), *GetParam().micros);
    } else {
        EXPECT_FALSE(parsed.has_value()) << parsed->count();
    }
}

INSTANTIATE_TEST_SUITE_P(
    Rows, ParseDurationTest,
    testing::Values(DurationRow{"0", 0}, DurationRow{"90s", 90 * SECOND},
                    DurationRow{"30m", 1800 * SECOND}, DurationRow{"1h30m", 5400 * SECOND},
                    DurationRow{"2h5s", 7205 * SECOND}, DurationRow{"1h1m1s", 3661 * SECOND},
                    DurationRow{"0s", 0},
                    // 2562047788h is the last whole hour below 2^63 microseconds.
                    DurationRow{"2562047788h", 2562047788LL * 3600 * SECOND},
                    DurationRow{"", std::nullopt}, DurationRow{"90", std::nullopt},
                    DurationRow{"-5m", std::nullopt}, DurationRow{"+5m", std::nullopt},
                    DurationRow{"1.5h", std::nullopt}, DurationRow{"5 m", std::nullopt},
                    DurationRow{" 5m", std::nullopt}, DurationRow{"5q", std::nullopt},
                    DurationRow{"m", std::nullopt}, DurationRow{"30m1h", std::nullopt},
                    DurationRow{"1h1h", std::nullopt}, DurationRow{"5ms", std::nullopt},
                    DurationRow{"2562047789h", std::nullopt},
                    DurationRow{"2562047788h59m59s", std::nullopt},
                    DurationRow{"99999999999999999999s", std::nullopt}));

TEST(FormatDurationTest, WritesWhatParseReads) {
    for (const long long seconds : {0LL, 1LL, 59LL, 60LL, 90LL, 3600LL, 5400LL, 86399LL}) {
        const Microseconds duration(seconds * SECOND);
        const QString text = FormatDuration(duration);
        ASSERT_EQ(ParseDuration(text), duration) << text.toStdString();
    }
}

TEST(FormatDurationTest, ShowsMillisecondsAndSign) {
    EXPECT_EQ(FormatDuration(Microseconds(2500000)), QStringLiteral("2.5s"));
    EXPECT_EQ(FormatDuration(Microseconds(1939000)), QStringLiteral("1.939s"));
    EXPECT_EQ(FormatDuration(Microseconds(-61 * SECOND)), QStringLiteral("-1m1s"));
    EXPECT_FALSE(FormatDuration(Microseconds(std::numeric_limits<long long>::min())).isEmpty());
}

TEST(SettingsPathTest, OptionThenEnvironmentThenConfigFolder) {
    const QString folder = QStringLiteral("/home/u/.config");
    EXPECT_EQ(ChooseSettingsPath(QStringLiteral("/a.ini"), QStringLiteral("/b.ini"), folder),
              QStringLiteral("/a.ini"));
    EXPECT_EQ(ChooseSettingsPath(std::nullopt, QStringLiteral("/b.ini"), folder),
              QStringLiteral("/b.ini"));
    EXPECT_EQ(ChooseSettingsPath(std::nullopt, QString(), folder),
              QStringLiteral("/home/u/.config/vexlor-schedule/settings.ini"));
    EXPECT_EQ(ChooseSettingsPath(std::nullopt, std::nullopt, folder),
              QStringLiteral("/home/u/.config/vexlor-schedule/settings.ini"));
}

using testing::HasSubstr;

// Sets TZ for one test and puts the old value back.
class ZoneGuard {
public:
    explicit ZoneGuard(const char* zone)
        : had(qEnvironmentVariableIsSet("TZ")), old(qgetenv("TZ")) {
        qputenv("TZ", zone);
        ::tzset();
    }
    ~ZoneGuard() {
        had ? qputenv("TZ", old) : qunsetenv("TZ");
        ::tzset();
    }

private:
    bool had;
    QByteArray old;
};

// Seconds after the epoch, or -1 and text that the refusal must hold.
struct AtRow {
    const char* zone;
    const char* at;
    long long seconds;
    const char* refusal;
};

void PrintTo(const AtRow& row, std::ostream* out) {
    *out << row.zone << " \"" << row.at << '"';
}

class ParseAtTest : public testing::TestWithParam<AtRow> {};

TEST_P(ParseAtTest, TakesOnlyLocalTimesThatHappenOnceSince1970) {
    const ZoneGuard zone(GetParam().zone);
    const ParseResult parsed = ParseCommandLine({"add", "T", "--at", GetParam().at});
    if (GetParam().seconds >= 0) {
        ASSERT_TRUE(parsed.invocation) << parsed.error.toStdString();
        EXPECT_EQ(parsed.invocation->add.at->time_since_epoch().count(),
                  GetParam().seconds * SECOND);
    } else {
        EXPECT_THAT(parsed.error.toStdString(), HasSubstr(GetParam().refusal));
        EXPECT_FALSE(parsed.invocation);
    }
}

// Clocks skip 02:00-03:00 and repeat 02:00-03:00 in Berlin, skip 02:00-02:30 at Lord Howe.
INSTANTIATE_TEST_SUITE_P(
    Rows, ParseAtTest,
    testing::Values(
        AtRow{"Europe/Berlin", "2026-03-29 01:59", 1774745940, nullptr},
        AtRow{"Europe/Berlin", "2026-03-29 02:30", -1,
              "\"2026-03-29 02:30\" does not exist in local time: clocks skip from 02:00 to 03:00"},
        AtRow{"Europe/Berlin", "2026-03-29 03:00", 1774746000, nullptr},
        AtRow{"Europe/Berlin", "2026-10-25 01:59:59", 1792886399, nullptr},
        AtRow{"Europe/Berlin", "2026-10-25 02:30", -1,
              "at 2026-10-25T02:30:00+02:00 and at 2026-10-25T02:30:00+01:00"},
        AtRow{"Europe/Berlin", "2026-10-25 03:00", 1792893600, nullptr},
        AtRow{"America/New_York", "2026-03-08 02:30", -1, "clocks skip from 02:00 to 03:00"},
        AtRow{"America/New_York", "2026-11-01 01:13:20", -1,
              "at 2026-11-01T01:13:20-04:00 and at 2026-11-01T01:13:20-05:00"},
        AtRow{"Australia/Lord_Howe", "2026-10-04 02:15", -1, "clocks skip from 02:00 to 02:30"},
        AtRow{"UTC", "2026-03-29 02:30", 1774751400, nullptr},
        AtRow{"UTC", "1970-01-01 00:00", 0, nullptr},
        AtRow{"UTC", "1969-12-31 23:59:59", -1, "is before 1970"},
        AtRow{"Europe/Berlin", "1970-01-01 00:30", -1, "is before 1970"}));

// An accepted command line in one line ("add T enabled", "remove T"), or "refused: <error>".
std::string Outcome(const ParseResult& parsed) {
    if (!parsed.invocation) {
        return "refused: " + parsed.error.toStdString();
    }
    if (parsed.invocation->command == CommandName::Remove) {
        return "remove " + parsed.invocation->removeTitle.toStdString();
    }
    const AddOptions& add = parsed.invocation->add;
    return "add " + add.title.toStdString() + (add.enable ? " enabled" : "");
}

struct ArgumentsRow {
    const char* name;
    QList<QByteArray> arguments;
    std::string outcome;  // all of it, or the start of a refusal
};

void PrintTo(const ArgumentsRow& row, std::ostream* out) {
    *out << row.name;
}

class ParseArgumentsTest : public testing::TestWithParam<ArgumentsRow> {};

TEST_P(ParseArgumentsTest, TakesTheBytesAsGiven) {
    const std::string& expected = GetParam().outcome;
    // An accepted line exactly, a refusal by its start.
    EXPECT_THAT(
        Outcome(ParseCommandLine(GetParam().arguments)),
        testing::AnyOf(testing::Eq(expected), testing::AllOf(testing::StartsWith("refused: "),
                                                             testing::StartsWith(expected))));
}

// Not UTF-8: a stray byte, an overlong form, a surrogate, past U+10FFFF, cut short.
INSTANTIATE_TEST_SUITE_P(
    Rows, ParseArgumentsTest,
    testing::Values(
        ArgumentsRow{"NotUtf8",
                     {"add", "bad\xff\t", "--in", "1h"},
                     "refused: argument 2 is not valid UTF-8: \"bad\\xff\\x09\""},
        ArgumentsRow{"Overlong", {"add", "\xc0\xaf", "--in", "1h"}, "refused: argument 2 "},
        ArgumentsRow{"Surrogate", {"add", "\xed\xa0\x80", "--in", "1h"}, "refused: argument 2 "},
        ArgumentsRow{
            "BeyondUnicode", {"add", "\xf4\x90\x80\x80", "--in", "1h"}, "refused: argument 2 "},
        ArgumentsRow{"CutShort", {"add", "--in", "1h", "caf\xc3"}, "refused: argument 4 "},
        ArgumentsRow{"NotUtf8Removed", {"remove", "\xff"}, "refused: argument 2 "},
        ArgumentsRow{"NotUtf8Settings", {"--settings", "\xfe.ini", "list"}, "refused: argument 2 "},
        ArgumentsRow{"Utf8",
                     {"add", "caf\xc3\xa9 \xf0\x9f\x8e\xa5", "--in", "1h"},
                     "add caf\xc3\xa9 \xf0\x9f\x8e\xa5"},
        ArgumentsRow{"ByteOrderMark", {"add", "\xef\xbb\xbfT", "--in", "1h"}, "add \xef\xbb\xbfT"},
        ArgumentsRow{"RemoveAfterDashes", {"remove", "--", "--old"}, "remove --old"},
        ArgumentsRow{"RemoveDashesAlone", {"remove", "--"}, "remove --"},
        ArgumentsRow{"Enable", {"add", "T", "--in", "1h", "--enable"}, "add T enabled"},
        ArgumentsRow{"EnableTakesNoValue",
                     {"add", "T", "--in", "1h", "--enable=yes"},
                     "refused: add: unknown option --enable"}),
    [](const testing::TestParamInfo<ArgumentsRow>& info) { return std::string(info.param.name); });

// A whole parse in one line: "refused: <error>", "help" or "help add", or the command with
// what differs from the defaults ("settings=a.ini add T in=1h tag=5 enable").
std::string Describe(const ParseResult& parsed) {
    if (!parsed.invocation) {
        return "refused: " + parsed.error.toStdString();
    }
    static const char* const words[] = {"add",     "list",   "remove", "clear", "enable",
                                        "disable", "status", "run",    "help"};
    const Invocation& invocation = *parsed.invocation;
    std::string text;
    if (invocation.settingsFile) {
        text = "settings=" + invocation.settingsFile->toStdString() + " ";
    }
    text += words[static_cast<int>(invocation.command)];
    const auto append = [&text](bool shown, const std::string& what) {
        text += shown ? " " + what : "";
    };
    const auto duration = [](Microseconds value) { return FormatDuration(value).toStdString(); };
    const AddOptions& add = invocation.add;
    const RunOptions& run = invocation.run;
    switch (invocation.command) {
        case CommandName::Help:
            append(invocation.helpFor.has_value(),
                   words[static_cast<int>(invocation.helpFor.value_or(CommandName::Help))]);
            break;
        case CommandName::Add:
            append(true, add.title.toStdString());
            append(add.at.has_value(),
                   "at=" +
                       std::to_string(
                           add.at.value_or(Time::TimePoint()).time_since_epoch().count() / SECOND));
            append(add.in.has_value(), "in=" + duration(add.in.value_or(Microseconds(0))));
            append(add.duration.count() != 0, "for=" + duration(add.duration));
            append(add.tag != -1, "tag=" + std::to_string(add.tag));
            append(add.mode != 0, "mode=" + std::to_string(add.mode));
            append(add.allowOverlap, "overlap");
            append(add.enable, "enable");
            break;
        case CommandName::Remove:
            append(true, invocation.removeTitle.toStdString());
            break;
        case CommandName::Run:
            append(run.lead.count() != 0, "lead=" + duration(run.lead));
            append(run.exec.has_value(), "exec=" + run.exec.value_or(QString()).toStdString());
            append(run.notice.has_value(),
                   std::string("notify=") +
                       std::array{
                           "desktop", "console",
                           "none"}[static_cast<int>(run.notice.value_or(NoticeChoice::Desktop))]);
            append(run.untilEmpty, "until-empty");
            append(!run.keepAwake, "no-keep-awake");
            break;
        default:
            break;
    }
    return text;
}

struct CommandRow {
    const char* name;
    QList<QByteArray> arguments;
    std::string described;
};

void PrintTo(const CommandRow& row, std::ostream* out) {
    *out << row.name;
}

class ParseCommandTest : public testing::TestWithParam<CommandRow> {};

TEST_P(ParseCommandTest, ReadsEachCommandAsDocumented) {
    const ZoneGuard zone("UTC");
    EXPECT_EQ(Describe(ParseCommandLine(GetParam().arguments)), GetParam().described);
}

const std::string NOT_A_DURATION = "is not a duration (write it like 90s, 30m, 1h30m or 0)";

// Values are the next argument whatever it holds; a single dash starts no option.
INSTANTIATE_TEST_SUITE_P(
    Global, ParseCommandTest,
    testing::Values(
        CommandRow{"LastSettingsCounts",
                   {"--settings", "a.ini", "--settings=b.ini", "list"},
                   "settings=b.ini list"},
        CommandRow{"SettingsAsGiven", {"--settings", "-x", "status"}, "settings=-x status"},
        CommandRow{"SettingsEmpty", {"--settings=", "list"}, "refused: --settings needs a file"},
        CommandRow{"SettingsLast", {"--settings"}, "refused: --settings needs a file"},
        CommandRow{"NoCommand", {"--settings", "a.ini"}, "refused: no command given"},
        CommandRow{"UnknownOption", {"--bogus", "list"}, "refused: unknown command \"--bogus\""},
        CommandRow{"Dashes", {"--", "list"}, "refused: unknown command \"--\""},
        CommandRow{"SettingsAfterCommand",
                   {"list", "--settings", "a.ini"},
                   "refused: list takes no arguments, got \"--settings\""},
        CommandRow{"Help", {"help"}, "help"}, CommandRow{"DashedHelp", {"--help"}, "help"},
        CommandRow{"ShortHelp", {"-h"}, "help"},
        CommandRow{"HelpTakesNothing",
                   {"--help", "--settings", "a.ini"},
                   "refused: --help takes no arguments, got \"--settings\""},
        CommandRow{
            "PlainTakesNothing", {"clear", "--"}, "refused: clear takes no arguments, got \"--\""}),
    [](const testing::TestParamInfo<CommandRow>& info) { return std::string(info.param.name); });

INSTANTIATE_TEST_SUITE_P(
    Add, ParseCommandTest,
    testing::Values(
        CommandRow{"EveryOption",
                   {"add", "T", "--at", "2030-01-31 18:30", "--for=1h30m", "--tag", "7", "--mode=2",
                    "--allow-overlap", "--enable"},
                   "add T at=1896114600 for=1h30m tag=7 mode=2 overlap enable"},
        CommandRow{"ValuesAndTitleAsGiven",
                   {"add", "--tag", "-5", "--in", "1h", "-x"},
                   "add -x in=1h tag=-5"},
        CommandRow{"LastValueCounts",
                   {"add", "T", "--in", "1h", "--tag", "1", "--tag=2", "--for", "5m", "--for", "0"},
                   "add T in=1h tag=2"},
        CommandRow{
            "EmptyAfterEquals", {"add", "T", "--in="}, "refused: --in: \"\" " + NOT_A_DURATION},
        CommandRow{"ValueLikeAnOption",
                   {"add", "T", "--in", "1h", "--tag", "--mode"},
                   "refused: --tag: \"--mode\" is not a whole number"},
        CommandRow{"MissingValue", {"add", "T", "--in"}, "refused: --in needs a value"},
        CommandRow{"UnknownOption",
                   {"add", "T", "--in", "1h", "--colour=red"},
                   "refused: add: unknown option --colour"},
        CommandRow{
            "TripleDash", {"add", "---x", "T", "--in", "1h"}, "refused: add: unknown option ---x"},
        CommandRow{"FlagWithValue",
                   {"add", "T", "--in", "1h", "--allow-overlap=1"},
                   "refused: add: unknown option --allow-overlap"},
        CommandRow{"TitleAfterDashes", {"add", "--in", "1h", "--", "--old"}, "add --old in=1h"},
        CommandRow{"NoOptionAfterDashes",
                   {"add", "--", "T", "--in", "1h"},
                   "refused: add takes one title; \"--in\" is one too many"},
        CommandRow{"SecondTitle",
                   {"add", "A", "-b", "--in", "1h"},
                   "refused: add takes one title; \"-b\" is one too many"},
        CommandRow{"AtAndIn",
                   {"add", "T", "--at", "2030-01-31 18:30", "--in", "1h"},
                   "refused: add takes one of --at and --in, once"},

        CommandRow{"EmptyTitle",
                   {"add", "", "--in", "1h"},
                   "refused: add needs a title that is not empty"}),
    [](const testing::TestParamInfo<CommandRow>& info) { return std::string(info.param.name); });

INSTANTIATE_TEST_SUITE_P(
    RemoveAndRun, ParseCommandTest,
    testing::Values(
        CommandRow{"RemoveTitleLikeAnOption", {"remove", "--old"}, "remove --old"},
        CommandRow{"RemoveSingleDash", {"remove", "-x"}, "remove -x"},
        CommandRow{"RemoveNothing", {"remove"}, "refused: remove needs a title"},
        CommandRow{"RemoveDashesLater", {"remove", "a", "--"}, "refused: remove takes one title"},
        CommandRow{"RunEveryOption",
                   {"run", "--lead=5m", "--exec", "echo hi", "--notify", "console", "--until-empty",
                    "--no-keep-awake"},
                   "run lead=5m exec=echo hi notify=console until-empty no-keep-awake"},
        CommandRow{"RunValueAsGiven", {"run", "--exec", "--until-empty"}, "run exec=--until-empty"},
        CommandRow{"RunBadNotice",
                   {"run", "--notify=loud"},
                   "refused: --notify must be desktop, console or none"},
        CommandRow{"RunBlankCommand", {"run", "--exec= "}, "refused: --exec needs a command"},
        CommandRow{"RunFlagWithValue",
                   {"run", "--until-empty=x"},
                   "refused: run: unknown argument --until-empty=x"},
        CommandRow{"RunWord", {"run", "--lead", "1m", "now"}, "refused: run: unknown argument now"},
        CommandRow{"RunMissingValue", {"run", "--exec"}, "refused: --exec needs a value"},
        CommandRow{
            "RunBadLead", {"run", "--lead", "5"}, "refused: --lead: \"5\" " + NOT_A_DURATION}),
    [](const testing::TestParamInfo<CommandRow>& info) { return std::string(info.param.name); });

// --help shows that command's help, unless it is a value or follows "--".
INSTANTIATE_TEST_SUITE_P(
    Help, ParseCommandTest,
    testing::Values(CommandRow{"Add", {"add", "--help"}, "help add"},
                    CommandRow{"AfterOptions", {"run", "--lead", "1m", "--help"}, "help run"},
                    CommandRow{"Remove", {"remove", "--help"}, "help remove"},
                    CommandRow{"Plain", {"status", "--help"}, "help status"},
                    CommandRow{"OfHelp", {"help", "--help"}, "help"},
                    CommandRow{"AsValue",
                               {"add", "T", "--tag", "--help"},
                               "refused: --tag: \"--help\" is not a whole number"},
                    CommandRow{"AsTitle", {"remove", "--", "--help"}, "remove --help"},
                    CommandRow{"WithValue",
                               {"list", "--help=x"},
                               "refused: list takes no arguments, got \"--help=x\""}),
    [](const testing::TestParamInfo<CommandRow>& info) { return std::string(info.param.name); });

// Linux refuses an environment string over 32 pages, NUL included; the capture command gets
// the title as VEXLOR_TITLE=<title>.
TEST(TitleLengthTest, TitleMustFitTheCaptureCommandsEnvironment) {
    const int limit = 32 * static_cast<int>(::sysconf(_SC_PAGESIZE));
    const int room = limit - static_cast<int>(sizeof("VEXLOR_TITLE="));
    const auto add = [](const QByteArray& title) {
        return ParseCommandLine({"add", title, "--in", "1h"});
    };
    EXPECT_TRUE(add(QByteArray(room, 'x')).invocation);
    const ParseResult over = add(QByteArray(room + 1, 'x'));
    EXPECT_THAT(over.error.toStdString(),
                HasSubstr("at most " + std::to_string(limit) + " bytes for VEXLOR_TITLE"));
    // Counted in UTF-8 bytes, not characters.
    EXPECT_FALSE(add(QString(room / 2 + 1, QChar(0xE9)).toUtf8()).invocation);

    // The system draws the line where the check does.
    for (const int size : {room, room + 1}) {
        QProcess process;
        QProcessEnvironment environment;
        environment.insert(QStringLiteral("VEXLOR_TITLE"), QString(size, QLatin1Char('x')));
        process.setProcessEnvironment(environment);
        process.start(QStringLiteral("/bin/true"), QStringList());
        EXPECT_EQ(process.waitForStarted(5000), size == room) << size;
        process.waitForFinished(5000);
    }
}

}  // namespace
}  // namespace Vexlor::ScheduleTool
