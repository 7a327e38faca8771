#include <memory>
#include <stdexcept>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Scheduler/SchedulerSettings.h"
#include "fakes/CountingSettingsManager.h"
#include "fakes/RecordingRegistry.h"
#include "settings/ByteArrayConverter.h"

namespace Vexlor::QK {
namespace {

using testing::_;
using Testing::CountingSettingsManager;
using testing::StrictMock;

const char* const ENABLED_KEY = "QK/Scheduler/scheduler_enabled";
const char* const SCHEDULE_KEY = "QK/Scheduler/schedule";

class MockScheduleObserver : public ICaptureSchedulerSettingsObserver {
public:
    MOCK_METHOD(void, OnSchedulerEnabledChanged, (bool), (override));
    MOCK_METHOD(void, OnScheduleChanged, (const RecordTimeList&), (override));
};

class MockLimitObserver : public ICaptureDurationLimitSettingsObserver {
public:
    MOCK_METHOD(void, OnDurationLimitEnabledChanged, (bool), (override));
    MOCK_METHOD(void, OnDurationLimitChanged, (const Time::Microseconds&), (override));
};

RecordTimeList Schedule(int tag) {
    RecordTime record;
    record.title = "Meeting";
    record.startTime = Time::TimePoint(Time::Microseconds(1700000000000000));
    record.duration = Time::Microseconds(60000000);
    record.tag = tag;
    return {record};
}

class SchedulerSettingsTest : public testing::Test {
protected:
    SchedulerSettingsTest() {
        settings.RegisterEventHandler(&scheduleObserver);
        settings.RegisterEventHandler(&limitObserver);
    }

