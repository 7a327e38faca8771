#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <QRegularExpression>
#include <QTimeZone>

#include "RunnerHarness.h"
#include "base/TitleRule.h"
#include "base/WallTime.h"
#include "plans/Calendar.h"
#include "plans/Occurrences.h"
#include "plans/Rules.h"
#include "plans/TopUp.h"
#include "schedule/Edits.h"

// Plans, their occurrences and calendars, on states held in memory.
namespace Vexlor::ScheduleTool {
namespace {

using Time::Microseconds;
using Time::TimePoint;
constexpr long long SECOND = 1000000;

TimePoint At(const char* iso) {
    return TimePoint(Microseconds(
        QDateTime::fromString(QString::fromLatin1(iso), Qt::ISODate).toSecsSinceEpoch() * SECOND));
}

using testing::AllOf;
using testing::HasSubstr;
using Testing::ZoneGuard;

Plan PlanOf(const char* rule, const char* start, const char* zone = "") {
    Plan plan;
    plan.title = QStringLiteral("Show");
    QString error;
    plan.rule = ParseRule(QString::fromLatin1(rule), error).value_or(QString());
    EXPECT_FALSE(plan.rule.isEmpty()) << error.toStdString();
    plan.start = WallFromText(QString::fromLatin1(start));
    plan.zone = QString::fromLatin1(zone);
    return plan;
}

// Each row's occurrences are printed on the clock of `zone`, with its offset; `tz` is the
// process's TZ, which a plan without a zone follows.
struct ExpansionRow {
    const char* name;
    const char* tz;
    const char* zone;
    const char* rule;
    const char* start;
    const char* exceptions;  // each as "yyyy-MM-ddThh:mm:ss", split at spaces
    const char* expected;    // all of a COUNT or UNTIL rule, else the first ones
};

void PrintTo(const ExpansionRow& row, std::ostream* out) {
    *out << row.name;
}

class ExpansionTest : public testing::TestWithParam<ExpansionRow> {};

TEST_P(ExpansionTest, GivesTheOccurrencesOnTheWallClock) {
    const ExpansionRow& row = GetParam();
    ZoneGuard tz(row.tz);
    Plan plan = PlanOf(row.rule, row.start, row.zone);
    for (const QString& exception :
         QString::fromLatin1(row.exceptions).split(' ', Qt::SkipEmptyParts)) {
        plan.exceptions << WallFromText(exception);
    }
    const QTimeZone shownIn(*row.zone ? row.zone : row.tz);
    QStringList got;
    for (const TimePoint start : Occurrences(plan, At("1970-01-02T00:00:00Z"), 12)) {
        got << QDateTime::fromSecsSinceEpoch(start.time_since_epoch().count() / SECOND, shownIn)
                   .toString(Qt::ISODate);
    }
    const QStringList expected = QString::fromLatin1(row.expected).split(' ');
    const bool bounded = QString::fromLatin1(row.rule).contains(QRegularExpression("COUNT|UNTIL"));
    EXPECT_EQ(bounded ? got : got.mid(0, expected.size()), expected);
    // The same plan after export and import into an empty schedule.
    const QByteArray ics = WriteCalendar({}, {{plan}, {}}).toUtf8();
    const ImportResult back = ImportCalendar({}, {}, ics, "/back.ics", TimePoint());
    ASSERT_EQ(back.book.plans.size(), 1u) << back.error.toStdString() << ics.toStdString();
    EXPECT_EQ(Occurrences(back.book.plans.front(), At("1970-01-02T00:00:00Z"), 12),
              Occurrences(plan, At("1970-01-02T00:00:00Z"), 12));
}

const char* NY = "America/New_York";

// The first rows are examples of RFC 5545 section 3.8.5.3 (DTSTART in America/New_York).
INSTANTIATE_TEST_SUITE_P(
    Rows, ExpansionTest,
    testing::Values(
        // UNTIL is an instant in UTC: 20:00 on the 6th in New York.
        ExpansionRow{
            "WeeklyOnTuesdayAndThursdayUntil", "UTC", NY,
            "FREQ=WEEKLY;UNTIL=19971007T000000Z;WKST=SU;BYDAY=TU,TH", "1997-09-02T09:00:00", "",
            "1997-09-02T09:00:00-04:00 1997-09-04T09:00:00-04:00 1997-09-09T09:00:00-04:00 "
            "1997-09-11T09:00:00-04:00 1997-09-16T09:00:00-04:00 1997-09-18T09:00:00-04:00 "
            "1997-09-23T09:00:00-04:00 1997-09-25T09:00:00-04:00 1997-09-30T09:00:00-04:00 "
            "1997-10-02T09:00:00-04:00"},
        ExpansionRow{
            "MonthlyOnTheFirstFridayAcrossBothChanges", "UTC", NY,
            "FREQ=MONTHLY;COUNT=10;BYDAY=1FR", "1997-09-05T09:00:00", "",
            "1997-09-05T09:00:00-04:00 1997-10-03T09:00:00-04:00 1997-11-07T09:00:00-05:00 "
            "1997-12-05T09:00:00-05:00 1998-01-02T09:00:00-05:00 1998-02-06T09:00:00-05:00 "
            "1998-03-06T09:00:00-05:00 1998-04-03T09:00:00-05:00 1998-05-01T09:00:00-04:00 "
            "1998-06-05T09:00:00-04:00"},
        ExpansionRow{"EveryOtherWeekWithTheWeekStartingOnSunday", "UTC", NY,
                     "FREQ=WEEKLY;INTERVAL=2;COUNT=4;BYDAY=TU,SU;WKST=SU", "1997-08-05T09:00:00",
                     "",
                     "1997-08-05T09:00:00-04:00 1997-08-17T09:00:00-04:00 "
                     "1997-08-19T09:00:00-04:00 1997-08-31T09:00:00-04:00"},
        ExpansionRow{
            "FridayThe13thWithTheStartExcluded", "UTC", NY, "FREQ=MONTHLY;BYDAY=FR;BYMONTHDAY=13",
            "1997-09-02T09:00:00", "1997-09-02T09:00:00",
            "1998-02-13T09:00:00-05:00 1998-03-13T09:00:00-05:00 1998-11-13T09:00:00-05:00 "
            "1999-08-13T09:00:00-04:00 2000-10-13T09:00:00-04:00"},
        ExpansionRow{
            "InvalidDatesAreIgnored", "UTC", NY, "FREQ=MONTHLY;BYMONTHDAY=15,30;COUNT=5",
            "2007-01-15T09:00:00", "",
            "2007-01-15T09:00:00-05:00 2007-01-30T09:00:00-05:00 2007-02-15T09:00:00-05:00 "
            "2007-03-15T09:00:00-04:00 2007-03-30T09:00:00-04:00"},
        // Local time, both changes of 2027. In the gap the offset before it holds
        // (02:30 is 03:30 summer time); in the fold the first of the two is taken.
        ExpansionRow{
            "BerlinDailyThroughTheGap", "Europe/Berlin", "", "FREQ=DAILY;COUNT=3",
            "2027-03-27T02:30:00", "",
            "2027-03-27T02:30:00+01:00 2027-03-28T03:30:00+02:00 2027-03-29T02:30:00+02:00"},
        ExpansionRow{"BerlinDailyFromTheGap", "Europe/Berlin", "", "daily", "2027-03-28T02:30:00",
                     "", "2027-03-28T03:30:00+02:00 2027-03-29T02:30:00+02:00"},
        ExpansionRow{
            "BerlinFallBackTakesTheFirst", "Europe/Berlin", "", "FREQ=DAILY;COUNT=3",
            "2027-10-30T02:30:00", "",
            "2027-10-30T02:30:00+02:00 2027-10-31T02:30:00+02:00 2027-11-01T02:30:00+01:00"},
        ExpansionRow{
            "NewYorkInTheGap", "America/New_York", "", "daily", "2027-03-13T02:30:00", "",
            "2027-03-13T02:30:00-05:00 2027-03-14T03:30:00-04:00 2027-03-15T02:30:00-04:00"},
        ExpansionRow{"NewYorkSundayInTheFold", "America/New_York", "", "weekly",
                     "2027-11-07T01:30:00", "",
                     "2027-11-07T01:30:00-04:00 2027-11-14T01:30:00-05:00"}),
    testing::PrintToStringParamName());

// A daily plan at 10:00 UTC, looked at on the 1st at 09:00.
TEST(TopUpTest, KeepsTheHorizonAndTheNextOneAndNeverPutsBackWhatLeft) {
    ZoneGuard tz("UTC");
    PlanBook book{{PlanOf("daily", "2030-01-01T10:00:00")}, {}};
    const TopUpResult first = TopUp({}, book, At("2030-01-01T09:00:00Z"));
    // Seven days ahead hold the 1st to the 7th; the 8th is the first after the horizon.
    ASSERT_EQ(first.schedule.size(), 8u);
    EXPECT_EQ(first.schedule.front().title, "Show (2030-01-01 10:00)");
    EXPECT_EQ(first.schedule.back().title, "Show (2030-01-08 10:00)");
    EXPECT_FALSE(TopUp(first.schedule, first.book, At("2030-01-01T09:00:00Z")).changed);

    // The 1st ran and the 2nd was removed; a day later the horizon takes in the 9th.
    QK::RecordTimeList left(first.schedule.begin() + 2, first.schedule.end());
    const TopUpResult later = TopUp(left, first.book, At("2030-01-02T09:00:00Z"));
    EXPECT_EQ(later.added,
              (QK::RecordTimeList{{"Show (2030-01-09 10:00)", At("2030-01-09T10:00:00Z")}}));
}

// "Talk" is planned on Thursday 2030-01-03 at 10:15 for 30 min.
TEST(AddPlanTest, ChecksEveryOccurrenceWithinTheHorizon) {
    ZoneGuard tz("UTC");
    QK::RecordTime talk{QStringLiteral("Talk"), At("2030-01-03T10:15:00Z"),
                        Microseconds(1800 * SECOND)};
    const ScheduleState state{{talk}, true};
    const EditContext context{At("2030-01-01T00:00:00Z"), std::nullopt, std::nullopt};

    EditRequest plan;
    plan.command = CommandName::Add;
    plan.record.title = QStringLiteral("Standup");
    plan.record.duration = Microseconds(1800 * SECOND);
    plan.rule = QStringLiteral("weekdays");
    plan.wallStart = WallFromText(QStringLiteral("2030-01-01T10:00:00"));
    const EditOutcome refused = ApplyEdit(state, plan, context);
    EXPECT_EQ(refused.exitCode, EXIT_REFUSED);
    EXPECT_THAT(refused.err.toStdString(),
                HasSubstr("(2030-01-03 10:00)\" at 2030-01-03 10:00:00 for 30m overlaps \"Talk\""));
    EXPECT_FALSE(refused.changed);
    EditRequest after = plan;  // begins as "Talk" ends
    after.wallStart = WallFromText(QStringLiteral("2030-01-01T10:45:00"));
    EXPECT_TRUE(ApplyEdit(state, after, context).changed);

    plan.allowOverlap = true;
    const EditOutcome added = ApplyEdit(state, plan, context);
    ASSERT_TRUE(added.changed) << added.err.toStdString();
    EXPECT_EQ(added.changed->plans.plans.size(), 1u);
    EXPECT_EQ(added.changed->schedule.size(), 7u);  // five weekdays, the next Monday, "Talk"

    plan.command = CommandName::Remove;
    plan.title = QStringLiteral("Standup");
    const EditOutcome removed = ApplyEdit(*added.changed, plan, context);
    ASSERT_TRUE(removed.changed);
    EXPECT_EQ(removed.changed->schedule, QK::RecordTimeList{talk});
    EXPECT_TRUE(removed.changed->plans.empty());
}

// A weekly meeting without its second Monday, a one-off talk and an all-day event.
const char CALENDAR[] =
    "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//Test//EN\r\n"
    "BEGIN:VEVENT\r\nUID:meeting\r\nDTSTAMP:20300101T000000Z\r\nSUMMARY:Meeting\r\n"
    "DTSTART;TZID=Europe/Berlin:20300107T100000\r\nDURATION:PT45M\r\n"
    "RRULE:FREQ=WEEKLY;BYDAY=MO\r\nEXDATE;TZID=Europe/Berlin:20300114T100000\r\n"
    "LOCATION:Room 1\r\nEND:VEVENT\r\n"
    "BEGIN:VEVENT\r\nUID:talk\r\nSUMMARY:Talk\r\nDTSTART:20300109T150000Z\r\n"
    "DTEND:20300109T160000Z\r\nEND:VEVENT\r\n"
    "BEGIN:VEVENT\r\nUID:holiday\r\nSUMMARY:Holiday\r\nDTSTART;VALUE=DATE:20300101\r\n"
    "END:VEVENT\r\nEND:VCALENDAR\r\n";

TEST(ImportTest, TakesEventsAndFollowsTheirUpdatesByUid) {
    ZoneGuard tz("Europe/Berlin");
    const QString source = QStringLiteral("/cal.ics");
    const TimePoint now = At("2030-01-06T00:00:00Z");
    const ImportResult first = ImportCalendar({}, {}, CALENDAR, source, now);
    ASSERT_TRUE(first.error.isEmpty()) << first.error.toStdString();
    EXPECT_THAT(first.lines.join('\n').toStdString(),
                AllOf(HasSubstr("2 added"), HasSubstr("Holiday\"): it has no time of day"),
                      HasSubstr("left out LOCATION")));
    // 10:00 in Berlin; the 14th is excepted, the 21st is the first after the horizon.
    const Microseconds hour(3600 * SECOND), meeting(2700 * SECOND);
    EXPECT_EQ(
        first.schedule,
        (QK::RecordTimeList{{"Meeting (2030-01-07 10:00)", At("2030-01-07T09:00:00Z"), meeting},
                            {"Talk", At("2030-01-09T15:00:00Z"), hour},
                            {"Meeting (2030-01-21 10:00)", At("2030-01-21T09:00:00Z"), meeting}}));

    EXPECT_FALSE(ImportCalendar(first.schedule, first.book, CALENDAR, source, now).changed);

    // The plan's recordings are told apart as its own by `status`, `list` and `export`.
    const auto report = [&first, now](CommandName command) {
        EditRequest request;
        request.command = command;
        return ApplyEdit({first.schedule, true, first.book}, request,
                         {now, std::nullopt, std::nullopt})
            .out.toStdString();
    };
    EXPECT_THAT(report(CommandName::Status),
                HasSubstr("planned: 3 recording(s) (2 of them from plans), 1 plan(s)"));
    EXPECT_THAT(report(CommandName::List),
                AllOf(HasSubstr("plan \"Meeting\""), HasSubstr("next 2030-01-07 10:00:00")));
    const QString exported = QString::fromStdString(report(CommandName::Export));
    EXPECT_EQ(exported.count("BEGIN:VEVENT"), 2) << exported.toStdString();
    EXPECT_TRUE(exported.contains("UID:talk")) << exported.toStdString();

    // The talk moves, the meeting is gone, a review is new.
    QByteArray updated = CALENDAR;
    const int cut = updated.indexOf("BEGIN:VEVENT\r\nUID:meeting");
    updated.remove(cut, updated.indexOf("BEGIN:VEVENT\r\nUID:talk") - cut);
    updated.replace("20300109T150000Z", "20300110T150000Z")
        .replace("20300109T160000Z", "20300110T160000Z")
        .replace("END:VCALENDAR",
                 "BEGIN:VEVENT\r\nUID:review\r\nSUMMARY:Review\r\n"
                 "DTSTART:20300111T090000Z\r\nDURATION:PT1H\r\nEND:VEVENT\r\n"
                 "END:VCALENDAR");
    const ImportResult second = ImportCalendar(first.schedule, first.book, updated, source, now);
    EXPECT_EQ(second.schedule, (QK::RecordTimeList{{"Talk", At("2030-01-10T15:00:00Z"), hour},
                                                   {"Review", At("2030-01-11T09:00:00Z"), hour}}));
    EXPECT_TRUE(second.book.plans.empty());
    EXPECT_NE(second.lines.front().indexOf("1 added, 1 updated, 1 removed"), -1);
}

QByteArray Event(const char* uid, const QByteArray& title, const char* start,
                 const char* more = "") {
    return QByteArray("BEGIN:VEVENT\r\nUID:") + uid + "\r\nSUMMARY:" + title +
           "\r\nDTSTART:" + start + "\r\n" + more + "END:VEVENT\r\n";
}

QByteArray CalendarOf(const QList<QByteArray>& events) {
    QByteArray text = "BEGIN:VCALENDAR\r\nVERSION:2.0\r\n";
    for (const QByteArray& event : events) {
        text += event;
    }
    return text + "END:VCALENDAR\r\n";
}

// What an updated event leaves is free for the events after it in the same file: its title,
// its start, and a plan's title and the titles and starts of its recordings.
TEST(ImportTest, AnUpdatedEventFreesWhatItHeldForTheEventsAfterIt) {
    const TimePoint now = At("2030-01-06T00:00:00Z");
    const ImportResult first = ImportCalendar(
        {}, {},
        CalendarOf({Event("a", "Talk", "20300110T100000Z"),
                    Event("p", "Standup", "20300107T090000Z", "RRULE:FREQ=DAILY\r\n")}),
        "/cal.ics", now);
    ASSERT_EQ(first.schedule.size(), 8u) << first.lines.join('\n').toStdString();

    const ImportResult second = ImportCalendar(
        first.schedule, first.book,
        CalendarOf({Event("a", "Chat", "20300110T110000Z"), Event("b", "Talk", "20300110T100000Z"),
                    Event("p", "Standup", "20300107T093000Z"),
                    Event("c", "Standup (2030-01-08 09:00)", "20300108T090000Z")}),
        "/cal.ics", now);
    EXPECT_EQ(second.lines.front().toStdString(),
              "imported /cal.ics: 2 added, 2 updated, 0 removed, 0 unchanged");
    const Microseconds none(0);
    EXPECT_EQ(second.schedule,
              (QK::RecordTimeList{{"Standup", At("2030-01-07T09:30:00Z"), none},
                                  {"Standup (2030-01-08 09:00)", At("2030-01-08T09:00:00Z"), none},
                                  {"Talk", At("2030-01-10T10:00:00Z"), none},
                                  {"Chat", At("2030-01-10T11:00:00Z"), none}}));
    EXPECT_TRUE(second.book.plans.empty());
}

// As `add` holds them: a title fits the capture command's environment, a plan's with room
// for the stamp its recordings add; one byte either side of each line.
TEST(ImportTest, TakesTitlesAsAddDoesAndNoCalendarOverTheLimit) {
    const int most = static_cast<int>(MaxTitleBytes());
    const int planMost = most - OCCURRENCE_STAMP_BYTES;
    const char* daily = "RRULE:FREQ=DAILY\r\n";
    const auto title = [](int size, char last) { return QByteArray(size - 1, 'x') + last; };
    const ImportResult result = ImportCalendar(
        {}, {},
        CalendarOf({Event("1", title(most, '1'), "20300101T100000Z"),
                    Event("2", title(most + 1, '2'), "20300102T100000Z"),
                    Event("3", title(planMost, '3'), "20300103T100000Z", daily),
                    Event("4", title(planMost + 1, '4'), "20300104T100000Z", daily)}),
        "/titles.ics", At("2030-01-01T00:00:00Z"));
    ASSERT_TRUE(result.error.isEmpty()) << result.error.toStdString();
    EXPECT_EQ(result.lines.filter("title is too long").size(), 2)
        << result.lines.join('\n').left(2000).toStdString();
    ASSERT_EQ(result.book.plans.size(), 1u);
    EXPECT_TRUE(result.book.plans.front().title.endsWith('3'));
    ASSERT_EQ(result.book.imported.size(), 1u);
    EXPECT_TRUE(result.book.imported.front().record.title.endsWith('1'));

    // Refused whole, before it is read.
    EditRequest import;
    import.command = CommandName::Import;
    import.source = QStringLiteral("/big.ics");
    import.calendar = QByteArray(MAX_CALENDAR_BYTES + 1, '\n');
    const EditOutcome refused = ApplyEdit({}, import, {TimePoint(), std::nullopt, std::nullopt});
    EXPECT_EQ(refused.exitCode, EXIT_REFUSED);
    EXPECT_FALSE(refused.changed);
    EXPECT_THAT(refused.err.toStdString(), HasSubstr("/big.ics: the file holds more than 4 MiB"));
}

// The second 02:30 of a fold is written so that it is not read back as the first.
TEST(ImportTest, TakesBackAnExportedRecordFromTheSecondHalfOfAFold) {
    ZoneGuard tz("Europe/Berlin");
    const QK::RecordTime late{QStringLiteral("Late"), At("2027-10-31T01:30:00Z"), Microseconds(0)};
    const QByteArray ics = WriteCalendar({late}, {}).toUtf8();
    EXPECT_EQ(ImportCalendar({}, {}, ics, "/back.ics", TimePoint()).schedule,
              QK::RecordTimeList{late});
}

}  // namespace
}  // namespace Vexlor::ScheduleTool

