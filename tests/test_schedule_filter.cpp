#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "Scheduler/SchedulerImpl.h"
#include "fakes/FakeClock.h"
#include "fakes/FakeServices.h"
#include "fakes/LogCapture.h"

namespace Vexlor::QK {
namespace {

using Testing::AtMicros;

constexpr long long HOUR = 3600LL * 1000000;
const std::string WARNING_PREFIX =
    "Vexlor::QK::RecordTimeList Vexlor::QK::Scheduler::Impl::GetFilteredSchedule("
    "Vexlor::QK::RecordTimeList) const: Got tasks with similar start time. Number of tasks: ";

RecordTime At(long long micros, const char* title = "r", long long duration = 0) {
    RecordTime record;
    record.title = QString::fromLatin1(title);
    record.startTime = AtMicros(micros);
    record.duration = Time::Microseconds(duration);
    return record;
}

class ScheduleFilterTest : public testing::Test {
protected:
    const long long now = 10 * HOUR;
    std::shared_ptr<Testing::FakeClock> clock = std::make_shared<Testing::FakeClock>(AtMicros(now));
    Scheduler::Impl engine{std::make_shared<Testing::FakeSchedulerSettings>(),
                           std::make_shared<Testing::FakeUiSettings>(),
                           std::make_shared<Testing::FakeGateway>(),
                           std::make_shared<Testing::FakePowerManager>(),
                           clock,
                           std::make_shared<Testing::FakeTimer>()};
    Testing::LogCapture logs;

    std::vector<std::string> Warnings() const {
        std::vector<std::string> out;
        for (const auto& entry : logs.Entries()) {
            if (entry.severity == google::GLOG_WARNING) {
                out.push_back(entry.message);
            }
        }
        return out;
    }
};

TEST_F(ScheduleFilterTest, EmptyListGivesEmptyListNoWarningAndReadsTheClock) {
    EXPECT_TRUE(engine.GetFilteredSchedule({}).empty());
    EXPECT_TRUE(Warnings().empty());
    EXPECT_EQ(clock->reads, 1);
}

TEST_F(ScheduleFilterTest, SortsAscendingAndLeavesCallersListAlone) {
    const RecordTimeList input{At(now + 3 * HOUR, "c"), At(now + 2 * HOUR, "b"),
                               At(now + HOUR, "a")};
    const RecordTimeList copy = input;
    const RecordTimeList result = engine.GetFilteredSchedule(input);
    EXPECT_EQ(result, (RecordTimeList{input[2], input[1], input[0]}));
    EXPECT_EQ(input, copy);
    EXPECT_TRUE(Warnings().empty());
}

TEST_F(ScheduleFilterTest, CollapsesEqualStartsAndWarnsWithDroppedCount) {
    const RecordTimeList input{At(now + HOUR, "x", 5), At(now + 2 * HOUR, "eleven"),
                               At(now + HOUR, "y", 7), At(now + HOUR, "z", 9)};
    const RecordTimeList result = engine.GetFilteredSchedule(input);
    ASSERT_EQ(result.size(), 2u);
    EXPECT_EQ(result[0].startTime, AtMicros(now + HOUR));
    EXPECT_EQ(result[1].title, QStringLiteral("eleven"));
    // Exactly one of the three survives, whole.
    EXPECT_TRUE(result[0] == input[0] || result[0] == input[2] || result[0] == input[3]);
    EXPECT_EQ(Warnings(), std::vector<std::string>{WARNING_PREFIX + "2"});
}

struct BoundaryCase {
    const char* name;
    long long offsetFromNow;
    long long duration;
    bool kept;
};

class FilterBoundary : public ScheduleFilterTest,
                       public testing::WithParamInterface<BoundaryCase> {};

TEST_P(FilterBoundary, KeepsRecordsStartingNowOrLaterWhateverTheirDuration) {
    const auto& param = GetParam();
    const RecordTimeList result =
        engine.GetFilteredSchedule({At(now + param.offsetFromNow, "r", param.duration)});
    EXPECT_EQ(result.size(), param.kept ? 1u : 0u);
}

INSTANTIATE_TEST_SUITE_P(
    StartVersusNow, FilterBoundary,
    testing::Values(BoundaryCase{"startsNow", 0, 0, true},
                    BoundaryCase{"oneMicroLater", 1, 0, true},
                    BoundaryCase{"oneMicroEarlier", -1, 0, false},
                    BoundaryCase{"oneMicroEarlierStillRunning", -1, HOUR, false},
                    BoundaryCase{"farPast", -100 * HOUR, 0, false}),
    [](const testing::TestParamInfo<BoundaryCase>& info) { return info.param.name; });

TEST_F(ScheduleFilterTest, PastDuplicatesAreStillCountedAndLogged) {
    const RecordTimeList result = engine.GetFilteredSchedule(
        {At(now - 2 * HOUR, "a"), At(now - 2 * HOUR, "b"), At(now - HOUR, "c")});
    EXPECT_TRUE(result.empty());
    EXPECT_EQ(Warnings(), std::vector<std::string>{WARNING_PREFIX + "1"});
}

TEST_F(ScheduleFilterTest, ExtremeStartTimesSortAsSignedValues) {
    const long long max = std::numeric_limits<long long>::max();
    const long long min = std::numeric_limits<long long>::min();
    const RecordTimeList result =
        engine.GetFilteredSchedule({At(max, "max"), At(min, "min"), At(now, "now")});
    ASSERT_EQ(result.size(), 2u);
    EXPECT_EQ(result[0].title, QStringLiteral("now"));
    EXPECT_EQ(result[1].title, QStringLiteral("max"));
}

}  // namespace
}  // namespace Vexlor::QK