    std::shared_ptr<CountingSettingsManager> manager = std::make_shared<CountingSettingsManager>();
    SchedulerSettings settings{manager};
    StrictMock<MockScheduleObserver> scheduleObserver;
    StrictMock<MockLimitObserver> limitObserver;
};

TEST_F(SchedulerSettingsTest, DefaultsWithNothingStored) {
    EXPECT_FALSE(settings.IsSchedulerEnabled());
    EXPECT_TRUE(settings.GetSchedule().empty());
    EXPECT_FALSE(settings.IsDurationLimitEnabled());
    EXPECT_EQ(settings.GetDurationLimit(), Time::Microseconds(120000000));
}

TEST_F(SchedulerSettingsTest, SettingWhatIsAlreadyThereWritesAndTellsNothing) {
    settings.SetSchedulerEnabled(false);
    settings.SetSchedule({});
    settings.SetDurationLimitEnabled(false);
    settings.SetDurationLimit(Time::Microseconds(120000000));
    EXPECT_EQ(manager->writes(), 0);
}

TEST_F(SchedulerSettingsTest, EnabledFlagIsStoredUnderItsKeyAndAnnouncedOnce) {
    EXPECT_CALL(scheduleObserver, OnSchedulerEnabledChanged(true));
    settings.SetSchedulerEnabled(true);
    settings.SetSchedulerEnabled(true);
    EXPECT_EQ(manager->bools, (std::map<std::string, bool>{{ENABLED_KEY, true}}));
    EXPECT_EQ(manager->boolWrites, 1);
}

TEST_F(SchedulerSettingsTest, ScheduleIsAnnouncedOnlyWhenAFieldChanged) {
    EXPECT_CALL(scheduleObserver, OnScheduleChanged(Schedule(1)));
    EXPECT_CALL(scheduleObserver, OnScheduleChanged(Schedule(2)));
    settings.SetSchedule(Schedule(1));
    settings.SetSchedule(Schedule(1));
    settings.SetSchedule(Schedule(2));
    EXPECT_EQ(manager->bytes.at(SCHEDULE_KEY),
              App::ByteArrayConverter<RecordTimeList>()(Schedule(2)));
}

TEST_F(SchedulerSettingsTest, DurationLimitIsAnnouncedToItsObserversOnly) {
    EXPECT_CALL(limitObserver, OnDurationLimitChanged(Time::Microseconds(60000000)));
    EXPECT_CALL(limitObserver, OnDurationLimitEnabledChanged(true));
    settings.SetDurationLimit(Time::Microseconds(60000000));
    settings.SetDurationLimit(Time::Microseconds(60000000));
    settings.SetDurationLimitEnabled(true);
    EXPECT_EQ(settings.GetDurationLimit(), Time::Microseconds(60000000));
    EXPECT_TRUE(settings.IsDurationLimitEnabled());
    EXPECT_EQ(manager->writes(), 0);
}

TEST_F(SchedulerSettingsTest, ObserverReadingDuringNotificationSeesTheNewSchedule) {
    RecordTimeList seen;
    EXPECT_CALL(scheduleObserver, OnScheduleChanged(_)).WillOnce([&](const RecordTimeList&) {
        seen = settings.GetSchedule();
    });
    settings.SetSchedule(Schedule(3));
    EXPECT_EQ(seen, Schedule(3));
}

TEST_F(SchedulerSettingsTest, NegativeStoredCountFailsSetScheduleWithoutWriting) {
    manager->bytes[SCHEDULE_KEY] = {0xFF, 0xFF, 0xFF, 0xFF};
    EXPECT_THROW(settings.GetSchedule(), std::length_error);
    EXPECT_THROW(settings.SetSchedule(Schedule(1)), std::length_error);
    EXPECT_EQ(manager->writes(), 0);
}

TEST_F(SchedulerSettingsTest, NewObjectKeepsStoredValuesButResetsTheDurationLimit) {
    EXPECT_CALL(scheduleObserver, OnSchedulerEnabledChanged(true));
    EXPECT_CALL(scheduleObserver, OnScheduleChanged(Schedule(4)));
    EXPECT_CALL(limitObserver, OnDurationLimitEnabledChanged(true));
    EXPECT_CALL(limitObserver, OnDurationLimitChanged(_));
    settings.SetSchedulerEnabled(true);
    settings.SetSchedule(Schedule(4));
    settings.SetDurationLimitEnabled(true);
    settings.SetDurationLimit(Time::Microseconds(1));

    SchedulerSettings again(manager);
    EXPECT_TRUE(again.IsSchedulerEnabled());
    EXPECT_EQ(again.GetSchedule(), Schedule(4));
    EXPECT_FALSE(again.IsDurationLimitEnabled());
    EXPECT_EQ(again.GetDurationLimit(), Time::Microseconds(120000000));
}

TEST(SchedulerSettingsRegistry, PublishesBothInterfacesAndWithdrawsInReverse) {
    Testing::RecordingRegistry registry;
    void* limitPart = nullptr;
    void* schedulePart = nullptr;
    {
        SchedulerSettings settings(std::make_shared<CountingSettingsManager>());
        limitPart = static_cast<ICaptureDurationLimitSettings*>(&settings);
        schedulePart = static_cast<ICaptureSchedulerSettings*>(&settings);
        EXPECT_EQ(registry.Find<ICaptureSchedulerSettings>(), &settings);
    }
    ASSERT_NE(limitPart, schedulePart);
    ASSERT_EQ(registry.calls.size(), 4u);
    const std::vector<std::pair<std::string, void*>> expected{
        {"Vexlor::QK::ICaptureDurationLimitSettings", limitPart},
        {"Vexlor::QK::ICaptureSchedulerSettings", schedulePart},
        {"Vexlor::QK::ICaptureSchedulerSettings", schedulePart},
        {"Vexlor::QK::ICaptureDurationLimitSettings", limitPart}};
    for (std::size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(registry.calls[i].op, i < 2 ? "register" : "unregister");
        EXPECT_EQ(registry.calls[i].key, expected[i].first);
        EXPECT_EQ(registry.calls[i].instance, expected[i].second);
    }
}

}  // namespace
}  // namespace Vexlor::QK
