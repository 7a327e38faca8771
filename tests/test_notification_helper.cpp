#include <memory>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>
#include <QCoreApplication>
#include <QEventLoop>
#include <QTimer>
#include <QTranslator>

#include "Scheduler/NotificationHelperImpl.h"
#include "fakes/FakeClock.h"
#include "fakes/FakeServices.h"
#include "fakes/LogCapture.h"
#include "fakes/RecordingPresenter.h"
#include "fakes/WallClock.h"
#include "platform/AppServices.h"

namespace Vexlor::QK {
namespace {

using Testing::AtMicros;

constexpr long long SECOND = 1000000;
constexpr long long MINUTE = 60 * SECOND;
constexpr long long HOUR = 60 * MINUTE;
constexpr long long DAY = 20000LL * 24 * HOUR;  // a midnight, UTC
constexpr long long LEAD_MAX = 16200000000LL;
constexpr long long LEAD_MIN = 12600000000LL;
constexpr long long WITHDRAW = 30000000LL;
const QString TEXT = QStringLiteral(
    "A recording is scheduled for %1. Don't turn off your PC and configure your capture area.");

RecordTime Rec(long long start) {
    RecordTime record;
    record.title = QStringLiteral("r");
    record.startTime = AtMicros(start);
    record.duration = Time::Microseconds(HOUR);
    return record;
}

class TestPresenter : public Testing::RecordingPresenter {
public:
    void Show(std::shared_ptr<DesktopNotification::INotification> notification) override {
        RecordingPresenter::Show(std::move(notification));
        if (throwOnShow) {
            throw 7;  // not even a std::exception
        }
    }
    bool throwOnShow = false;
};

class TestSettings : public Testing::FakeSchedulerSettings {
public:
    RecordTimeList GetSchedule() const override {
        ++reads;
        if (throwOnRead) {
            throw std::runtime_error("settings unavailable");
        }
        return FakeSchedulerSettings::GetSchedule();
    }
    bool throwOnRead = false;
    mutable int reads = 0;
};

class NoticeTest : public testing::Test {
protected:
    Testing::ScopedTimeZone zone{"UTC"};
    Testing::ScopedFixedNow clock{AtMicros(DAY)};
    std::shared_ptr<TestPresenter> presenter = std::make_shared<TestPresenter>();
    Testing::ScopedPresenterCreator factory{presenter};
    std::shared_ptr<TestSettings> settings = std::make_shared<TestSettings>();
    std::shared_ptr<App::FixedCustomizationManager> customization =
        std::make_shared<App::FixedCustomizationManager>("Vexl\xC3\xB6r Capture");
    std::shared_ptr<App::FixedLookAndFeelManager> lookAndFeel =
        std::make_shared<App::FixedLookAndFeelManager>("en_US");
    std::unique_ptr<NotificationHelper::Impl> notifier;

    NotificationHelper::Impl& Notifier() {
        if (!notifier) {
            notifier =
                std::make_unique<NotificationHelper::Impl>(settings, customization, lookAndFeel);
        }
        return *notifier;
    }

    // One check, with the wall clock at `now`.
    void TickAt(long long now) {
        clock.Set(AtMicros(now));
        Notifier().ShowScheduleNotification();
    }

    void SetFirst(long long start) { settings->schedule = {Rec(start)}; }

    std::string Operations() const {
        std::string out;
        for (const auto& call : presenter->calls) {
            out += (out.empty() ? "" : " ") + call.operation;
        }
        return out;
    }

