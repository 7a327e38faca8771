#include <gtest/gtest.h>

#include "fakes/FakeClock.h"
#include "interfaces/RecordTime.h"

namespace Vexlor::QK {
namespace {

RecordTime Sample() {
    RecordTime record;
    record.title = QStringLiteral("Demo");
    record.startTime = Testing::AtMicros(1700000000000000);
    record.duration = Time::Microseconds(1800000000);
    record.tag = 7;
    record.mode = RecordMode::Mode1;
    return record;
}

TEST(RecordTime, DefaultIsNullTitleZeroTimesTagMinusOneModeZero) {
    for (const RecordTime& record : RecordTimeList(3)) {
        EXPECT_TRUE(record.title.isNull());
        EXPECT_EQ(record.startTime.time_since_epoch().count(), 0);
        EXPECT_EQ(record.duration.count(), 0);
        EXPECT_EQ(record.tag, -1);
        EXPECT_EQ(record.mode, RecordMode::Mode0);
    }
}

TEST(RecordTime, EveryFieldTakesPartInEquality) {
    const std::vector<void (*)(RecordTime&)> changes = {
        [](RecordTime& r) { r.title = QStringLiteral("demo"); },
        [](RecordTime& r) { r.title += QLatin1Char(' '); },
        [](RecordTime& r) { r.startTime += Time::Microseconds(1); },
        [](RecordTime& r) { r.duration -= Time::Microseconds(1); },
        [](RecordTime& r) { r.tag = -1; },
        [](RecordTime& r) { r.mode = RecordMode::Mode2; }};
    EXPECT_EQ(Sample(), Sample());
    for (size_t i = 0; i < changes.size(); ++i) {
        RecordTime changed = Sample();
        changes[i](changed);
        EXPECT_NE(changed, Sample()) << "change " << i;
    }
}

TEST(RecordTimeList, EqualityIsPositionByPosition) {
    RecordTime other = Sample();
    other.startTime += Time::Microseconds(5);
    EXPECT_EQ((RecordTimeList{Sample(), other}), (RecordTimeList{Sample(), other}));
    EXPECT_NE((RecordTimeList{Sample(), other}), (RecordTimeList{other, Sample()}));
    EXPECT_NE((RecordTimeList{Sample(), other}), (RecordTimeList{Sample()}));
}

}  // namespace
}  // namespace Vexlor::QK