// The built program on a settings file of its own.
namespace {

using Vexlor::Testing::Outcome;
using Vexlor::Testing::RunnerTest;

TEST_F(RunnerTest, APlanEveryTwoSecondsRunsItsThreeRecordingsInOrder) {
    Add({"Tick", "--in", "2s", "--for", "1s", "--repeat", "FREQ=SECONDLY;INTERVAL=2;COUNT=3",
         "--enable"});
    const Outcome run =
        Run({"run", "--until-empty", "--exec", "printf '%s\\n' \"$VEXLOR_TITLE\" >> ran.txt"});
    ASSERT_EQ(run.exitCode, 0) << run.err.toStdString();
    const QStringList ran = QString::fromUtf8(ReadFile("ran.txt")).split('\n', Qt::SkipEmptyParts);
    ASSERT_EQ(ran.size(), 3) << run.out.toStdString();
    // Distinct, and in order: the titles carry the times.
    EXPECT_LT(ran[0], ran[1]);
    EXPECT_LT(ran[1], ran[2]);
    EXPECT_TRUE(ran[0].startsWith("Tick (")) << ran[0].toStdString();
    EXPECT_EQ(Run({"list"}).out, QString());
}

// A line that is no property, or a bad DTSTART, is named and refused.
TEST_F(RunnerTest, ImportingAgainOrAMalformedFileLeavesTheSettingsAsTheyWere) {
    const auto write = [this](const QByteArray& text) {
        QFile calendar(FilePath("cal.ics"));
        return calendar.open(QIODevice::WriteOnly) && calendar.write(text) > 0;
    };
    ASSERT_TRUE(write(Vexlor::ScheduleTool::CALENDAR));
    ASSERT_EQ(Run({"import", FilePath("cal.ics")}).exitCode, 0);
    const QByteArray imported = ReadFile("settings.ini");
    EXPECT_TRUE(Run({"upcoming", "--count", "3"}).out.contains("Meeting (2030-01-21 10:00)"));

    const Outcome again = Run({"import", FilePath("cal.ics")});
    EXPECT_EQ(again.exitCode, 0);
    EXPECT_TRUE(again.out.contains("2 unchanged")) << again.out.toStdString();
    EXPECT_EQ(ReadFile("settings.ini"), imported);

    for (const char* line : {"this is no property", "DTSTART:tomorrow"}) {
        ASSERT_TRUE(write(QByteArray("BEGIN:VCALENDAR\r\nBEGIN:VEVENT\r\nUID:talk\r\n") + line +
                          "\r\nEND:VEVENT\r\nEND:VCALENDAR\r\n"));
        const Outcome malformed = Run({"import", FilePath("cal.ics")});
        EXPECT_EQ(malformed.exitCode, 1);
        EXPECT_TRUE(malformed.err.contains("line 4")) << malformed.err.toStdString();
        EXPECT_EQ(ReadFile("settings.ini"), imported);
    }
}

// With a run active the calendar goes to it over the control socket; a file over the limit,
// a device that never ends or a large sparse file is refused before it is read further.
TEST_F(RunnerTest, ACalendarUpToTheLimitGoesThroughARunAndNoByteMore) {
    using Vexlor::ScheduleTool::MAX_CALENDAR_BYTES;
    // libical finds each line's end with strchr on the rest of the text, which
    // AddressSanitizer's strict string checks make quadratic in a 4 MiB calendar (over a
    // minute); the program runs without them here, its other checks as they are.
    QString sanitizer = qEnvironmentVariable("ASAN_OPTIONS");
    sanitizer.remove(QStringLiteral("strict_string_checks=1"));
    environmentChanges["ASAN_OPTIONS"] = sanitizer;
    auto run = Start({"run"});
    ASSERT_TRUE(WaitForOutput(*run, "scheduler running", 10000));
    const QByteArray talk = "UID:talk\r\n";
    const QByteArray note = "NOTE:\r\n";
    QByteArray full = Vexlor::ScheduleTool::CALENDAR;
    full.insert(
        full.indexOf(talk) + talk.size(),
        note.left(5) + QByteArray(MAX_CALENDAR_BYTES - full.size() - note.size(), 'n') + "\r\n");
    ASSERT_EQ(full.size(), MAX_CALENDAR_BYTES);
    QFile calendar(FilePath("full.ics"));
    ASSERT_TRUE(calendar.open(QIODevice::WriteOnly) && calendar.write(full) == full.size());
    calendar.close();
    // Reading 4 MiB takes a sanitizer build many times as long as the second it takes here.
    constexpr int PATIENCE_MS = 180000;
    const Outcome taken = Run({"import", FilePath("full.ics")}, PATIENCE_MS);
    EXPECT_EQ(taken.exitCode, 0) << taken.err.toStdString();
    EXPECT_TRUE(taken.out.contains("2 added")) << taken.out.left(300).toStdString();
    const QString listed = Run({"list"}, PATIENCE_MS).out;

    ASSERT_TRUE(calendar.open(QIODevice::Append) && calendar.write("\n") == 1);
    calendar.close();
    QFile sparse(FilePath("sparse.ics"));
    ASSERT_TRUE(sparse.open(QIODevice::WriteOnly) && sparse.resize(1LL << 30));
    for (const QString& file :
         {FilePath("full.ics"), FilePath("sparse.ics"), QStringLiteral("/dev/zero")}) {
        const Outcome refused = Run({"import", file}, 5000);
        EXPECT_EQ(refused.exitCode, 1) << file.toStdString();
        EXPECT_TRUE(refused.err.contains(file + ": the file holds more than 4 MiB (4194304 bytes)"))
            << refused.err.left(300).toStdString();
    }
    EXPECT_EQ(Run({"list"}, PATIENCE_MS).out, listed);
    Stop(*run);
}

}  // namespace
