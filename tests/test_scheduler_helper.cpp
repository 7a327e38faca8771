#include <limits>
#include <vector>

#include <gtest/gtest.h>

#include "Scheduler/SchedulerHelper.h"
#include "fakes/FakeClock.h"
#include "fakes/WallClock.h"

namespace Vexlor::QK {
namespace {

using Testing::AtMicros;

constexpr long long SECOND = 1000000;
constexpr long long HOUR = 3600 * SECOND;
constexpr long long MAX = std::numeric_limits<long long>::max();
// Midnight of some day; "now" is 08:00 of it.
constexpr long long DAY = 20000LL * 24 * HOUR;
constexpr long long NOW = DAY + 8 * HOUR;

RecordTime Rec(const char* title, long long start, long long duration = HOUR, int tag = 0) {
    RecordTime record;
    record.title = QString::fromUtf8(title);
    record.startTime = AtMicros(start);
    record.duration = Time::Microseconds(duration);
    record.tag = tag;
    record.mode = RecordMode::Mode2;
    return record;
}

std::vector<QString> Titles(const RecordTimeList& list) {
    std::vector<QString> titles;
    for (const auto& record : list) {
        titles.push_back(record.title);
    }
    return titles;
}

class SchedulerHelperTest : public testing::Test {
protected:
    Testing::ScopedFixedNow now{AtMicros(NOW)};
    SchedulerHelper editor;
};

TEST_F(SchedulerHelperTest, NewEditorIsEmptyAndAnswersNo) {
    EXPECT_EQ(editor.GetRecordCount(), 0u);
    EXPECT_TRUE(editor.GetPreparedSchedule().empty());
    EXPECT_FALSE(editor.DoesCaptureTimeIntersected(Rec("a", NOW)));
    EXPECT_FALSE(editor.DoesTitleAlreadyExists(QString()));
    editor.RemoveRecord(QString());
    editor.ClearSchedule();
    EXPECT_EQ(editor.GetRecordCount(), 0u);
    EXPECT_EQ(editor.AddRecord(Rec("a", NOW + HOUR)), 0);
}

TEST_F(SchedulerHelperTest, InsertsAtLowerBoundInFrontOfEqualStarts) {
    EXPECT_EQ(editor.AddRecord(Rec("ten", DAY + 10 * HOUR)), 0);
    EXPECT_EQ(editor.AddRecord(Rec("nine", DAY + 9 * HOUR)), 0);
    EXPECT_EQ(editor.AddRecord(Rec("eleven", DAY + 11 * HOUR)), 2);
    EXPECT_EQ(Titles(editor.GetPreparedSchedule()),
              (std::vector<QString>{"nine", "ten", "eleven"}));

    EXPECT_EQ(editor.AddRecord(Rec("ten-b", DAY + 10 * HOUR)), 1);
    const RecordTime newest = Rec("ten-c", DAY + 10 * HOUR, 5 * SECOND, 42);
    EXPECT_EQ(editor.AddRecord(newest), 1);
    const RecordTimeList list = editor.GetPreparedSchedule();
    EXPECT_EQ(Titles(list), (std::vector<QString>{"nine", "ten-c", "ten-b", "ten", "eleven"}));
    EXPECT_EQ(list[1], newest);  // all five fields kept
    EXPECT_EQ(editor.GetRecordCount(), 5u);
}

struct RefusalCase {
    const char* name;
    long long start;
    long long duration;
    bool accepted;
};

void PrintTo(const RefusalCase& c, std::ostream* os) {
    *os << c.name;
}

class RefusalTest : public SchedulerHelperTest, public testing::WithParamInterface<RefusalCase> {};

TEST_P(RefusalTest, RefusesOnlyRecordsWhoseEndLiesBeforeNow) {
    ASSERT_EQ(editor.AddRecord(Rec("kept", NOW + HOUR)), 0);
    const RecordTimeList before = editor.GetPreparedSchedule();
    const int position = editor.AddRecord(Rec("new", GetParam().start, GetParam().duration));
    if (GetParam().accepted) {
        EXPECT_GE(position, 0);
        EXPECT_EQ(editor.GetRecordCount(), 2u);
    } else {
        EXPECT_EQ(position, -1);
        EXPECT_EQ(editor.GetPreparedSchedule(), before);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Ends, RefusalTest,
    testing::Values(RefusalCase{"EndedOneMicrosecondAgo", NOW - 60 * SECOND - 1, 60 * SECOND,
                                false},
                    RefusalCase{"EndsExactlyNow", NOW - 60 * SECOND, 60 * SECOND, true},
                    RefusalCase{"StartedButNotEnded", NOW - 30 * SECOND, 60 * SECOND, true},
                    RefusalCase{"NoPlannedEndYearAgo", NOW - 365 * 24 * HOUR, 0, true},
                    RefusalCase{"NegativeDurationEndingBeforeNow", NOW, -1, false},
                    RefusalCase{"EndBeyondInt64Saturates", MAX - SECOND, HOUR, true}),
    [](const testing::TestParamInfo<RefusalCase>& info) { return info.param.name; });

TEST_F(SchedulerHelperTest, ZeroDurationFromAYearAgoLandsAtTheFront) {
    editor.AddRecord(Rec("later", NOW + HOUR));
    EXPECT_EQ(editor.AddRecord(Rec("old", NOW - 365 * 24 * HOUR, 0)), 0);
    EXPECT_EQ(Titles(editor.GetPreparedSchedule()), (std::vector<QString>{"old", "later"}));
}

struct OverlapCase {
    const char* name;
    long long existingStart, existingDuration;
    long long start, duration;
    bool overlaps;
};

void PrintTo(const OverlapCase& c, std::ostream* os) {
    *os << c.name;
}

class OverlapTest : public SchedulerHelperTest, public testing::WithParamInterface<OverlapCase> {};

TEST_P(OverlapTest, SpansAreClosedIntervals) {
    const OverlapCase& c = GetParam();
    editor.AddRecord(Rec("other", DAY + 20 * HOUR));  // far away, never meets
    editor.AddRecord(Rec("existing", c.existingStart, c.existingDuration));
    EXPECT_EQ(editor.DoesCaptureTimeIntersected(Rec("candidate", c.start, c.duration)), c.overlaps);
}

constexpr long long H10 = DAY + 10 * HOUR;
constexpr long long H11 = DAY + 11 * HOUR;
INSTANTIATE_TEST_SUITE_P(
    Spans, OverlapTest,
    testing::Values(
        OverlapCase{"StartsAtExistingEnd", H10, HOUR, H11, HOUR / 2, true},
        OverlapCase{"StartsJustAfterExistingEnd", H10, HOUR, H11 + 1, HOUR / 2 - 1, false},
        OverlapCase{"EndsAtExistingStart", H10, HOUR, H10 - HOUR, HOUR, true},
        OverlapCase{"EndsJustBeforeExistingStart", H10, HOUR, H10 - HOUR, HOUR - 1, false},
        OverlapCase{"InstantInside", H10, HOUR, H10 + HOUR / 2, 0, true},
        OverlapCase{"InstantAfter", H10, HOUR, H11 + 1, 0, false},
        OverlapCase{"ExistingInstantAtCandidateEnd", H10, 0, H10 - HOUR, HOUR, true},
        OverlapCase{"EndBeyondInt64Saturates", MAX - HOUR, 2 * HOUR, MAX - HOUR / 2, 0, true}),
    [](const testing::TestParamInfo<OverlapCase>& info) { return info.param.name; });

TEST_F(SchedulerHelperTest, TitlesCompareExactly) {
    editor.AddRecord(Rec("Morning show", NOW + HOUR));
    editor.AddRecord(Rec("", NOW + 2 * HOUR));
    EXPECT_TRUE(editor.DoesTitleAlreadyExists("Morning show"));
    EXPECT_FALSE(editor.DoesTitleAlreadyExists("morning show"));
    EXPECT_FALSE(editor.DoesTitleAlreadyExists("Morning show "));
    EXPECT_FALSE(editor.DoesTitleAlreadyExists("Morning"));
    EXPECT_TRUE(editor.DoesTitleAlreadyExists(QString()));  // null equals empty
}

TEST_F(SchedulerHelperTest, RemoveTakesEveryMatchAndKeepsTheOrderOfTheRest) {
    for (const auto& [title, hour] : std::vector<std::pair<const char*, long long>>{
             {"a", 9}, {"x", 10}, {"b", 11}, {"x", 12}, {"c", 13}}) {
        editor.AddRecord(Rec(title, DAY + hour * HOUR));
    }
    editor.RemoveRecord("x");
    EXPECT_EQ(Titles(editor.GetPreparedSchedule()), (std::vector<QString>{"a", "b", "c"}));
    editor.RemoveRecord("X");
    EXPECT_EQ(editor.GetRecordCount(), 3u);

    editor.ClearSchedule();
    EXPECT_EQ(editor.GetRecordCount(), 0u);
    EXPECT_FALSE(editor.DoesTitleAlreadyExists("a"));
    EXPECT_EQ(editor.AddRecord(Rec("again", DAY + 23 * HOUR)), 0);
}

TEST_F(SchedulerHelperTest, PreparedScheduleIsACopy) {
    editor.AddRecord(Rec("a", NOW + HOUR));
    const RecordTimeList taken = editor.GetPreparedSchedule();
    editor.AddRecord(Rec("b", NOW + 2 * HOUR));
    editor.RemoveRecord("a");
    ASSERT_EQ(taken.size(), 1u);
    EXPECT_EQ(taken[0].title, QStringLiteral("a"));
}

}  // namespace
}  // namespace Vexlor::QK
