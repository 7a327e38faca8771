#include <gtest/gtest.h>

#include <time.h>

#include <QTimeZone>

#include "Calendar.h"
#include "Plans.h"

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

Plan PlanOf(const char* rule, const char* start, const char* zone = "") {
    Plan plan;
    plan.title = QStringLiteral("Show");
    QString error;
    plan.rule = ParseRule(QString::fromLatin1(rule), error).value_or(QString());
    EXPECT_FALSE(plan.rule.isEmpty()) << error.toStdString();
    plan.start = QDateTime::fromString(QString::fromLatin1(start), Qt::ISODate);
    plan.start.setTimeSpec(Qt::UTC);
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
    std::vector<const char*> exceptions;
    std::vector<const char*> expected;  // all of them, or the first ones of an endless rule
};

void PrintTo(const ExpansionRow& row, std::ostream* out) {
    *out << row.name;
}

class ExpansionTest : public testing::TestWithParam<ExpansionRow> {};

TEST_P(ExpansionTest, GivesTheOccurrencesOnTheWallClock) {
    const ExpansionRow& row = GetParam();
    ZoneGuard tz(row.tz);
    Plan plan = PlanOf(row.rule, row.start, row.zone);
    for (const char* exception : row.exceptions) {
        QDateTime wall = QDateTime::fromString(QString::fromLatin1(exception), Qt::ISODate);
        wall.setTimeSpec(Qt::UTC);
        plan.exceptions << wall;
    }
    const QTimeZone shownIn(*row.zone ? row.zone : row.tz);
    QStringList got;
    for (const TimePoint start : Occurrences(plan, At("1970-01-02T00:00:00Z"), 12)) {
        got << QDateTime::fromSecsSinceEpoch(start.time_since_epoch().count() / SECOND, shownIn)
                   .toString(Qt::ISODate);
    }
    QStringList expected;
    for (const char* text : row.expected) {
        expected << QString::fromLatin1(text);
    }
    EXPECT_EQ(got.mid(0, expected.size()), expected);
}

const char* NY = "America/New_York";

