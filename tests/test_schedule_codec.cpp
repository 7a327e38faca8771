#include <climits>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "settings/ByteArrayConverter.h"

namespace Vexlor::App {
namespace {

using QK::RecordTime;
using QK::RecordTimeList;

// Spaces between the hex digits are for reading only.
std::vector<unsigned char> Hex(const std::string& text) {
    return ByteArrayConverter<QByteArray>()(QByteArray::fromHex(QByteArray::fromStdString(text)));
}

RecordTimeList Decode(const std::string& hex) {
    return ByteArrayConverter<RecordTimeList>()(Hex(hex));
}

RecordTime R(QString title, int tag, long long start = 0, long long duration = 0, int mode = 0) {
    return {std::move(title), Time::TimePoint(Time::Microseconds(start)),
            Time::Microseconds(duration), tag, static_cast<QK::RecordMode>(mode)};
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

struct BytesCase {
    const char* name;
    std::string hex;
    RecordTimeList schedule;
    bool exact;  // the hex is also what encoding the schedule gives
};

class ScheduleBytes : public testing::TestWithParam<BytesCase> {};

TEST_P(ScheduleBytes, DecodeToTheSchedule) {
    ByteArrayConverter<RecordTimeList> codec;
    const RecordTimeList decoded = Decode(GetParam().hex);
    EXPECT_EQ(decoded, GetParam().schedule);
    // Only the bytes tell a null title from an empty one.
    EXPECT_EQ(codec(decoded), codec(GetParam().schedule));
    if (GetParam().exact) {
        EXPECT_EQ(codec(GetParam().schedule), Hex(GetParam().hex));
    }
}

INSTANTIATE_TEST_SUITE_P(
    Examples, ScheduleBytes,
    testing::Values(
        BytesCase{"EmptyList", "00 00 00 00", {}, true},
        BytesCase{"WorkedExample", "00 00 00 01" + DEMO, {Demo(1)}, true},
        BytesCase{"DefaultRecord", "00 00 00 01 FF FF FF FF FF FF FF FF" + ZEROS, {{}}, true},
        BytesCase{"EmptyTitle", "00 00 00 01 00 00 00 00 FF FF FF FF" + ZEROS, {R("", -1)}, true},
        BytesCase{"NonAsciiTitleAndMode2",
                  "00 00 00 01 00 00 00 04 00 52 00 E9 00 00 00 00" + ZEROS.substr(2) + "02",
                  {R(QString::fromUtf8("R\xc3\xa9"), 0, 0, 0, 2)},
                  true},
        BytesCase{"TagExtremes",
                  "00 00 00 02 FF FF FF FF 80 00 00 00" + ZEROS + "FF FF FF FF 7F FF FF FF" + ZEROS,
                  {R({}, INT_MIN), R({}, INT_MAX)},
                  true},
        BytesCase{"UnknownModesReadAs0",
                  "00 00 00 03" + DEMO_HEAD + "00 00 00 03" + DEMO_HEAD + "FF FF FF FF" +
                      DEMO_HEAD + "00 00 03 E8",
                  {Demo(0), Demo(0), Demo(0)},
                  false},
        BytesCase{"EmptyInput", "", {}, false},
        BytesCase{"ExtraBytesIgnored", "00 00 00 01" + DEMO + "01 02 03", {Demo(1)}, false},
        BytesCase{"MissingRecordZeroed", "00 00 00 02" + DEMO, {Demo(1), R("", 0)}, false},
        BytesCase{"CutAfterTheStart",
                  "00 00 00 01" + DEMO.substr(0, 24 * 3),
                  {R("Demo", -1, 1700000000000000)},
                  false},
        // As QDataStream leaves it: a null title and nothing more to read.
        BytesCase{"TitleLongerThanTheData",
                  "00 00 00 02 00 10 00 00 00 41 00 42 00 00 00 07",
                  {R({}, 0), R("", 0)},
                  false}),
    [](const testing::TestParamInfo<BytesCase>& info) { return info.param.name; });

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

}  // namespace
}  // namespace Vexlor::App
