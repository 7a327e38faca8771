#include <gtest/gtest.h>

#include "Duration.h"
#include "SettingsPath.h"

namespace Vexlor::ScheduleTool {
namespace {

using Time::Microseconds;
constexpr long long SECOND = 1000000;

struct DurationRow {
    const char* text;
    std::optional<long long> micros;
};

void PrintTo(const DurationRow& row, std::ostream* out) {
    *out << '"' << row.text << '"';
}

class ParseDurationTest : public testing::TestWithParam<DurationRow> {};

TEST_P(ParseDurationTest, ReadsTheWrittenForm) {
    const auto parsed = ParseDuration(QString::fromUtf8(GetParam().text));
    if (GetParam().micros) {
        ASSERT_TRUE(parsed.has_value());
        EXPECT_EQ(parsed->count(), *GetParam().micros);
    } else {
        EXPECT_FALSE(parsed.has_value()) << parsed->count();
    }
}

INSTANTIATE_TEST_SUITE_P(
    Rows, ParseDurationTest,
    testing::Values(DurationRow{"0", 0}, DurationRow{"90s", 90 * SECOND},
                    DurationRow{"30m", 1800 * SECOND}, DurationRow{"1h30m", 5400 * SECOND},
                    DurationRow{"2h5s", 7205 * SECOND}, DurationRow{"1h1m1s", 3661 * SECOND},
                    DurationRow{"0s", 0},
                    // 2562047788h is the last whole hour below 2^63 microseconds.
                    DurationRow{"2562047788h", 2562047788LL * 3600 * SECOND},
                    DurationRow{"", std::nullopt}, DurationRow{"90", std::nullopt},
                    DurationRow{"-5m", std::nullopt}, DurationRow{"+5m", std::nullopt},
                    DurationRow{"1.5h", std::nullopt}, DurationRow{"5 m", std::nullopt},
                    DurationRow{" 5m", std::nullopt}, DurationRow{"5q", std::nullopt},
                    DurationRow{"m", std::nullopt}, DurationRow{"30m1h", std::nullopt},
                    DurationRow{"1h1h", std::nullopt}, DurationRow{"5ms", std::nullopt},
                    DurationRow{"2562047789h", std::nullopt},
                    DurationRow{"2562047788h59m59s", std::nullopt},
                    DurationRow{"99999999999999999999s", std::nullopt}));

TEST(FormatDurationTest, WritesWhatParseReads) {
    for (const long long seconds : {0LL, 1LL, 59LL, 60LL, 90LL, 3600LL, 5400LL, 86399LL}) {
        const Microseconds duration(seconds * SECOND);
        const QString text = FormatDuration(duration);
        ASSERT_EQ(ParseDuration(text), duration) << text.toStdString();
    }
}

TEST(FormatDurationTest, ShowsMillisecondsAndSign) {
    EXPECT_EQ(FormatDuration(Microseconds(2500000)), QStringLiteral("2.5s"));
    EXPECT_EQ(FormatDuration(Microseconds(1939000)), QStringLiteral("1.939s"));
    EXPECT_EQ(FormatDuration(Microseconds(-61 * SECOND)), QStringLiteral("-1m1s"));
    EXPECT_FALSE(FormatDuration(Microseconds(std::numeric_limits<long long>::min())).isEmpty());
}

TEST(SettingsPathTest, OptionThenEnvironmentThenConfigFolder) {
    const QString folder = QStringLiteral("/home/u/.config");
    EXPECT_EQ(ChooseSettingsPath(QStringLiteral("/a.ini"), QStringLiteral("/b.ini"), folder),
              QStringLiteral("/a.ini"));
    EXPECT_EQ(ChooseSettingsPath(std::nullopt, QStringLiteral("/b.ini"), folder),
              QStringLiteral("/b.ini"));
    EXPECT_EQ(ChooseSettingsPath(std::nullopt, QString(), folder),
              QStringLiteral("/home/u/.config/vexlor-schedule/settings.ini"));
    EXPECT_EQ(ChooseSettingsPath(std::nullopt, std::nullopt, folder),
              QStringLiteral("/home/u/.config/vexlor-schedule/settings.ini"));
}

}  // namespace
}  // namespace Vexlor::ScheduleTool