    QString ShownText(std::size_t call) const {
        return presenter->calls.at(call).notification->GetInformationText();
    }
};

struct LeadCase {
    const char* name;
    long long lead;
    const char* operations;
};

void PrintTo(const LeadCase& c, std::ostream* os) {
    *os << c.name;
}

std::string LeadName(const testing::TestParamInfo<LeadCase>& info) {
    return info.param.name;
}

class IntervalTest : public NoticeTest, public testing::WithParamInterface<LeadCase> {};

TEST_P(IntervalTest, ShowsOnlyInsideTheClosedInterval) {
    const long long start = DAY + 14 * HOUR;
    SetFirst(start);
    TickAt(start - GetParam().lead);
    EXPECT_EQ(Operations(), GetParam().operations);
}

INSTANTIATE_TEST_SUITE_P(Leads, IntervalTest,
                         testing::Values(LeadCase{"AtUpperBound", LEAD_MAX, "Show"},
                                         LeadCase{"JustAboveUpperBound", LEAD_MAX + 1, ""},
                                         LeadCase{"AtLowerBound", LEAD_MIN, "Show"},
                                         LeadCase{"JustBelowLowerBound", LEAD_MIN - 1, ""},
                                         LeadCase{"AddedTwoHoursBefore", 2 * HOUR, ""}),
                         LeadName);

class WithdrawalTest : public NoticeTest, public testing::WithParamInterface<LeadCase> {};

TEST_P(WithdrawalTest, WithdrawsAtThirtySecondsOrLess) {
    const long long start = DAY + 14 * HOUR;
    SetFirst(start);
    TickAt(start - 4 * HOUR);
    TickAt(start - GetParam().lead);
    EXPECT_EQ(Operations(), GetParam().operations);
    if (presenter->calls.size() == 2) {
        EXPECT_EQ(presenter->calls[1].notification, presenter->calls[0].notification);
    }
}

INSTANTIATE_TEST_SUITE_P(Leads, WithdrawalTest,
                         testing::Values(LeadCase{"JustAbove", WITHDRAW + 1, "Show"},
                                         LeadCase{"Exactly", WITHDRAW, "Show Hide"},
                                         LeadCase{"Started", 0, "Show Hide"},
                                         LeadCase{"LongPast", -HOUR, "Show Hide"}),
                         LeadName);

TEST_F(NoticeTest, CountdownFromFiveHoursShowsOnceAndWithdrawsOnceEvenWhenDisabled) {
    const long long start = DAY + 15 * HOUR;
    SetFirst(start);
    settings->enabled = false;
    std::vector<std::pair<std::string, long long>> events;  // operation, lead
    for (long long lead = 5 * HOUR - 10 * SECOND; lead >= -30 * SECOND; lead -= 10 * SECOND) {
        TickAt(start - lead);
        if (presenter->calls.size() > events.size()) {
            events.emplace_back(presenter->calls.back().operation, lead);
        }
    }
    EXPECT_EQ(events, (std::vector<std::pair<std::string, long long>>{{"Show", LEAD_MAX},
                                                                      {"Hide", WITHDRAW}}));
}

TEST_F(NoticeTest, NewFrontRecordInsideIntervalReplacesTheNoticeOverTwoTicks) {
    const long long now = DAY + 10 * HOUR;
    SetFirst(now + 4 * HOUR);
    TickAt(now);
    SetFirst(now + 4 * HOUR + 10 * MINUTE);  // 14:10
    TickAt(now + 10 * SECOND);
    EXPECT_EQ(Operations(), "Show Hide");
    EXPECT_EQ(presenter->calls[1].notification, presenter->calls[0].notification);
    TickAt(now + 20 * SECOND);
    ASSERT_EQ(Operations(), "Show Hide Show");
    EXPECT_EQ(ShownText(2), TEXT.arg("<font color='#00bef9'>14:10</font>"));
}

TEST_F(NoticeTest, NewFrontRecordFarAwayLeavesTheOldNoticeUntilItsOwnIntervalStarts) {
    const long long now = DAY + 10 * HOUR;
    const long long b = now + 9 * HOUR;
    SetFirst(now + 4 * HOUR);
    TickAt(now);
    SetFirst(b);
    TickAt(now + 10 * SECOND);
    TickAt(b - LEAD_MAX - 1);
    EXPECT_EQ(Operations(), "Show");
    TickAt(b - LEAD_MAX);
    EXPECT_EQ(Operations(), "Show Hide");
    TickAt(b - LEAD_MAX + 10 * SECOND);
    EXPECT_EQ(Operations(), "Show Hide Show");
}

TEST_F(NoticeTest, EmptyScheduleShowsNothingAndWithdrawsAShownNotice) {
    TickAt(DAY);
    EXPECT_EQ(Operations(), "");
    SetFirst(DAY + 4 * HOUR);
    TickAt(DAY + 10 * SECOND);
    settings->schedule.clear();
    TickAt(DAY + 20 * SECOND);
    TickAt(DAY + 30 * SECOND);
    EXPECT_EQ(Operations(), "Show Hide");
}

TEST_F(NoticeTest, FirstRecordInThePastHidesTheRestOfTheSchedule) {
    settings->schedule = {Rec(DAY - HOUR), Rec(DAY + 4 * HOUR)};
    TickAt(DAY);
    TickAt(DAY + 10 * SECOND);
    EXPECT_EQ(Operations(), "");
}

TEST_F(NoticeTest, TimerRepeatsEveryTenSecondsAndDestructionLeavesTheNotice) {
    EXPECT_TRUE(Notifier().timer.isActive());
    EXPECT_EQ(Notifier().timer.interval(), 10000);
    EXPECT_FALSE(Notifier().timer.isSingleShot());
    SetFirst(DAY + 4 * HOUR);
    TickAt(DAY);
    notifier.reset();
    EXPECT_EQ(Operations(), "Show");
}

struct MarkupCase {
    const char* name;
    bool richText;
    const char* zone;
    long long start;  // UTC
    const char* time;
};

void PrintTo(const MarkupCase& c, std::ostream* os) {
    *os << c.name;
}

class NoticeTextTest : public NoticeTest, public testing::WithParamInterface<MarkupCase> {};

TEST_P(NoticeTextTest, ShowsTheLocalTimeOfDayOnly) {
    const MarkupCase& c = GetParam();
    Testing::ScopedTimeZone::Set(c.zone);
    presenter->richText = c.richText;
    SetFirst(c.start);
    TickAt(c.start - 4 * HOUR);
    ASSERT_EQ(Operations(), "Show");
    const auto& notice = *presenter->calls[0].notification;
    EXPECT_EQ(notice.GetInformationText(), TEXT.arg(c.time));
    EXPECT_EQ(notice.GetTitleText(), QString::fromUtf8("Vexl\xC3\xB6r Capture"));
    EXPECT_EQ(notice.GetRejectButtonText(), QStringLiteral("Close"));
    EXPECT_TRUE(notice.GetAcceptButtonText().isNull());
    EXPECT_FALSE(notice.HasAcceptButton());
    EXPECT_EQ(presenter->featureQueries, std::vector<int>{0});
}

INSTANTIATE_TEST_SUITE_P(
    Times, NoticeTextTest,
    testing::Values(MarkupCase{"Coloured", true, "UTC", DAY + 14 * HOUR + 5 * MINUTE,
                               "<font color='#00bef9'>14:05</font>"},
                    MarkupCase{"Plain", false, "UTC", DAY + 14 * HOUR + 5 * MINUTE, "14:05"},
                    MarkupCase{"NextMorningNoDate", false, "UTC",
                               DAY + 24 * HOUR + 9 * HOUR + 7 * MINUTE, "09:07"},
                    MarkupCase{"LocalZoneTwoHoursEast", false, "EET-2",
                               DAY + 24 * HOUR + 7 * HOUR + 7 * MINUTE, "09:07"}),
    [](const testing::TestParamInfo<MarkupCase>& info) { return info.param.name; });

TEST_F(NoticeTest, WritesTheTimeInTheLanguageOfTheLookAndFeel) {
    lookAndFeel = std::make_shared<App::FixedLookAndFeelManager>("ar_EG");
    presenter->richText = false;
    const long long start = DAY + 9 * HOUR + 7 * MINUTE;
    SetFirst(start);
    TickAt(start - 4 * HOUR);
    ASSERT_EQ(Operations(), "Show");
    // Arabic-Indic digits: zero nine, zero seven.
    EXPECT_EQ(ShownText(0), TEXT.arg(QString::fromUtf8("\xD9\xA0\xD9\xA9:\xD9\xA0\xD9\xA7")));
}

TEST_F(NoticeTest, InstalledTranslatorChangesTextTimeFormatAndButton) {
    QTranslator translator;
    ASSERT_TRUE(translator.load(QStringLiteral(VEXLOR_TEST_QM_DE)));
    QCoreApplication::installTranslator(&translator);
    lookAndFeel = std::make_shared<App::FixedLookAndFeelManager>("de");
    const long long start = DAY + 24 * HOUR + 9 * HOUR + 7 * MINUTE;
    SetFirst(start);
    TickAt(start - 4 * HOUR);
    QCoreApplication::removeTranslator(&translator);
    ASSERT_EQ(Operations(), "Show");
    EXPECT_EQ(ShownText(0),
              QString::fromUtf8("F\xC3\xBCr <font color='#00bef9'>09:07 Uhr</font> ist eine "
                                "Aufnahme geplant. Schalten Sie Ihren PC nicht aus und richten "
                                "Sie Ihren Aufnahmebereich ein."));
    QCoreApplication::installTranslator(&translator);
    const QString button = presenter->calls[0].notification->GetRejectButtonText();
    QCoreApplication::removeTranslator(&translator);
    EXPECT_EQ(button, QString::fromUtf8("Schlie\xC3\x9F"
                                        "en"));
}

TEST_F(NoticeTest, AsksTheFactoryOnceForTheSchedulerPresenter) {
    NotificationHelper helper(settings, customization, lookAndFeel);
    ASSERT_EQ(factory.requests.size(), 1u);
    EXPECT_EQ(factory.requests[0].style, 0);
    EXPECT_EQ(factory.requests[0].priority, 1);
    EXPECT_EQ(factory.requests[0].category, QStringLiteral("SchedulerNotifications"));
}

class NullServiceTest : public NoticeTest, public testing::WithParamInterface<int> {};

TEST_P(NullServiceTest, ThrowsBeforeThePresenterIsMade) {
    const int nullAt = GetParam();
    try {
        NotificationHelper helper(nullAt == 0 ? nullptr : settings,
                                  nullAt == 1 ? nullptr : customization,
                                  nullAt == 2 ? nullptr : lookAndFeel);
        ADD_FAILURE() << "no exception";
    } catch (const std::logic_error& error) {
        EXPECT_STREQ(error.what(), "NotNull can not initialized by null");
    }
    EXPECT_TRUE(factory.requests.empty());
    EXPECT_EQ(settings.use_count(), 1);
}

INSTANTIATE_TEST_SUITE_P(Arguments, NullServiceTest, testing::Values(0, 1, 2));

class TickExceptionTest : public NoticeTest, public testing::WithParamInterface<bool> {};

TEST_P(TickExceptionTest, StaysInsideTheTimerSlotAndIsLogged) {
    Testing::LogCapture logs;
    const bool fromSettings = GetParam();
    settings->throwOnRead = fromSettings;
    presenter->throwOnShow = !fromSettings;
    SetFirst(DAY + 4 * HOUR);
    // Through the real connection, only faster: an escaping exception would leave exec().
    Notifier().timer.start(1);
    QEventLoop loop;
    QTimer::singleShot(100, &loop, &QEventLoop::quit);
    loop.exec();
    EXPECT_GE(settings->reads, 2);  // the timer kept running
    EXPECT_TRUE(Notifier().timer.isActive());
    int errors = 0;
    for (const auto& entry : logs.Entries()) {
        errors += entry.severity == google::GLOG_ERROR &&
                  entry.message.find("Schedule check failed: ") != std::string::npos;
    }
    EXPECT_GE(errors, 2);
}

INSTANTIATE_TEST_SUITE_P(Services, TickExceptionTest, testing::Values(true, false));

}  // namespace
}  // namespace Vexlor::QK
