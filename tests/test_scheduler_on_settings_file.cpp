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

using Testing::AtMicros;

constexpr long long NOW = 1'700'000'000'000'000;
constexpr long long MINUTE = 60'000'000;

RecordTime At(long long micros, const char* title) {
    RecordTime record;
    record.title = QString::fromUtf8(title);
    record.startTime = AtMicros(micros);
    record.duration = Time::Microseconds(MINUTE);
    record.tag = 3;
    record.mode = RecordMode::Mode2;
    return record;
}

// The scheduler against the real settings object on a real INI file; every read goes
// through a fresh manager on the same file, as another process would see it.
class SchedulerOnSettingsFile : public testing::Test {
protected:
    QTemporaryDir dir;
    QString path = dir.filePath(QStringLiteral("settings.ini"));
    std::shared_ptr<Testing::FakeClock> clock = std::make_shared<Testing::FakeClock>(AtMicros(NOW));
    std::shared_ptr<Testing::FakeTimer> timer = std::make_shared<Testing::FakeTimer>();

    std::shared_ptr<SchedulerSettings> OpenSettings() const {
        return std::make_shared<SchedulerSettings>(std::make_shared<App::IniSettingsManager>(path));
    }

    std::unique_ptr<Scheduler> MakeScheduler(const std::shared_ptr<SchedulerSettings>& settings) {
        return std::make_unique<Scheduler>(settings, std::make_shared<Testing::FakeUiSettings>(),
                                           std::make_shared<Testing::FakeGateway>(),
                                           std::make_shared<Testing::FakePowerManager>(), clock,
                                           timer);
    }
};

TEST_F(SchedulerOnSettingsFile, ConstructionStoresOnlyFutureRecordsWithDistinctStarts) {
    {
        auto settings = OpenSettings();
        settings->SetSchedule({At(NOW + 2 * MINUTE, "later"), At(NOW - MINUTE, "past"),
                               At(NOW + MINUTE, "first"), At(NOW + MINUTE, "same start")});
        settings->SetSchedulerEnabled(true);
    }
    auto scheduler = MakeScheduler(OpenSettings());
    EXPECT_TRUE(scheduler->IsEnabled());
    EXPECT_EQ(timer->armed.size(), 1u);

    const RecordTimeList stored = OpenSettings()->GetSchedule();
    ASSERT_EQ(stored.size(), 2u);
    EXPECT_EQ(stored[0].startTime, AtMicros(NOW + MINUTE));
    EXPECT_EQ(stored[1], At(NOW + 2 * MINUTE, "later"));
    EXPECT_TRUE(OpenSettings()->IsSchedulerEnabled());
}

TEST_F(SchedulerOnSettingsFile, ScheduleSetThroughTheSchedulerPersistsAcrossObjects) {
    const RecordTimeList schedule{At(NOW + 5 * MINUTE, "Zweite"), At(NOW + MINUTE, "Première")};
    {
        auto scheduler = MakeScheduler(OpenSettings());
        scheduler->SetSchedule(schedule);
        scheduler->SetEnabled(true);
    }
    auto settings = OpenSettings();
    EXPECT_EQ(settings->GetSchedule(), (RecordTimeList{schedule[1], schedule[0]}));
    EXPECT_TRUE(settings->IsSchedulerEnabled());

    // A later run picks the schedule up again, and the record that is due goes out.
    auto scheduler = MakeScheduler(settings);
    EXPECT_EQ(scheduler->GetSchedule().size(), 2u);
    clock->Set(AtMicros(NOW + MINUTE));
    ASSERT_TRUE(timer->Fire());
    EXPECT_EQ(OpenSettings()->GetSchedule(), RecordTimeList{schedule[0]});
}

TEST_F(SchedulerOnSettingsFile, EveryRecordPastSwitchesTheStoredFlagOff) {
    {
        auto settings = OpenSettings();
        settings->SetSchedule({At(NOW - 2 * MINUTE, "gone"), At(NOW - MINUTE, "also gone")});
        settings->SetSchedulerEnabled(true);
    }
    auto scheduler = MakeScheduler(OpenSettings());
    EXPECT_FALSE(scheduler->IsEnabled());
    EXPECT_TRUE(OpenSettings()->GetSchedule().empty());
    EXPECT_FALSE(OpenSettings()->IsSchedulerEnabled());
}

}  // namespace
}  // namespace Vexlor::QK
