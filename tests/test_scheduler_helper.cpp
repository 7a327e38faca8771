#include <limits>

#include <gtest/gtest.h>
#include <QStringList>

#include "Scheduler/SchedulerHelper.h"
#include "fakes/FakeClock.h"
#include "testing/SystemClockPin.h"

namespace Vexlor::QK {
namespace {

constexpr long long SECOND = 1000000, HOUR = 3600 * SECOND, DAY = 20000LL * 24 * HOUR;
constexpr long long NOW = DAY + 8 * HOUR, H10 = DAY + 10 * HOUR, H11 = DAY + 11 * HOUR;

RecordTime Rec(const char* title, long long start, long long duration = HOUR) {
    return {title, Testing::AtMicros(start), Time::Microseconds(duration), 7, RecordMode::Mode2};
}

QString Titles(const RecordTimeList& list) {
    QStringList titles;
    for (const RecordTime& record : list) {
        titles << record.title;
    }
    return titles.join(", ");
}

class SchedulerHelperTest : public testing::Test {
protected:
    SchedulerHelperTest() { Testing::PinSystemClock(Testing::AtMicros(NOW)); }
    ~SchedulerHelperTest() override { Testing::UnpinSystemClock(); }
    SchedulerHelper editor;
};

TEST_F(SchedulerHelperTest, InsertsAtTheLowerBoundInFrontOfEqualStarts) {
    EXPECT_EQ(editor.AddRecord(Rec("10:00", H10)), 0);
    EXPECT_EQ(editor.AddRecord(Rec("09:00", H10 - HOUR)), 0);
    EXPECT_EQ(editor.AddRecord(Rec("11:00", H11)), 2);
    EXPECT_EQ(editor.AddRecord(Rec("10:00 b", H10)), 1);
    EXPECT_EQ(Titles(editor.GetPreparedSchedule()), "09:00, 10:00 b, 10:00, 11:00");
}

TEST_F(SchedulerHelperTest, RefusesOnlyRecordsWhoseEndLiesBeforeNow) {
    editor.AddRecord(Rec("later", NOW + HOUR));
    EXPECT_EQ(editor.AddRecord(Rec("ended 1 us ago", NOW - HOUR - 1)), -1);
    EXPECT_EQ(editor.AddRecord(Rec("ends now", NOW - HOUR)), 0);
    EXPECT_EQ(editor.AddRecord(Rec("no end a year ago", NOW - 365 * 24 * HOUR, 0)), 0);
    EXPECT_EQ(editor.AddRecord(Rec("negative duration", NOW, -1)), -1);
    const long long max = std::numeric_limits<long long>::max();
    EXPECT_EQ(editor.AddRecord(Rec("end saturates", max - SECOND, HOUR)), 3);
    EXPECT_EQ(Titles(editor.GetPreparedSchedule()),
              "no end a year ago, ends now, later, end saturates");
}

TEST_F(SchedulerHelperTest, SpansAreClosedIntervals) {
    editor.AddRecord(Rec("10:00 to 11:00", H10));
    editor.AddRecord(Rec("earlier", NOW, HOUR / 2));  // does not meet any candidate
    EXPECT_TRUE(editor.DoesCaptureTimeIntersected(Rec("from its end", H11, HOUR)));
    EXPECT_FALSE(editor.DoesCaptureTimeIntersected(Rec("just after", H11 + 1, HOUR)));
    EXPECT_TRUE(editor.DoesCaptureTimeIntersected(Rec("to its start", H10 - HOUR, HOUR)));
    EXPECT_FALSE(editor.DoesCaptureTimeIntersected(Rec("just before", H10 - HOUR, HOUR - 1)));
    EXPECT_TRUE(editor.DoesCaptureTimeIntersected(Rec("instant inside", H10 + 1, 0)));
}

// Titles compare exactly, in the test as in the removal.
TEST_F(SchedulerHelperTest, RemovesEveryMatchKeepsTheOrderAndLeavesCopiesAlone) {
    long long hour = 9;
    for (const char* title : {"a", "x", "b", "x", "X", "c"}) {
        editor.AddRecord(Rec(title, DAY + hour++ * HOUR));
    }
    const RecordTimeList taken = editor.GetPreparedSchedule();
    editor.RemoveRecord("x");
    EXPECT_EQ(Titles(editor.GetPreparedSchedule()), "a, b, X, c");
    EXPECT_EQ(Titles(taken), "a, x, b, x, X, c");
    EXPECT_TRUE(editor.DoesTitleAlreadyExists("X"));
    EXPECT_FALSE(editor.DoesTitleAlreadyExists("x"));
    EXPECT_FALSE(editor.DoesTitleAlreadyExists("c "));
}

}  // namespace
}  // namespace Vexlor::QK