// The first rows are examples of RFC 5545 section 3.8.5.3 (DTSTART in America/New_York).
INSTANTIATE_TEST_SUITE_P(
    Rows, ExpansionTest,
    testing::Values(ExpansionRow{"DailyForTenOccurrences",
                                 "UTC",
                                 NY,
                                 "FREQ=DAILY;COUNT=10",
                                 "1997-09-02T09:00:00",
                                 {},
                                 {"1997-09-02T09:00:00-04:00", "1997-09-03T09:00:00-04:00",
                                  "1997-09-04T09:00:00-04:00", "1997-09-05T09:00:00-04:00",
                                  "1997-09-06T09:00:00-04:00", "1997-09-07T09:00:00-04:00",
                                  "1997-09-08T09:00:00-04:00", "1997-09-09T09:00:00-04:00",
                                  "1997-09-10T09:00:00-04:00", "1997-09-11T09:00:00-04:00"}},
                    // UNTIL is an instant in UTC: 20:00 on the 6th in New York.
                    ExpansionRow{"WeeklyOnTuesdayAndThursdayUntil",
                                 "UTC",
                                 NY,
                                 "FREQ=WEEKLY;UNTIL=19971007T000000Z;WKST=SU;BYDAY=TU,TH",
                                 "1997-09-02T09:00:00",
                                 {},
                                 {"1997-09-02T09:00:00-04:00", "1997-09-04T09:00:00-04:00",
                                  "1997-09-09T09:00:00-04:00", "1997-09-11T09:00:00-04:00",
                                  "1997-09-16T09:00:00-04:00", "1997-09-18T09:00:00-04:00",
                                  "1997-09-23T09:00:00-04:00", "1997-09-25T09:00:00-04:00",
                                  "1997-09-30T09:00:00-04:00", "1997-10-02T09:00:00-04:00"}},
                    ExpansionRow{"MonthlyOnTheFirstFridayAcrossBothChanges",
                                 "UTC",
                                 NY,
                                 "FREQ=MONTHLY;COUNT=10;BYDAY=1FR",
                                 "1997-09-05T09:00:00",
                                 {},
                                 {"1997-09-05T09:00:00-04:00", "1997-10-03T09:00:00-04:00",
                                  "1997-11-07T09:00:00-05:00", "1997-12-05T09:00:00-05:00",
                                  "1998-01-02T09:00:00-05:00", "1998-02-06T09:00:00-05:00",
                                  "1998-03-06T09:00:00-05:00", "1998-04-03T09:00:00-05:00",
                                  "1998-05-01T09:00:00-04:00", "1998-06-05T09:00:00-04:00"}},
                    ExpansionRow{"EveryOtherWeekWithTheWeekStartingOnSunday",
                                 "UTC",
                                 NY,
                                 "FREQ=WEEKLY;INTERVAL=2;COUNT=4;BYDAY=TU,SU;WKST=SU",
                                 "1997-08-05T09:00:00",
                                 {},
                                 {"1997-08-05T09:00:00-04:00", "1997-08-17T09:00:00-04:00",
                                  "1997-08-19T09:00:00-04:00", "1997-08-31T09:00:00-04:00"}},
                    ExpansionRow{"FridayThe13thWithTheStartExcluded",
                                 "UTC",
                                 NY,
                                 "FREQ=MONTHLY;BYDAY=FR;BYMONTHDAY=13",
                                 "1997-09-02T09:00:00",
                                 {"1997-09-02T09:00:00"},
                                 {"1998-02-13T09:00:00-05:00", "1998-03-13T09:00:00-05:00",
                                  "1998-11-13T09:00:00-05:00", "1999-08-13T09:00:00-04:00",
                                  "2000-10-13T09:00:00-04:00"}},
                    ExpansionRow{"InvalidDatesAreIgnored",
                                 "UTC",
                                 NY,
                                 "FREQ=MONTHLY;BYMONTHDAY=15,30;COUNT=5",
                                 "2007-01-15T09:00:00",
                                 {},
                                 {"2007-01-15T09:00:00-05:00", "2007-01-30T09:00:00-05:00",
                                  "2007-02-15T09:00:00-05:00", "2007-03-15T09:00:00-04:00",
                                  "2007-03-30T09:00:00-04:00"}},
                    // Local time, both changes of 2027. In the gap the offset before it holds
                    // (02:30 is 03:30 summer time); in the fold the first of the two is taken.
                    ExpansionRow{"BerlinWeeklyStaysAtTenInSpring",
                                 "Europe/Berlin",
                                 "",
                                 "weekly",
                                 "2027-03-22T10:00:00",
                                 {},
                                 {"2027-03-22T10:00:00+01:00", "2027-03-29T10:00:00+02:00"}},
                    ExpansionRow{"BerlinDailyThroughTheGap",
                                 "Europe/Berlin",
                                 "",
                                 "FREQ=DAILY;COUNT=3",
                                 "2027-03-27T02:30:00",
                                 {},
                                 {"2027-03-27T02:30:00+01:00", "2027-03-28T03:30:00+02:00",
                                  "2027-03-29T02:30:00+02:00"}},
                    ExpansionRow{"BerlinFallBackTakesTheFirst",
                                 "Europe/Berlin",
                                 "",
                                 "FREQ=DAILY;COUNT=3",
                                 "2027-10-30T02:30:00",
                                 {},
                                 {"2027-10-30T02:30:00+02:00", "2027-10-31T02:30:00+02:00",
                                  "2027-11-01T02:30:00+01:00"}},
                    ExpansionRow{"NewYorkInTheGap",
                                 "America/New_York",
                                 "",
                                 "daily",
                                 "2027-03-13T02:30:00",
                                 {},
                                 {"2027-03-13T02:30:00-05:00", "2027-03-14T03:30:00-04:00",
                                  "2027-03-15T02:30:00-04:00"}},
                    ExpansionRow{"NewYorkSundayInTheFold",
                                 "America/New_York",
                                 "",
                                 "FREQ=WEEKLY;BYDAY=SU;COUNT=2",
                                 "2027-11-07T01:30:00",
                                 {},
                                 {"2027-11-07T01:30:00-04:00", "2027-11-14T01:30:00-05:00"}}),
    [](const testing::TestParamInfo<ExpansionRow>& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace Vexlor::ScheduleTool
