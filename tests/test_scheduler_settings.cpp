#include <climits>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "Scheduler/SchedulerSettings.h"
#include "fakes/FakeServices.h"
#include "interfaces/InstanceRegistry.h"
#include "settings/SettingsWrapper.h"

namespace Vexlor::QK {
namespace {

using App::ByteArrayConverter;
using App::SettingsWrapper;
using Bytes = std::vector<unsigned char>;
using Time::Microseconds;

// Spaces between the hex digits are for reading only.
Bytes Hex(const std::string& text) {
    return ByteArrayConverter<QByteArray>()(QByteArray::fromHex(QByteArray::fromStdString(text)));
}

RecordTimeList Decode(const std::string& hex) {
    return ByteArrayConverter<RecordTimeList>()(Hex(hex));
}

RecordTime R(QString title, int tag, long long start = 0, long long duration = 0, int mode = 0) {
    return {std::move(title), Time::TimePoint(Time::Microseconds(start)),
            Time::Microseconds(duration), tag, static_cast<RecordMode>(mode)};
}

RecordTime Demo(int mode) {
    return R("Demo", -1, 1700000000000000, 1800000000, mode);
}

// Demo(mode) up to its mode's 4 bytes.
const std::string DEMO_HEAD =
    "00 00 00 08 00 44 00 65 00 6D 00 6F FF FF FF FF 00 06 0A 24 18 1E 40 00 "
    "00 00 00 00 6B 49 D2 00 ";
const std::string DEMO = DEMO_HEAD + "00 00 00 01 ";
const std::string ZEROS = std::string(40, '0');  // start, duration and mode of 0

TEST(ScheduleBytes, DecodeToTheSchedule) {
    const struct {
        const char* name;
        std::string hex;
        RecordTimeList schedule;
        bool exact;  // the hex is also what encoding the schedule gives
    } rows[] = {{"EmptyList", "00 00 00 00", {}, true},
                {"WorkedExample", "00 00 00 01" + DEMO, {Demo(1)}, true},
                {"DefaultRecord", "00 00 00 01 FF FF FF FF FF FF FF FF" + ZEROS, {{}}, true},
                {"EmptyTitle", "00 00 00 01 00 00 00 00 FF FF FF FF" + ZEROS, {R("", -1)}, true},
                {"NonAsciiTitleAndMode2",
                 "00 00 00 01 00 00 00 04 00 52 00 E9 00 00 00 00" + ZEROS.substr(2) + "02",
                 {R(QString::fromUtf8("R\xc3\xa9"), 0, 0, 0, 2)},
                 true},
                {"TagExtremes",
                 "00 00 00 02 FF FF FF FF 80 00 00 00" + ZEROS + "FF FF FF FF 7F FF FF FF" + ZEROS,
                 {R({}, INT_MIN), R({}, INT_MAX)},
                 true},
                {"UnknownModesReadAs0",
                 "00 00 00 03" + DEMO_HEAD + "00 00 00 03" + DEMO_HEAD + "FF FF FF FF" + DEMO_HEAD +
                     "00 00 03 E8",
                 {Demo(0), Demo(0), Demo(0)},
                 false},
                {"EmptyInput", "", {}, false},
                {"ExtraBytesIgnored", "00 00 00 01" + DEMO + "01 02 03", {Demo(1)}, false},
                {"MissingRecordZeroed", "00 00 00 02" + DEMO, {Demo(1), R("", 0)}, false},
                {"CutAfterTheStart",
                 "00 00 00 01" + DEMO.substr(0, 24 * 3),
                 {R("Demo", -1, 1700000000000000)},
                 false},
                // As QDataStream leaves it: a null title and nothing more to read.
                {"TitleLongerThanTheData",
                 "00 00 00 02 00 10 00 00 00 41 00 42 00 00 00 07",
                 {R({}, 0), R("", 0)},
                 false}};
    ByteArrayConverter<RecordTimeList> codec;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const RecordTimeList decoded = Decode(row.hex);
        EXPECT_EQ(decoded, row.schedule);
        // Only the bytes tell a null title from an empty one.
        EXPECT_EQ(codec(decoded), codec(row.schedule));
        if (row.exact) {
            EXPECT_EQ(codec(row.schedule), Hex(row.hex));
        }
    }
}

TEST(RecordTime, EveryFieldTakesPartInEquality) {
    EXPECT_EQ(Demo(1), Demo(1));
    for (const RecordTime& other : {R("demo", -1, 1700000000000000, 1800000000, 1),
                                    R("Demo", 0, 1700000000000000, 1800000000, 1),
                                    R("Demo", -1, 1700000000000001, 1800000000, 1),
                                    R("Demo", -1, 1700000000000000, 1800000001, 1), Demo(2)}) {
        EXPECT_NE(other, Demo(1));
    }
}

// The bound: (bytes after the count) / 28 + 16 records; beyond it, as for a negative count.
TEST(ScheduleDecoding, CountBeyondWhatTheBytesCanHoldThrowsLengthError) {
    EXPECT_EQ(Decode("00 00 00 10").size(), 16u);
    EXPECT_EQ(Decode("00 00 00 11" + DEMO).size(), 17u);
    for (const std::string& hex :
         std::vector<std::string>{"FF FF FF FF", "80 00 00 00", "7F FF FF FF 00 00 00 00",
                                  "00 00 00 11", "00 00 00 12" + DEMO}) {
        EXPECT_THROW(Decode(hex), std::length_error) << hex;
    }
}

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
    std::shared_ptr<Testing::FakeSettingsManager> manager =
        std::make_shared<Testing::FakeSettingsManager>();
};

