#include <memory>

#include <gtest/gtest.h>
#include <QTemporaryDir>

#include "Scheduler/Scheduler.h"
#include "Scheduler/SchedulerSettings.h"
#include "fakes/FakeClock.h"
#include "fakes/FakeServices.h"
#include "platform/IniSettingsManager.h"

namespace Vexlor::QK {
namespace {

using namespace Testing;

constexpr long long NOW = 1'700'000'000'000'000, MINUTE = 60'000'000;

RecordTime Rec(long long start, const char* title) {
    return {QString::fromUtf8(title), AtMicros(start), Time::Microseconds(MINUTE), 3,
            RecordMode::Mode2};
}

// The scheduler against the real settings object on a real INI file; every read goes
// through a fresh manager on the same file, as another process would see it.
class SchedulerOnSettingsFile : public testing::Test {
protected:
    std::shared_ptr<SchedulerSettings> Open() const {
        return std::make_shared<SchedulerSettings>(
            std::make_shared<App::IniSettingsManager>(dir.filePath("settings.ini")));
    }
    std::unique_ptr<Scheduler> Make() {
        return std::make_unique<Scheduler>(Open(), std::make_shared<FakeUiSettings>(),
                                           std::make_shared<FakeGateway>(),
                                           std::make_shared<FakePowerManager>(), clock, timer);
    }

    QTemporaryDir dir;
    std::shared_ptr<FakeClock> clock = std::make_shared<FakeClock>(AtMicros(NOW));
    std::shared_ptr<FakeTimer> timer = std::make_shared<FakeTimer>();
};

TEST_F(SchedulerOnSettingsFile, StoresOnlyFutureDistinctRecordsAndPersistsWhatIsSet) {
    Open()->SetSchedule({Rec(NOW + 2 * MINUTE, "later"), Rec(NOW - MINUTE, "past"),
                         Rec(NOW + MINUTE, "first"), Rec(NOW + MINUTE, "same start")});
    Open()->SetSchedulerEnabled(true);
    auto scheduler = Make();
    const RecordTimeList stored = Open()->GetSchedule();
    ASSERT_EQ(stored.size(), 2u);
    EXPECT_EQ(stored[0].startTime, AtMicros(NOW + MINUTE));
    EXPECT_EQ(stored[1], Rec(NOW + 2 * MINUTE, "later"));
    EXPECT_TRUE(Open()->IsSchedulerEnabled());

    const RecordTimeList set{Rec(NOW + 5 * MINUTE, "Zweite"), Rec(NOW + 3 * MINUTE, "Première")};
    scheduler->SetSchedule(set);
    scheduler.reset();
    EXPECT_EQ(Open()->GetSchedule(), (RecordTimeList{set[1], set[0]}));
}

}  // namespace
}  // namespace Vexlor::QK
