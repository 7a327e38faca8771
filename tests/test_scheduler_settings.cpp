#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Scheduler/SchedulerSettings.h"
#include "fakes/RecordingRegistry.h"
#include "settings/SettingsWrapper.h"

namespace Vexlor::QK {
namespace {

using App::SettingsWrapper;
using Bytes = std::vector<unsigned char>;
using Time::Microseconds;

// In memory, counting the writes; a bool is kept as one byte.
class CountingSettingsManager : public IApplicationSettingsManager {
public:
    void setBool(const std::string& key, bool value) override { setByteArray(key, {value}); }
    void setByteArray(const std::string& key, const Bytes& value) override {
        ++writes;
        values[key] = value;
    }
    bool getBool(const std::string& key, bool defaultValue) const override {
        return getByteArray(key, {defaultValue}).at(0) != 0;
    }
    Bytes getByteArray(const std::string& key, const Bytes& defaultValue) const override {
        const auto it = values.find(key);
        return it == values.end() ? defaultValue : it->second;
    }
    bool contains(const std::string& key) const override { return values.count(key) != 0; }
    void remove(const std::string& key) override { values.erase(key); }

    std::map<std::string, Bytes> values;
    int writes = 0;
};

struct ScheduleObserver : ICaptureSchedulerSettingsObserver {
    MOCK_METHOD(void, OnSchedulerEnabledChanged, (bool), (override));
    MOCK_METHOD(void, OnScheduleChanged, (const RecordTimeList&), (override));
};

struct LimitObserver : ICaptureDurationLimitSettingsObserver {
    MOCK_METHOD(void, OnDurationLimitEnabledChanged, (bool), (override));
    MOCK_METHOD(void, OnDurationLimitChanged, (const Microseconds&), (override));
};

RecordTimeList Tags(std::initializer_list<int> tags) {
    RecordTimeList schedule;
    for (int tag : tags) {
        schedule.emplace_back().tag = tag;
    }
    return schedule;
}

class SettingsTest : public testing::Test {
protected:
    std::shared_ptr<CountingSettingsManager> manager = std::make_shared<CountingSettingsManager>();
    SettingsWrapper<bool> flag{manager, "flag", true};
    SettingsWrapper<Bytes> raw{manager, "raw", {1, 2}};
    SettingsWrapper<RecordTimeList> list{manager, "list", Tags({7})};
};

TEST_F(SettingsTest, WrapperWithNothingStoredReadsTheDefaultAndSettingItWritesNothing) {
    EXPECT_TRUE(flag.get());
    EXPECT_EQ(raw.get(), (Bytes{1, 2}));
    EXPECT_EQ(list.get(), Tags({7}));
    EXPECT_FALSE(flag.set(true));
    EXPECT_FALSE(raw.set({1, 2}));
    EXPECT_FALSE(list.set(Tags({7})));
    EXPECT_EQ(manager->writes, 0);
}

// A difference in one tag alone, or in the order alone, is a change.
TEST_F(SettingsTest, WrapperSetWritesEachChangeOnce) {
    for (const RecordTimeList& schedule : {Tags({1, 2}), Tags({1, 3}), Tags({3, 1})}) {
        EXPECT_TRUE(list.set(schedule));
        EXPECT_FALSE(list.set(schedule));
        EXPECT_EQ(list.get(), schedule);
    }
    EXPECT_TRUE(flag.set(false));
    EXPECT_FALSE(flag.set(false));
    EXPECT_EQ(manager->writes, 4);
    EXPECT_EQ(manager->values["list"], App::ByteArrayConverter<RecordTimeList>()(Tags({3, 1})));
}

TEST_F(SettingsTest, WrapperForceSetAlwaysWritesEvenOverAnUnreadableValue) {
    manager->values["list"] = {0xFF, 0xFF, 0xFF, 0xFF};  // a negative count
    EXPECT_THROW(list.set(Tags({1})), std::length_error);
    EXPECT_EQ(manager->writes, 0);
    flag.forceSet(true);
    raw.forceSet({1, 2});
    list.forceSet(Tags({1}));
    list.forceSet(Tags({1}));
    EXPECT_EQ(manager->writes, 4);
    EXPECT_EQ(list.get(), Tags({1}));
}

// Values at their defaults first, then each change twice; the duration limit lives in memory.
TEST_F(SettingsTest, SchedulerSettingsTellOnlyChangesToTheirObserversAndKeepFlagAndSchedule) {
    SchedulerSettings settings(manager);
    testing::StrictMock<ScheduleObserver> scheduleObserver;
    testing::StrictMock<LimitObserver> limitObserver;
    settings.RegisterEventHandler(&scheduleObserver);
    settings.RegisterEventHandler(&limitObserver);
    for (int round = 0; round < 3; ++round) {
        if (round == 1) {
            EXPECT_CALL(scheduleObserver, OnSchedulerEnabledChanged(true));
            EXPECT_CALL(scheduleObserver, OnScheduleChanged(Tags({1})))
                .WillOnce(
                    [&](const RecordTimeList& now) { EXPECT_EQ(settings.GetSchedule(), now); });
            EXPECT_CALL(limitObserver, OnDurationLimitEnabledChanged(true));
            EXPECT_CALL(limitObserver, OnDurationLimitChanged(Microseconds(1)));
        }
        settings.SetSchedulerEnabled(round > 0);
        settings.SetSchedule(round > 0 ? Tags({1}) : RecordTimeList{});
        settings.SetDurationLimitEnabled(round > 0);
        settings.SetDurationLimit(Microseconds(round > 0 ? 1 : 120000000));
    }
    EXPECT_EQ(manager->writes, 2);
    EXPECT_EQ(manager->values["QK/Scheduler/scheduler_enabled"], Bytes{1});
    EXPECT_EQ(manager->values["QK/Scheduler/schedule"],
              App::ByteArrayConverter<RecordTimeList>()(Tags({1})));

    const SchedulerSettings again(manager);
    EXPECT_TRUE(again.IsSchedulerEnabled());
    EXPECT_EQ(again.GetSchedule(), Tags({1}));
    EXPECT_FALSE(again.IsDurationLimitEnabled());
    EXPECT_EQ(again.GetDurationLimit(), Microseconds(120000000));
}

TEST(SchedulerSettingsRegistry, RegistersLimitThenScheduleAndWithdrawsInReverse) {
    Testing::RecordingRegistry registry;
    {
        SchedulerSettings settings(std::make_shared<CountingSettingsManager>());
        EXPECT_EQ(registry.Find<ICaptureDurationLimitSettings>(), &settings);
        EXPECT_EQ(registry.Find<ICaptureSchedulerSettings>(), &settings);
    }
    std::vector<std::string> calls;
    for (const auto& call : registry.calls) {
        calls.push_back(call.op + " " + call.key);
    }
    EXPECT_EQ(calls,
              (std::vector<std::string>{"register Vexlor::QK::ICaptureDurationLimitSettings",
                                        "register Vexlor::QK::ICaptureSchedulerSettings",
                                        "unregister Vexlor::QK::ICaptureSchedulerSettings",
                                        "unregister Vexlor::QK::ICaptureDurationLimitSettings"}));
}

}  // namespace
}  // namespace Vexlor::QK
