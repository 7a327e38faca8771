#include <limits>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "Scheduler/SchedulerImpl.h"
#include "fakes/FakeClock.h"
#include "fakes/FakeServices.h"
#include "fakes/LogCapture.h"

namespace Vexlor::QK {
namespace {

constexpr long long HOUR = 3600LL * 1000000;
constexpr long long NOW = 10 * HOUR;
const std::string WARNING_PREFIX =
    "Vexlor::QK::RecordTimeList Vexlor::QK::Scheduler::Impl::GetFilteredSchedule("
    "Vexlor::QK::RecordTimeList) const: Got tasks with similar start time. Number of tasks: ";

RecordTime At(long long micros, const char* title = "r", long long duration = 0) {
    RecordTime record;
    record.title = QString::fromLatin1(title);
    record.startTime = Testing::AtMicros(micros);
    record.duration = Time::Microseconds(duration);
    return record;
}

class ScheduleFilterTest : public testing::Test {
protected:
    std::shared_ptr<Testing::FakeClock> clock =
        std::make_shared<Testing::FakeClock>(Testing::AtMicros(NOW));
    Scheduler::Impl engine{std::make_shared<Testing::FakeSchedulerSettings>(),
                           std::make_shared<Testing::FakeUiSettings>(),
                           std::make_shared<Testing::FakeGateway>(),
                           std::make_shared<Testing::FakePowerManager>(),
                           clock,
                           std::make_shared<Testing::FakeTimer>()};
    Testing::LogCapture logs;

    std::vector<std::string> Warnings() const {
        std::vector<std::string> out;
        for (const std::string& entry : logs.entries) {
            if (entry.rfind("WARNING: ", 0) == 0) {
                out.push_back(entry.substr(9));
            }
        }
        return out;
    }
};

TEST_F(ScheduleFilterTest, SortsKeepsFromNowOnAndLeavesTheCallersListAlone) {
    const RecordTimeList input{At(NOW + 3 * HOUR, "c"), At(NOW - 1, "started", HOUR),
                               At(NOW + 1, "b"), At(NOW, "now"),
                               At(std::numeric_limits<long long>::min(), "min")};
    const RecordTimeList copy = input;
    EXPECT_EQ(engine.GetFilteredSchedule(input), (RecordTimeList{input[3], input[2], input[0]}));
    EXPECT_EQ(input, copy);
    EXPECT_TRUE(Warnings().empty());
    EXPECT_EQ(clock->reads, 1);
}

TEST_F(ScheduleFilterTest, CollapsesEqualStartsAndWarnsWithTheDroppedCount) {
    const RecordTimeList input{At(NOW + HOUR, "x", 5), At(NOW + 2 * HOUR, "eleven"),
                               At(NOW + HOUR, "y", 7), At(NOW + HOUR, "z", 9)};
    const RecordTimeList result = engine.GetFilteredSchedule(input);
    ASSERT_EQ(result.size(), 2u);
    EXPECT_TRUE(result[0] == input[0] || result[0] == input[2] || result[0] == input[3]);
    EXPECT_EQ(result[1], input[1]);
    EXPECT_EQ(Warnings(), std::vector<std::string>{WARNING_PREFIX + "2"});
}

TEST_F(ScheduleFilterTest, PastDuplicatesAreStillCountedAndEmptyInputIsQuiet) {
    EXPECT_TRUE(engine.GetFilteredSchedule({}).empty());
    EXPECT_TRUE(Warnings().empty());
    EXPECT_TRUE(
        engine.GetFilteredSchedule({At(NOW - 2 * HOUR, "a"), At(NOW - 2 * HOUR, "b")}).empty());
    EXPECT_EQ(Warnings(), std::vector<std::string>{WARNING_PREFIX + "1"});
}

}  // namespace
}  // namespace Vexlor::QK
