#include <cstdlib>
#include <ctime>

#include <gmock/gmock.h>
#include <QCoreApplication>
#include <QTranslator>

#include "Scheduler/NotificationHelperImpl.h"
#include "fakes/FakeClock.h"
#include "fakes/FakeServices.h"
#include "fakes/LogCapture.h"
#include "platform/FixedServices.h"
#include "testing/SystemClockPin.h"

namespace Vexlor::QK {
namespace {

constexpr long long SECOND = 1000000, MINUTE = 60 * SECOND, HOUR = 60 * MINUTE;
constexpr long long LEAD_MAX = 16200000000LL, LEAD_MIN = 12600000000LL, WITHDRAW = 30000000LL;
constexpr long long DAY = 20000LL * 24 * HOUR;  // a midnight, UTC
constexpr long long S = DAY + 14 * HOUR;  // always in the stored schedule, behind the front record

RecordTime Rec(long long start) {
    return {"r", Testing::AtMicros(start), Time::Microseconds(HOUR)};
}

// Records what it is asked to do; "Hide?" is a withdrawal of anything but the notice shown.
struct RecordingPresenter : DesktopNotification::IPresenter {
    void Show(std::shared_ptr<DesktopNotification::INotification> notice) override {
        shown = notice;
        calls.push_back("Show");
        if (throwing && calls.size() % 2)
            throw std::runtime_error("presenter gone");
        if (throwing)
            throw 7;  // not even a std::exception
    }
    void Hide(std::shared_ptr<DesktopNotification::INotification> notice) override {
        calls.push_back(notice == shown ? "Hide" : "Hide?");
    }
    bool SupportsFeature(int feature) const override { return richText && feature == 0; }
    bool richText = true, throwing = false;
    std::shared_ptr<DesktopNotification::INotification> shown;
    std::vector<std::string> calls;
};

// A test drives a tick by calling the timer's function with the wall clock pinned.
class NoticeTest : public testing::Test {
protected:
    NoticeTest() {
        setenv("TZ", "EET-2", 1);  // local time is UTC + 2 h
        tzset();
        DesktopNotification::Presenter::Factory::GetInstance().SetCreator(
            [this](int style, int priority, const QString& category) {
                requests += QStringLiteral("%1,%2,%3;").arg(style).arg(priority).arg(category);
                return presenter;
            });
    }
    ~NoticeTest() override {
        DesktopNotification::Presenter::Factory::GetInstance().SetCreator({});
        Testing::UnpinSystemClock();
    }

    // One tick, with front 0 for an empty schedule; "-" when the presenter was not called.
    std::string TickAt(long long now, long long front) {
        settings->schedule = front ? RecordTimeList{Rec(front), Rec(S)} : RecordTimeList{};
        Testing::PinSystemClock(Testing::AtMicros(now));
        if (!notifier)
            notifier = std::make_unique<NotificationHelper::Impl>(settings, customization, look);
        const std::size_t before = presenter->calls.size();
        notifier->ShowScheduleNotification();
        return presenter->calls.size() == before ? "-" : presenter->calls.back();
    }

    // The text of a new notice for 09:07 local time, shown at 05:07.
    QString NoticeText(bool richText, const char* language) {
        presenter->richText = richText;
        look = std::make_shared<App::FixedLookAndFeelManager>(language);
        notifier.reset();
        EXPECT_EQ(TickAt(DAY + 3 * HOUR + 7 * MINUTE, DAY + 7 * HOUR + 7 * MINUTE), "Show");
        return presenter->shown->GetInformationText();
    }

