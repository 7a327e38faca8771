#include <memory>
#include <stdexcept>
#include <vector>

#include <gtest/gtest.h>

#include "fakes/CountingSettingsManager.h"
#include "settings/SettingsWrapper.h"

namespace Vexlor::App {
namespace {

using QK::RecordMode;
using QK::RecordTime;
using QK::RecordTimeList;
using Testing::CountingSettingsManager;

const char* const KEY = "QK/Scheduler/schedule";

RecordTime Record(const char* title, long long start, int tag = -1) {
    RecordTime record;
    record.title = title;
    record.startTime = Time::TimePoint(Time::Microseconds(start));
    record.tag = tag;
    return record;
}

class SettingsWrapperTest : public testing::Test {
protected:
    std::shared_ptr<CountingSettingsManager> manager = std::make_shared<CountingSettingsManager>();
    const RecordTimeList defaultSchedule{Record("default", 5)};
    const RecordTimeList schedule{Record("a", 10), Record("b", 20, 7)};
};

TEST_F(SettingsWrapperTest, NothingStoredReadsTheDefaultAndSettingItWritesNothing) {
    SettingsWrapper<bool> flag(manager, "QK/Scheduler/scheduler_enabled", true);
    SettingsWrapper<RecordTimeList> list(manager, KEY, defaultSchedule);
    EXPECT_TRUE(flag.get());
    EXPECT_EQ(list.get(), defaultSchedule);
    EXPECT_FALSE(flag.set(true));
    EXPECT_FALSE(list.set(defaultSchedule));
    EXPECT_EQ(manager->writes(), 0);
    EXPECT_FALSE(manager->contains(KEY));
}

TEST_F(SettingsWrapperTest, SetWritesOnceThenNotAgain) {
    SettingsWrapper<bool> flag(manager, "flag", false);
    SettingsWrapper<RecordTimeList> list(manager, KEY, {});
    EXPECT_TRUE(flag.set(true));
    EXPECT_TRUE(list.set(schedule));
    EXPECT_FALSE(flag.set(true));
    EXPECT_FALSE(list.set(schedule));
    EXPECT_EQ(manager->boolWrites, 1);
    EXPECT_EQ(manager->byteWrites, 1);
    EXPECT_TRUE(flag.get());
    EXPECT_EQ(list.get(), schedule);
    EXPECT_EQ(manager->bytes[KEY], ByteArrayConverter<RecordTimeList>()(schedule));
}

TEST_F(SettingsWrapperTest, ForceSetAlwaysWrites) {
    SettingsWrapper<bool> flag(manager, "flag", false);
    SettingsWrapper<std::vector<unsigned char>> raw(manager, "raw", {1, 2});
    SettingsWrapper<RecordTimeList> list(manager, KEY, {});
    flag.forceSet(false);
    flag.forceSet(false);
    raw.forceSet({1, 2});
    list.forceSet({});
    list.forceSet({});
    EXPECT_EQ(manager->boolWrites, 2);
    EXPECT_EQ(manager->byteWrites, 3);
    EXPECT_EQ(manager->bytes[KEY], (std::vector<unsigned char>{0, 0, 0, 0}));
}

// A change in tag alone, mode alone or order alone is a different schedule.
TEST_F(SettingsWrapperTest, AnyFieldOrOrderDifferenceWrites) {
    SettingsWrapper<RecordTimeList> list(manager, KEY, {});
    ASSERT_TRUE(list.set(schedule));
    RecordTimeList tagChanged = schedule;
    tagChanged[1].tag = 8;
    RecordTimeList modeChanged = tagChanged;
    modeChanged[0].mode = RecordMode::Mode2;
    const RecordTimeList reordered{modeChanged[1], modeChanged[0]};
    EXPECT_TRUE(list.set(tagChanged));
    EXPECT_TRUE(list.set(modeChanged));
    EXPECT_TRUE(list.set(reordered));
    EXPECT_EQ(manager->byteWrites, 4);
    EXPECT_EQ(list.get(), reordered);
}

TEST_F(SettingsWrapperTest, NegativeStoredCountFailsSetButForceSetOverwrites) {
    manager->bytes[KEY] = {0xFF, 0xFF, 0xFF, 0xFF};
    SettingsWrapper<RecordTimeList> list(manager, KEY, {});
    EXPECT_THROW(list.get(), std::length_error);
    EXPECT_THROW(list.set(schedule), std::length_error);
    EXPECT_EQ(manager->writes(), 0);
    list.forceSet(schedule);
    EXPECT_EQ(list.get(), schedule);
}

TEST_F(SettingsWrapperTest, DestructionWritesNothingAndReleasesTheManager) {
    {
        SettingsWrapper<RecordTimeList> list(manager, KEY, schedule);
        EXPECT_EQ(manager.use_count(), 2);
    }
    EXPECT_EQ(manager.use_count(), 1);
    EXPECT_EQ(manager->writes(), 0);
}

}  // namespace
}  // namespace Vexlor::App
