#include <gtest/gtest.h>

#include "fakes/FakeClock.h"
#include "interfaces/RecordTime.h"

namespace Vexlor::QK {
namespace {

using Testing::AtMicros;

RecordTime Sample() {
    RecordTime record;
    record.title = QStringLiteral("Demo");
    record.startTime = AtMicros(1700000000000000);
    record.duration = Time::Microseconds(1800000000);
    record.tag = 7;
    record.mode = RecordMode::Mode1;
    return record;
}

TEST(RecordTime, DefaultsAreNullTitleZeroTimesTagMinusOneModeZero) {
    const RecordTimeList three(3);
    for (const RecordTime& record : three) {
        EXPECT_TRUE(record.title.isNull());
        EXPECT_EQ(record.startTime.time_since_epoch().count(), 0);
        EXPECT_EQ(record.duration.count(), 0);
        EXPECT_EQ(record.tag, -1);
        EXPECT_EQ(record.mode, RecordMode::Mode0);
    }
}

struct FieldChange {
    const char* name;
    void (*apply)(RecordTime&);
};

class RecordEquality : public testing::TestWithParam<FieldChange> {};

TEST_P(RecordEquality, DifferenceInOneFieldMakesRecordsUnequal) {
    RecordTime changed = Sample();
    GetParam().apply(changed);
    EXPECT_FALSE(changed == Sample());
    EXPECT_TRUE(changed != Sample());
}

INSTANTIATE_TEST_SUITE_P(
    EachField, RecordEquality,
    testing::Values(
        FieldChange{"titleCase", [](RecordTime& r) { r.title = QStringLiteral("demo"); }},
        FieldChange{"titleSpace", [](RecordTime& r) { r.title += QLatin1Char(' '); }},
        FieldChange{"start", [](RecordTime& r) { r.startTime += Time::Microseconds(1); }},
        FieldChange{"duration", [](RecordTime& r) { r.duration -= Time::Microseconds(1); }},
        FieldChange{"tag", [](RecordTime& r) { r.tag = -1; }},
        FieldChange{"mode", [](RecordTime& r) { r.mode = RecordMode::Mode2; }}),
    [](const testing::TestParamInfo<FieldChange>& info) { return info.param.name; });

TEST(RecordTime, CopiesAreEqualAndIndependent) {
    const RecordTime original = Sample();
    RecordTime copy = original;
    EXPECT_EQ(copy, original);
    copy.title.append(QStringLiteral("!"));
    EXPECT_EQ(original.title, QStringLiteral("Demo"));
}

TEST(RecordTimeList, EqualityIsPositionByPosition) {
    RecordTime other = Sample();
    other.startTime += Time::Microseconds(5);
    const RecordTimeList list{Sample(), other};
    EXPECT_EQ(list, (RecordTimeList{Sample(), other}));
    EXPECT_NE(list, (RecordTimeList{other, Sample()}));
    EXPECT_NE(list, (RecordTimeList{Sample()}));
}

}  // namespace
}  // namespace Vexlor::QK
