#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <QProcess>

#include "RunnerHarness.h"
#include "base/Duration.h"
#include "cli/CommandLine.h"
#include "store/SettingsPath.h"

namespace Vexlor::ScheduleTool {
namespace {

using Time::Microseconds;
constexpr long long SECOND = 1000000;

// Each text reads as the duration that is written as that text. 2562047788h is the last whole
// hour below 2^63 microseconds.
TEST(DurationTest, ReadsTheWrittenFormAndWritesWhatItReads) {
    for (const char* text :
         {"0", "1s", "59s", "1m", "1m30s", "1h", "1h30m", "2h5s", "23h59m59s", "2562047788h"}) {
        const auto parsed = ParseDuration(QString::fromUtf8(text));
        EXPECT_EQ(parsed ? FormatDuration(*parsed).toStdString() : "refused", text);
    }
    EXPECT_EQ(ParseDuration("1h1m1s"), Microseconds(3661 * SECOND));
    EXPECT_EQ(ParseDuration("0s"), Microseconds(0));
    for (const char* refused : {"", "90", "-5m", "1.5h", " 5m", "30m1h", "1h1h", "5ms",
                                "2562047789h", "2562047788h59m59s", "99999999999999999999s"}) {
        EXPECT_EQ(ParseDuration(QString::fromUtf8(refused)), std::nullopt) << refused;
    }
    EXPECT_EQ(FormatDuration(Microseconds(2500000)), QStringLiteral("2.5s"));
    EXPECT_EQ(FormatDuration(Microseconds(1939000)), QStringLiteral("1.939s"));
    EXPECT_EQ(FormatDuration(Microseconds(-61 * SECOND)), QStringLiteral("-1m1s"));
    EXPECT_FALSE(FormatDuration(Microseconds(std::numeric_limits<long long>::min())).isEmpty());
}

TEST(SettingsPathTest, OptionThenEnvironmentThenConfigFolder) {
    const QString folder = QStringLiteral("/home/u/.config");
    const QString a = QStringLiteral("/a.ini"), b = QStringLiteral("/b.ini");
    EXPECT_EQ(ChooseSettingsPath(a, b, folder), a);
    EXPECT_EQ(ChooseSettingsPath(std::nullopt, b, folder), b);
    const QString fallback = QStringLiteral("/home/u/.config/vexlor-schedule/settings.ini");
    EXPECT_EQ(ChooseSettingsPath(std::nullopt, QString(), folder), fallback);
    EXPECT_EQ(ChooseSettingsPath(std::nullopt, std::nullopt, folder), fallback);
}

using testing::HasSubstr;

using Testing::ZoneGuard;

// Seconds after the epoch, or -1 and text that the refusal must hold.
struct AtRow {
    const char* zone;
    const char* at;
    long long seconds;
    const char* refusal;
    const char* repeat = nullptr;
};

// Clocks skip 02:00-03:00 and repeat 02:00-03:00 in Berlin, skip 02:00-02:30 at Lord Howe.
TEST(ParseAtTest, TakesOnlyLocalTimesThatHappenOnceSince1970) {
    const AtRow rows[] = {
        {"Europe/Berlin", "2026-03-29 01:59", 1774745940, nullptr},
        {"Europe/Berlin", "2026-03-29 02:30", -1,
         "\"2026-03-29 02:30\" does not exist in local time: clocks skip from 02:00 to 03:00"},
        {"Europe/Berlin", "2026-03-29 03:00", 1774746000, nullptr},
        {"Europe/Berlin", "2026-10-25 01:59:59", 1792886399, nullptr},
        {"Europe/Berlin", "2026-10-25 02:30", -1,
         "at 2026-10-25T02:30:00+02:00 and at 2026-10-25T02:30:00+01:00"},
        {"Europe/Berlin", "2026-10-25 03:00", 1792893600, nullptr},
        // A plan's start as RFC 5545 reads it: 02:30+01:00, and the first 02:30.
        {"Europe/Berlin", "2026-03-29 02:30", 1774747800, nullptr, "daily"},
        {"Europe/Berlin", "2026-10-25 02:30", 1792888200, nullptr, "daily"},
        {"America/New_York", "2026-03-08 02:30", -1, "clocks skip from 02:00 to 03:00"},
        {"America/New_York", "2026-11-01 01:13:20", -1,
         "at 2026-11-01T01:13:20-04:00 and at 2026-11-01T01:13:20-05:00"},
        {"Australia/Lord_Howe", "2026-10-04 02:15", -1, "clocks skip from 02:00 to 02:30"},
        {"UTC", "1970-01-01 00:00", 0, nullptr},
        {"UTC", "1969-12-31 23:59:59", -1, "is before 1970"},
        {"Europe/Berlin", "1970-01-01 00:30", -1, "is before 1970"}};
    for (const AtRow& row : rows) {
        const ZoneGuard zone(row.zone);
        QList<QByteArray> arguments{"add", "T"};
        if (row.repeat) {
            arguments << "--repeat" << row.repeat;  // given before --at, read after it
        }
        const ParseResult parsed = ParseCommandLine(arguments << "--at" << row.at);
        const std::string got =
            parsed.invocation
                ? std::to_string(parsed.invocation->add.at->time_since_epoch().count() / SECOND)
                : parsed.error.toStdString();
        using Expected = testing::Matcher<std::string>;
        EXPECT_THAT(got,
                    row.refusal ? HasSubstr(row.refusal) : Expected(std::to_string(row.seconds)))
            << row.zone << " " << row.at;
    }
}

// An accepted command line as its fields in one line, or "refused: <error>".
std::string Outcome(const ParseResult& parsed) {
    if (!parsed.invocation) {
        return "refused: " + parsed.error.toStdString();
    }
    const Invocation& invocation = *parsed.invocation;
    const char* const names[] = {"add",     "list",   "remove",   "clear",   "enable",
                                 "disable", "status", "stop",     "run",     "help",
                                 "import",  "export", "upcoming", "complete"};
    QStringList fields;
    if (invocation.settingsFile) {
        fields << "settings=" + *invocation.settingsFile;
    }
    fields << names[static_cast<int>(invocation.command)] << (invocation.json ? "json" : "");
    const AddOptions& add = invocation.add;
    if (invocation.command == CommandName::Add) {
        fields << add.title
               << (add.in ? "in=" + FormatDuration(*add.in)
                          : "at=" + QString::number(add.at->time_since_epoch().count()))
               << "for=" + FormatDuration(add.duration) << QStringLiteral("tag=%1").arg(add.tag)
               << QStringLiteral("mode=%1").arg(add.mode) << (add.allowOverlap ? "overlap" : "")
               << (add.enable ? "enable" : "") << (add.repeat ? "repeat=" + *add.repeat : "");
    }
    fields << (invocation.calendarFile.isEmpty() ? "" : "file=" + invocation.calendarFile);
    if (invocation.command == CommandName::Upcoming) {
        fields << QStringLiteral("count=%1").arg(invocation.count);
    }
    const RunOptions& run = invocation.run;
    const char* const notices[] = {"desktop", "console", "none"};
    if (invocation.command == CommandName::Run) {
        fields << "lead=" + FormatDuration(run.lead) << (run.exec ? "exec=" + *run.exec : "")
               << (run.untilEmpty ? "until-empty" : "")
               << QStringLiteral("notify=") +
                      (run.notice ? notices[static_cast<int>(*run.notice)] : "auto")
               << (run.keepAwake ? "" : "no-keep-awake")
               << (run.capture == CaptureKind::Screen ? "screen" : "simulate")
               << (run.outputDir ? "output=" + *run.outputDir : "") << (run.audio ? "audio" : "");
    }
    fields << invocation.removeTitle << invocation.helpText.split('\n').filter("Usage: ").value(0);
    fields.removeAll(QString());
    return fields.join(' ').toStdString();
}

struct ArgumentsRow {
    const char* name;
    const char* arguments;  // split at '|'; "" is no argument at all
    std::string outcome;    // all of it, or "refused: " and a part of the refusal
};

void PrintTo(const ArgumentsRow& row, std::ostream* out) {
    *out << row.name;
}

class ParseArgumentsTest : public testing::TestWithParam<ArgumentsRow> {};

TEST_P(ParseArgumentsTest, TakesTheBytesAsGiven) {
    const QByteArray joined = GetParam().arguments;
    const std::string& expected = GetParam().outcome;
    const std::string refused = "refused: ";
    EXPECT_THAT(
        Outcome(ParseCommandLine(joined.isEmpty() ? QList<QByteArray>() : joined.split('|'))),
        expected.rfind(refused, 0) == 0
            ? testing::AllOf(testing::StartsWith(refused), HasSubstr(expected.substr(9)))
            : testing::Matcher<std::string>(expected));
}

// Not UTF-8, wherever it stands: a stray byte, an overlong form, cut short.
const ArgumentsRow ARGUMENT_ROWS[] = {
    {"NotUtf8", "add|bad\xff\t|--in|1h",
     "refused: argument 2 is not valid UTF-8: \"bad\\xff\\x09\""},
    {"Overlong", "add|\xc0\xaf|--in|1h", "refused: argument 2 "},
    {"CutShort", "upcoming|--count|caf\xc3", "refused: argument 3 "},
    {"Utf8", "add|caf\xc3\xa9 \xf0\x9f\x8e\xa5|--in|1h",
     "add caf\xc3\xa9 \xf0\x9f\x8e\xa5 in=1h for=0 tag=-1 mode=0"},
    {"ByteOrderMark", "add|\xef\xbb\xbfT|--in|1h", "add \xef\xbb\xbfT in=1h for=0 tag=-1 mode=0"},
    {"NoCommand", "", "refused: no command given"},
    {"UnknownCommand", "frob", "refused: frob"},
    {"ListTakesNothing", "list|extra", "refused: extra"},
    {"Settings", "--settings|a.ini|--settings=b.ini|list", "settings=b.ini list"},
    {"SettingsEmpty", "--settings||list", "refused: --settings: needs a file"},
    {"SettingsAfterCommand", "list|--settings|a.ini", "refused: --settings"},
    {"Clear", "clear", "clear"},
    {"Enable", "enable", "enable"},
    {"Disable", "disable", "disable"},
    {"StatusJson", "status|--json", "status json"},
    {"ListJson", "list|--json", "list json"},
    {"AddTakesNoJson", "add|T|--in|1h|--json", "refused: --json"},
    {"Stop", "stop", "stop"},
    {"Help", "help", "help Usage: vexlor-schedule [OPTIONS] [SUBCOMMAND]"},
    {"HelpOption", "-h", "help Usage: vexlor-schedule [OPTIONS] [SUBCOMMAND]"},
    {"AddHelp", "add|--help", "help Usage: vexlor-schedule add [OPTIONS] TITLE"},
    {"AddEveryOption",
     "add|--tag|1|T|--in=90s|--for|30m|--tag=-3|--mode|2|--allow-overlap|--enable",
     "add T in=1m30s for=30m tag=-3 mode=2 overlap enable"},
    {"AddTagInBaseTen", "add|T|--in|1h|--tag|010", "add T in=1h for=0 tag=10 mode=0"},
    {"AddNoTitle", "add|--in|1h", "refused: TITLE"},
    {"AddEmptyTitle", "add||--in|1h", "refused: TITLE: the title must not be empty"},
    {"AddTwoTitles", "add|T|U|--in|1h", "refused: U"},
    {"AddNoStart", "add|T|--for|5m", "refused: add needs --at TIME or --in"},
    {"AddAtAndIn", "add|T|--in|1h|--at|2030-01-01 10:00", "refused: --at excludes --in"},
    {"AddInTwice", "add|T|--in|1h|--in|2h", "refused: --in"},
    {"AddEarlierBadValue", "add|T|--in|1h|--for|x|--for|1m", "refused: --for: \"x\" is not a"},
    {"AddBadTime", "add|T|--at|2030-13-01 10:00",
     "refused: --at: \"2030-13-01 10:00\" is not a local time"},
    {"AddBadMode", "add|T|--in|1h|--mode|3", "refused: --mode: \"3\""},
    {"AddFlagTakesNoValue", "add|T|--in|1h|--enable=yes", "refused: enable"},
    {"AddRepeat", "add|T|--in|1h|--repeat|FREQ=MONTHLY;BYDAY=-1FR",
     "add T in=1h for=0 tag=-1 mode=0 repeat=FREQ=MONTHLY;BYDAY=-1FR"},
    {"AddBadRule", "add|T|--in|1h|--repeat|FREQ=FORTNIGHTLY",
     "refused: --repeat: \"FREQ=FORTNIGHTLY\" is not a rule"},
    {"Import", "import|a.ics", "import file=a.ics"},
    {"ImportNoFile", "import", "refused: FILE.ics"},
    {"ExportToOutput", "export", "export"},
    {"ExportToFile", "export|a.ics", "export file=a.ics"},
    {"UpcomingDefault", "upcoming", "upcoming count=10"},
    {"UpcomingCount", "upcoming|--count=3", "upcoming count=3"},
    {"UpcomingNotANumber", "upcoming|--count|3x", "refused: --count: \"3x\" is not a whole number"},
    {"UpcomingNone", "upcoming|--count|0", "refused: --count: \"0\" is less than 1"},
    {"UpcomingMost", "upcoming|--count|1000", "upcoming count=1000"},
    {"UpcomingTooMany", "upcoming|--count|2000000000",
     "refused: --count: \"2000000000\" is more than 1000"},
    {"RemoveDashes", "remove|--|--", "remove --"},
    {"RemoveNoTitle", "remove", "refused: TITLE"},
    {"RunDefaults", "run", "run lead=0 notify=auto simulate"},
    {"RunEveryOption", "run|--lead|5m|--exec|x|--until-empty|--notify|console|--no-keep-awake",
     "run lead=5m exec=x until-empty notify=console no-keep-awake simulate"},
    {"RunScreen", "run|--capture|screen|--output|/v|--audio|--notify=none",
     "run lead=0 notify=none screen output=/v audio"},
    {"RunExecAndCapture", "run|--exec|x|--capture|simulate", "refused: --exec excludes --capture"},
    {"RunOutputWithoutScreen", "run|--output|/v",
     "refused: --output and --audio need --capture screen"},
    {"RunBadCapture", "run|--capture|video", "refused: --capture: \"video\""},
    {"RunEmptyInlineExec", "run|--exec=|--until-empty", "refused: --exec needs a value"},
    {"AddTitleEndingInEquals", "add|--in|1h|--|--x=", "add --x= in=1h for=0 tag=-1 mode=0"},
    {"RunBlankExec", "run|--exec| ", "refused: --exec: needs a command"}};

INSTANTIATE_TEST_SUITE_P(Rows, ParseArgumentsTest, testing::ValuesIn(ARGUMENT_ROWS),
                         testing::PrintToStringParamName());

// What the shells' helper offers for the last word: "files", "folders", or the words, with
// "+titles" when the stored titles go with them and "@FILE" for the settings file named.
struct CompletionRow {
    const char* name;
    const char* words;  // split at '|'
    const char* offered;
};

TEST(CompleteCommandLineTest, OffersWhatTheCommandLineTakesThere) {
    const CompletionRow rows[] = {
        {"Commands", "st",
         "add import export upcoming list remove clear enable disable status stop run help"},
        {"GlobalOptions", "-", "--help --settings"},
        {"SettingsFile", "--settings|", "files"},
        {"AfterSettings", "--settings|a b.ini|remove|", "+titles @a b.ini"},
        {"OutputFolder", "run|--capture|screen|--output|", "folders"},
        {"Values", "run|--notify|c", "desktop console none"},
        {"ValuesAfterSplitEquals", "run|--capture|=|", "screen simulate"},
        {"ValuesAfterEquals", "run|--mode=|--capture=", "--capture=screen --capture=simulate"},
        {"CommandOptions", "status|-", "--help --json"},
        {"OneTitleOnly", "remove|A|", ""},
        {"NoTitlesForAdd", "add|", ""},
        {"DashedTitlesAfterDashes", "remove|--|-", "+titles+dashed"},
    };
    for (const CompletionRow& row : rows) {
        const Completion completion = CompleteCommandLine(QString::fromUtf8(row.words).split('|'));
        const char* const kinds[] = {"", "files", "folders"};
        QStringList offered = completion.words;
        offered.prepend(kinds[completion.kind]);
        QString said = offered.join(' ').trimmed();
        said += completion.titles ? "+titles" : "";
        said += completion.titlesAfterDashes ? "+dashed" : "";
        said += completion.settingsFile ? " @" + *completion.settingsFile : "";
        EXPECT_EQ(said.toStdString(), row.offered) << row.name;
    }
}

// Linux refuses an environment string over 32 pages, NUL included; the capture command gets
// the title as VEXLOR_TITLE=<title>.
TEST(TitleLengthTest, TitleMustFitTheCaptureCommandsEnvironment) {
    const int limit = 32 * static_cast<int>(::sysconf(_SC_PAGESIZE));
    const int room = limit - static_cast<int>(sizeof("VEXLOR_TITLE="));
    const auto add = [](const QByteArray& title) {
        return ParseCommandLine({"add", title, "--in", "1h"});
    };
    EXPECT_TRUE(add(QByteArray(room, 'x')).invocation);
    EXPECT_THAT(add(QByteArray(room + 1, 'x')).error.toStdString(),
                HasSubstr("at most " + std::to_string(limit) + " bytes for VEXLOR_TITLE"));
    // Counted in UTF-8 bytes, not characters.
    EXPECT_FALSE(add(QString(room / 2 + 1, QChar(0xE9)).toUtf8()).invocation);
    // A plan's recordings add " (2030-01-31 10:00:00)" to its title.
    const auto plan = [](int size) {
        return ParseCommandLine({"add", QByteArray(size, 'x'), "--in", "1h", "--repeat", "daily"});
    };
    EXPECT_TRUE(plan(room - 22).invocation);
    EXPECT_THAT(plan(room - 21).error.toStdString(),
                HasSubstr("at most " + std::to_string(room - 22)));

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
