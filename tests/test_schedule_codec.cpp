#include <climits>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "settings/ByteArrayConverter.h"

namespace Vexlor::App {
namespace {

using QK::RecordMode;
using QK::RecordTime;
using QK::RecordTimeList;
using Bytes = std::vector<unsigned char>;

Bytes Hex(const std::string& text) {
    Bytes bytes;
    std::string digits;
    for (char c : text) {
        if (c != ' ') {
            digits += c;
        }
    }
    for (std::size_t i = 0; i + 1 < digits.size(); i += 2) {
        bytes.push_back(static_cast<unsigned char>(std::stoi(digits.substr(i, 2), nullptr, 16)));
    }
    return bytes;
}

Bytes Encode(const RecordTimeList& schedule) {
    return ByteArrayConverter<RecordTimeList>()(schedule);
}

RecordTimeList Decode(const Bytes& bytes) {
    return ByteArrayConverter<RecordTimeList>()(bytes);
}

RecordTime Record(QString title, int tag, long long start, long long duration, RecordMode mode) {
    RecordTime record;
    record.title = std::move(title);
    record.tag = tag;
    record.startTime = Time::TimePoint(Time::Microseconds(start));
    record.duration = Time::Microseconds(duration);
    record.mode = mode;
    return record;
}

const char* const DEMO_RECORD =
    "00 00 00 08 00 44 00 65 00 6D 00 6F FF FF FF FF 00 06 0A 24 18 1E 40 00"
    "00 00 00 00 6B 49 D2 00 00 00 00 01";
const RecordTime DEMO = Record("Demo", -1, 1700000000000000, 1800000000, RecordMode::Mode1);

struct ExactCase {
    const char* name;
    RecordTimeList schedule;
    std::string hex;
};

class ExactBytes : public testing::TestWithParam<ExactCase> {};

TEST_P(ExactBytes, EncodesToAndDecodesFromTheseBytes) {
    const Bytes bytes = Hex(GetParam().hex);
    EXPECT_EQ(Encode(GetParam().schedule), bytes);
    const RecordTimeList decoded = Decode(bytes);
    ASSERT_EQ(decoded, GetParam().schedule);
    for (std::size_t i = 0; i < decoded.size(); ++i) {
        EXPECT_EQ(decoded[i].title.isNull(), GetParam().schedule[i].title.isNull());
    }
}

INSTANTIATE_TEST_SUITE_P(
    Examples, ExactBytes,
    testing::Values(ExactCase{"EmptyList", {}, "00 00 00 00"},
                    ExactCase{"WorkedExample", {DEMO}, std::string("00 00 00 01") + DEMO_RECORD},
                    ExactCase{"DefaultRecord",
                              {RecordTime{}},
                              "00 00 00 01 FF FF FF FF FF FF FF FF" + std::string(40, '0')},
                    ExactCase{"EmptyNotNullTitle",
                              {Record("", -1, 0, 0, RecordMode::Mode0)},
                              "00 00 00 01 00 00 00 00 FF FF FF FF" + std::string(40, '0')},
                    ExactCase{"NonAsciiTitle",
                              {Record(QString::fromUtf8("R\xc3\xa9"), 0, 0, 0, RecordMode::Mode2)},
                              "00 00 00 01 00 00 00 04 00 52 00 E9 00 00 00 00" +
                                  std::string(32, '0') + "00 00 00 02"}),
    [](const testing::TestParamInfo<ExactCase>& info) { return info.param.name; });

class TagRoundTrip : public testing::TestWithParam<int> {};

TEST_P(TagRoundTrip, KeepsTheTagAndTheOrder) {
    const RecordTimeList schedule{Record("t", GetParam(), -5, 7, RecordMode::Mode1), DEMO};
    EXPECT_EQ(Decode(Encode(schedule)), schedule);
}

INSTANTIATE_TEST_SUITE_P(Extremes, TagRoundTrip, testing::Values(-1, 0, INT_MAX, INT_MIN));

struct ModeCase {
    int stored;
    RecordMode expected;
};

class StoredMode : public testing::TestWithParam<ModeCase> {};

TEST_P(StoredMode, ReadsAsKnownModeOrZero) {
    Bytes bytes = Hex(std::string("00 00 00 01") + DEMO_RECORD);
    const auto mode = static_cast<unsigned>(GetParam().stored);
    for (int i = 0; i < 4; ++i) {
        bytes[bytes.size() - 1 - i] = static_cast<unsigned char>(mode >> (8 * i));
    }
    EXPECT_EQ(Decode(bytes).at(0).mode, GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(Modes, StoredMode,
                         testing::Values(ModeCase{1, RecordMode::Mode1},
                                         ModeCase{2, RecordMode::Mode2},
                                         ModeCase{3, RecordMode::Mode0},
                                         ModeCase{-1, RecordMode::Mode0},
                                         ModeCase{1000, RecordMode::Mode0}));

TEST(ScheduleDecoding, MissingRecordsComeOutZeroed) {
    const RecordTimeList decoded = Decode(Hex(std::string("00 00 00 02") + DEMO_RECORD));
    ASSERT_EQ(decoded.size(), 2u);
    EXPECT_EQ(decoded[0], DEMO);
    EXPECT_TRUE(decoded[1].title.isEmpty());
    EXPECT_EQ(decoded[1].tag, 0);
    EXPECT_EQ(decoded[1], Record("", 0, 0, 0, RecordMode::Mode0));
}

TEST(ScheduleDecoding, RecordCutInTheMiddleKeepsWhatWasRead) {
    Bytes bytes = Hex(std::string("00 00 00 01") + DEMO_RECORD);
    bytes.resize(4 + 12 + 4 + 8);  // title, tag and start time only
    EXPECT_EQ(Decode(bytes),
              (RecordTimeList{Record("Demo", -1, 1700000000000000, 0, RecordMode::Mode0)}));
}

// QDataStream's own outcome for a declared title length beyond the data: a null title and
// nothing left to read.
TEST(ScheduleDecoding, TitleLongerThanTheDataConsumesTheRest) {
    const RecordTimeList decoded = Decode(Hex("00 00 00 02 00 10 00 00 00 41 00 42 00 00 00 07"));
    ASSERT_EQ(decoded.size(), 2u);
    EXPECT_TRUE(decoded[0].title.isNull());
    EXPECT_EQ(decoded[0].tag, 0);
    EXPECT_FALSE(decoded[1].title.isNull());
    EXPECT_EQ(decoded[1], Record("", 0, 0, 0, RecordMode::Mode0));
}

TEST(ScheduleDecoding, EmptyInputIsTheEmptyList) {
    EXPECT_TRUE(Decode({}).empty());
}

TEST(ScheduleDecoding, IgnoresBytesAfterTheLastRecord) {
    EXPECT_EQ(Decode(Hex(std::string("00 00 00 01") + DEMO_RECORD + "01 02 03 04 05")),
              RecordTimeList{DEMO});
}

// A count beyond (bytes after the count) / 28 + 16 is refused like a negative one.
class ImpossibleCount : public testing::TestWithParam<std::string> {};

TEST_P(ImpossibleCount, ThrowsLengthError) {
    EXPECT_THROW(Decode(Hex(GetParam())), std::length_error);
}

INSTANTIATE_TEST_SUITE_P(Counts, ImpossibleCount,
                         testing::Values("FF FF FF FF", "80 00 00 00", "7F FF FF FF 00 00 00 00",
                                         "00 00 00 11", std::string("00 00 00 12") + DEMO_RECORD));

TEST(ScheduleDecoding, OvershootWithinTheMarginStillDecodes) {
    EXPECT_EQ(Decode(Hex("00 00 00 10")).size(), 16u);
    EXPECT_EQ(Decode(Hex(std::string("00 00 00 11") + DEMO_RECORD)).size(), 17u);
}

}  // namespace
}  // namespace Vexlor::App