    std::shared_ptr<RecordingPresenter> presenter = std::make_shared<RecordingPresenter>();
    QString requests;  // what the factory was asked for
    // Its scheduler flag is off: the notice must not care.
    std::shared_ptr<Testing::FakeSchedulerSettings> settings =
        std::make_shared<Testing::FakeSchedulerSettings>();
    // The console keeps a notice on one line.
    std::shared_ptr<App::ICustomizationManager> customization =
        std::make_shared<App::FixedCustomizationManager>("Vexlör\nCapture");
    std::shared_ptr<App::ILookAndFeelManager> look =
        std::make_shared<App::FixedLookAndFeelManager>("en_US");
    std::unique_ptr<NotificationHelper::Impl> notifier;
};

// A notice for S is out after a tick at A; B, the next front record, enters the interval at C.
constexpr long long A = S - 4 * HOUR, B = S + 5 * HOUR, C = B - LEAD_MAX, TICK = 10 * SECOND;

// Each row is a new helper's ticks, as (front record's start, now), and what each did.
TEST_F(NoticeTest, ShowsAndWithdrawsAtTheRightTicks) {
    const std::vector<std::pair<std::vector<std::pair<long long, long long>>, const char*>> rows{
        {{{S, S - LEAD_MAX - 1}, {S, S - LEAD_MAX}}, "- Show"},
        {{{S, S - LEAD_MIN}}, "Show"},
        {{{S, S - LEAD_MIN + 1}}, "-"},
        {{{S, A}, {S, A + TICK}, {S, S - WITHDRAW - 1}, {S, S - WITHDRAW}}, "Show - - Hide"},
        // The old notice stays until the new one's interval begins.
        {{{S, A}, {B, A + TICK}, {B, C}, {B, C + TICK}}, "Show - Hide Show"},
        {{{S, A}, {0, A + TICK}, {0, A + 2 * TICK}}, "Show Hide -"},
        {{{A - HOUR, A}}, "-"}};  // the front record in the past
    for (const auto& [ticks, expected] : rows) {
        notifier.reset();  // a new helper, presenter and request
        presenter = std::make_shared<RecordingPresenter>();
        requests.clear();
        std::string operations;
        for (const auto& [front, now] : ticks) {
            operations += (operations.empty() ? "" : " ") + TickAt(now, front);
        }
        EXPECT_EQ(operations, expected);
        EXPECT_EQ(requests, QStringLiteral("0,1,SchedulerNotifications;"));  // one presenter
    }
}

TEST_F(NoticeTest, ShowsTheLocalTimeOfDayInTheLanguageOfTheLookAndFeelAndTheTranslation) {
    const QString text = QStringLiteral(
        "A recording is scheduled for %1. Don't turn off your PC and configure your capture area.");
    EXPECT_EQ(NoticeText(true, "en_US"), text.arg("<font color='#00bef9'>09:07</font>"));
    EXPECT_EQ(NoticeText(false, "ar_EG"), text.arg(QStringLiteral("٠٩:٠٧")));
    QTranslator translator;  // its destructor uninstalls it
    ASSERT_TRUE(translator.load(QStringLiteral(VEXLOR_TEST_QM_DE)));
    QCoreApplication::installTranslator(&translator);
    EXPECT_EQ(NoticeText(true, "de"),
              QStringLiteral("Für <font color='#00bef9'>09:07 Uhr</font> ist eine Aufnahme "
                             "geplant. Schalten Sie Ihren PC nicht aus und richten Sie Ihren "
                             "Aufnahmebereich ein."));
    EXPECT_EQ(presenter->shown->GetRejectButtonText(), QStringLiteral("Schließen"));
}

// A creator that makes nothing gets the console presenter, which prints to stdout.
TEST_F(NoticeTest, ConsolePresenterPrintsTheNoticeWithoutMarkupAndItsWithdrawal) {
    DesktopNotification::Presenter::Factory::GetInstance().SetCreator(
        [](int, int, const QString&) { return nullptr; });
    testing::internal::CaptureStdout();
    TickAt(S - 4 * HOUR, S);
    TickAt(S - WITHDRAW, S);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Notice: Vexlör Capture: A recording is scheduled for 16:00. Don't turn off your PC "
              "and configure your capture area.\nNotice withdrawn: Vexlör Capture\n");
}

// Through the real timer connection, sped up: an escaping exception would leave exec().
TEST_F(NoticeTest, NullServiceIsRefusedAndTickExceptionsStayInsideTheTimerSlotAndAreLogged) {
    EXPECT_THROW(NotificationHelper(nullptr, customization, look), std::logic_error);
    EXPECT_EQ(requests, QString());  // refused before a presenter is made
    Testing::LogCapture logs;
    presenter->throwing = true;  // a std::exception and an int by turns
    EXPECT_THROW(TickAt(DAY, DAY + 4 * HOUR), std::runtime_error);  // the tick lets them through
    EXPECT_EQ(notifier->timer.interval(), 10000);
    notifier->timer.start(1);
    QEventLoop loop;
    QTimer::singleShot(100, &loop, &QEventLoop::quit);
    loop.exec();
    EXPECT_GE(presenter->calls.size(), 4u);  // the timer kept ticking
    EXPECT_THAT(logs.entries,
                testing::Contains(testing::AllOf(testing::StartsWith("ERROR: "),
                                                 testing::HasSubstr("failed: presenter gone"))));
}

}  // namespace
}  // namespace Vexlor::QK