TEST_F(SettingsTest, WrapperReadsTheDefaultAndWritesOnlyChangesUnlessForced) {
    SettingsWrapper<bool> flag{manager, "flag", true};
    SettingsWrapper<Bytes> raw{manager, "raw", {1, 2}};
    SettingsWrapper<RecordTimeList> list{manager, "list", Tags({7})};
    EXPECT_TRUE(flag.get());
    EXPECT_EQ(raw.get(), (Bytes{1, 2}));
    EXPECT_EQ(list.get(), Tags({7}));
    EXPECT_FALSE(flag.set(true) || raw.set({1, 2}) || list.set(Tags({7})));
    EXPECT_EQ(manager->writes, 0);
    EXPECT_TRUE(list.set(Tags({3, 1})));
    EXPECT_FALSE(list.set(Tags({3, 1})));  // reads back what it wrote
    flag.forceSet(true);
    raw.forceSet({1, 2});
    list.forceSet(Tags({3, 1}));
    EXPECT_EQ(manager->writes, 4);

    manager->values["list"] = {0xFF, 0xFF, 0xFF, 0xFF};  // a negative count
    EXPECT_THROW(list.set(Tags({1})), std::length_error);
    EXPECT_EQ(manager->writes, 4);
    list.forceSet(Tags({1}));
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
              ByteArrayConverter<RecordTimeList>()(Tags({1})));

    const SchedulerSettings again(manager);
    EXPECT_TRUE(again.IsSchedulerEnabled());
    EXPECT_EQ(again.GetSchedule(), Tags({1}));
    EXPECT_FALSE(again.IsDurationLimitEnabled());
    EXPECT_EQ(again.GetDurationLimit(), Microseconds(120000000));
}

// Under the readable names that other modules look up; one made before any registry is
// installed is only asked to remove what it never published.
TEST_F(SettingsTest, BothInterfacesArePublishedForTheObjectsLifetime) {
    auto unpublished = std::make_unique<SchedulerSettings>(manager);
    InstanceRegistry registry;
    ScopedInstanceRegistry installed(&registry);
    const auto find = [&](const char* key) { return registry.DoFind(key); };
    {
        const SchedulerSettings settings(manager);
        unpublished.reset();
        EXPECT_EQ(find("Vexlor::QK::ICaptureDurationLimitSettings"),
                  static_cast<const ICaptureDurationLimitSettings*>(&settings));
        EXPECT_EQ(find("Vexlor::QK::ICaptureSchedulerSettings"),
                  static_cast<const ICaptureSchedulerSettings*>(&settings));
    }
    EXPECT_EQ(find("Vexlor::QK::ICaptureDurationLimitSettings"), nullptr);
    EXPECT_EQ(find("Vexlor::QK::ICaptureSchedulerSettings"), nullptr);
}

}  // namespace
}  // namespace Vexlor::QK
