#include <gtest/gtest.h>

#include <limits>

#include "schedule/Edits.h"
#include "schedule/RunPolicy.h"
#include "store/Protocol.h"

// The edits themselves, on states held in memory: the same code serves a lone edit on the
// file and the active run.
namespace Vexlor::ScheduleTool {
namespace {

using Time::Microseconds;
using Time::TimePoint;
constexpr long long SECOND = 1000000;
const TimePoint NOW = Time::SystemClock().Now();

QK::RecordTime Record(const char* title, long long startFromNowS, long long durationS) {
    return {QString::fromUtf8(title), NOW + Microseconds(startFromNowS * SECOND),
            Microseconds(durationS * SECOND)};
}

EditRequest AddOf(const QK::RecordTime& record, bool allowOverlap = false, bool enable = false) {
    EditRequest request;
    request.command = CommandName::Add;
    request.record = record;
    request.allowOverlap = allowOverlap;
    request.enable = enable;
    return request;
}

struct AddRow {
    const char* name;
    EditRequest request;
    bool recording;  // "Live" is being captured, 0 to 600 s from now
    int exitCode;
    const char* said;  // in the last line of out (accepted) or err (refused)
};

void PrintTo(const AddRow& row, std::ostream* out) {
    *out << row.name;
}

class AddTest : public testing::TestWithParam<AddRow> {};

// The schedule holds "Planned", one hour ahead for 30 min; scheduling is off until an add
// switches it on.
TEST_P(AddTest, RefusesWhatCouldNotRunAndSaysWhatItDid) {
    const ScheduleState state{{Record("Planned", 3600, 1800)}, false};
    EditContext context{NOW, std::nullopt, std::nullopt};
    if (GetParam().recording) {
        context.recording = Record("Live", 0, 600);
    }
    const EditOutcome outcome = ApplyEdit(state, GetParam().request, context);
    EXPECT_EQ(outcome.exitCode, GetParam().exitCode) << outcome.err.toStdString();
    const QString& text = outcome.exitCode == EXIT_DONE ? outcome.out : outcome.err;
    EXPECT_TRUE(text.trimmed().section('\n', -1).contains(GetParam().said)) << text.toStdString();
    EXPECT_EQ(outcome.changed.has_value(), outcome.exitCode == EXIT_DONE);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, AddTest,
    testing::Values(
        AddRow{"TitleOfTheRunningCapture", AddOf(Record("Live", 9000, 60)), true, 1,
               "being recorded now"},
        // The scheduler keeps one record per start time: the second would vanish unrun.
        AddRow{"SameStartEvenWithAllowOverlap", AddOf(Record("Twin", 3600, 60), true), false, 1,
               "same moment"},
        AddRow{"OverlapsTheRunningCapture", AddOf(Record("New", 300, 60)), true, 1,
               "being recorded now"},
        AddRow{"OverlapAllowed", AddOf(Record("Beside", 4000, 60), true, true), false, 0, "added"},
        // Spans are [start, end): back to back is no overlap, a second more is.
        AddRow{"StartsAsPlannedEnds", AddOf(Record("After", 5400, 60), false, true), false, 0,
               "added"},
        AddRow{"EndsAsPlannedStarts", AddOf(Record("Before", 3540, 60), false, true), false, 0,
               "added"},
        AddRow{"OverlapsByASecond", AddOf(Record("Into", 5399, 60)), false, 1, "overlaps"},
        AddRow{"BegunIsAccepted", AddOf(Record("Begun", -300, 3600), true, true), false, 0,
               "it has begun"},
        AddRow{"OffIsSaid", AddOf(Record("New", 9000, 60)), false, 0, "scheduling is off"}),
    [](const testing::TestParamInfo<AddRow>& info) { return std::string(info.param.name); });

TEST(EditTest, RemoveTakesOnlyThatTitleAndRefusesAnUnknownOne) {
    const ScheduleState state{{Record("A", 60, 10), Record("B", 120, 10), Record("C", 180, 10)},
                              true};
    EditRequest remove;
    remove.command = CommandName::Remove;
    remove.title = QStringLiteral("B");
    const EditOutcome removed = ApplyEdit(state, remove, {NOW, std::nullopt, std::nullopt});
    ASSERT_TRUE(removed.changed);
    EXPECT_EQ(removed.changed->schedule,
              (QK::RecordTimeList{Record("A", 60, 10), Record("C", 180, 10)}));
    EXPECT_TRUE(removed.changed->enabled);

    remove.title = QStringLiteral("b");
    const EditOutcome refused = ApplyEdit(state, remove, {NOW, std::nullopt, std::nullopt});
    EXPECT_EQ(refused.exitCode, EXIT_REFUSED);
    EXPECT_FALSE(refused.changed);
}

TEST(EditTest, RequestsAndAnswersCrossTheSocketUnchanged) {
    QK::RecordTime extreme = Record("\"quoted\"\n$(x) \u00e9", 0, 0);
    extreme.startTime = TimePoint(Microseconds(std::numeric_limits<long long>::max()));
    extreme.duration = Microseconds(std::numeric_limits<long long>::min());
    extreme.tag = -7;
    extreme.mode = QK::RecordMode::Mode2;
    const EditRequest sent = AddOf(extreme, true, true);
    const auto received = DecodeRequest(EncodeRequest(sent));
    ASSERT_TRUE(received);
    EXPECT_EQ(received->record, sent.record);
    EXPECT_TRUE(received->allowOverlap);
    EXPECT_TRUE(received->enable);

    for (const char* garbage : {"", "{}", "[1]", "{\"command\":99}", "not json"}) {
        EXPECT_FALSE(DecodeRequest(garbage)) << garbage;
        EXPECT_FALSE(DecodeOutcome(garbage)) << garbage;
    }
}

TEST(CatchUpTest, StartsWhatIsUnderWayKeepingItsEndAndLeavesTheRest) {
    const Microseconds margin(20000);
    const TimePoint start = NOW + margin;
    // In their start order; the scheduler keeps one record per start time, so one apart.
    const QK::RecordTime begun{QStringLiteral("Begun"), start,
                               Microseconds(3300 * SECOND) - margin};
    const QK::RecordTime open{QStringLiteral("Open"), start + Microseconds(1), Microseconds(0)};
    EXPECT_EQ(
        CatchUp({Record("Future", 60, 10), Record("Open", -30, 0), Record("Begun", -300, 3600),
                 Record("Over", -400, 60)},
                NOW, margin),
        (QK::RecordTimeList{Record("Over", -400, 60), begun, open, Record("Future", 60, 10)}));
}

}  // namespace
}  // namespace Vexlor::ScheduleTool
