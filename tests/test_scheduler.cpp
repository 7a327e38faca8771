#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <QStringList>

#include "Scheduler/Scheduler.h"
#include "Scheduler/SchedulerHelper.h"
#include "fakes/FakeClock.h"
#include "fakes/FakeServices.h"
#include "fakes/LogCapture.h"
#include "interfaces/InstanceRegistry.h"
#include "testing/SystemClockPin.h"

namespace Vexlor::QK {
namespace {

using namespace Testing;
using testing::ElementsAre;

constexpr long long SEC = 1000000, HOUR = 3600 * SEC, T0 = 1700000000LL * SEC;
constexpr long long MAX = std::numeric_limits<long long>::max(), MIN = -MAX - 1;

RecordTime Rec(long long start, long long duration = 60 * SEC) {
    return {QStringLiteral("R"), AtMicros(start), Time::Microseconds(duration), 7};
}

struct RecordingObserver : ISchedulerObserver {
    void OnScheduledCaptureStarted(const RecordTime& record) override { started.push_back(record); }
    std::vector<RecordTime> started;
};

class SchedulerTest : public testing::Test {
protected:
    void Make(RecordTimeList stored, bool enabled) {
        settings->schedule = std::move(stored);
        settings->enabled = enabled;
        scheduler = std::make_unique<Scheduler>(settings, ui, gateway, power, clock, timer);
        scheduler->RegisterEventHandler(&observer);
        power->calls.clear();
    }
    void At(long long micros) { clock->now = AtMicros(micros); }
    bool FireAt(long long micros) {
        At(micros);
        return timer->Fire();
    }

    std::shared_ptr<FakeSchedulerSettings> settings = std::make_shared<FakeSchedulerSettings>();
    std::shared_ptr<FakeUiSettings> ui = std::make_shared<FakeUiSettings>();
    std::shared_ptr<FakeGateway> gateway = std::make_shared<FakeGateway>();
    std::shared_ptr<FakePowerManager> power = std::make_shared<FakePowerManager>();
    std::shared_ptr<FakeClock> clock = std::make_shared<FakeClock>(AtMicros(T0));
    std::shared_ptr<FakeTimer> timer = std::make_shared<FakeTimer>();
    RecordingObserver observer;
    std::unique_ptr<Scheduler> scheduler;
};

// A schedule, stored or set: sorted, the first of the records with one start time (a warning
// counts the others), none that starts before now; what is left is written back.
TEST_F(SchedulerTest, KeepsOneRecordPerStartFromNowOnInOrderAndWritesItBack) {
    const std::string warning =
        "WARNING: Vexlor::QK::RecordTimeList Vexlor::QK::Scheduler::Impl::GetFilteredSchedule("
        "Vexlor::QK::RecordTimeList) const: Got tasks with similar start time. Number of tasks: ";
    const struct {
        RecordTimeList stored;
        bool enabled;
        RecordTimeList kept;
        std::vector<std::string> logged;
    } rows[] = {{{Rec(T0 + 3 * HOUR), Rec(T0 - 1, HOUR), Rec(T0 + 1), Rec(T0), Rec(MIN)},
                 false,
                 {Rec(T0), Rec(T0 + 1), Rec(T0 + 3 * HOUR)},
                 {}},
                {{Rec(T0 + HOUR, 5), Rec(T0 + 2 * HOUR), Rec(T0 + HOUR, 7), Rec(T0 + HOUR, 9)},
                 true,
                 {Rec(T0 + HOUR, 5), Rec(T0 + 2 * HOUR)},
                 {warning + "2"}},
                {{Rec(T0 - 2 * HOUR), Rec(T0 - 2 * HOUR)}, true, {}, {warning + "1"}}};
    for (const auto& row : rows) {
        for (const bool stored : {true, false}) {  // else set afterwards, in the same order
            SCOPED_TRACE(testing::Message() << "row " << &row - rows << " stored " << stored);
            LogCapture logs;
            Make(stored ? row.stored : RecordTimeList{}, row.enabled);
            if (!stored) {
                scheduler->SetSchedule(row.stored);
                scheduler->SetEnabled(row.enabled);
            }
            EXPECT_EQ(settings->schedule, row.kept);
            EXPECT_EQ(scheduler->GetSchedule(), row.kept);
            const bool on = row.enabled && !row.kept.empty();
            EXPECT_EQ(scheduler->IsEnabled(), on);
            EXPECT_EQ(settings->enabled, on);
            EXPECT_EQ(timer->armed.size(), on ? 1u : 0u);
            EXPECT_EQ(logs.entries, row.logged);
        }
    }
}

enum Outcome { POLL, REQUEST, DROP };

// One record, constructed at min(start, fireAt) and examined by one expiry at fireAt; when
// requested, its callback runs at callbackAt. Extreme 64-bit values must not overflow (UBSan
// aborts on it); where nothing overflows the results are the ordinary ones.
struct ExpiryRow {
    const char* name;
    long long start, duration, lead, fireAt;
    Outcome outcome;
    long long callbackAt = 0, observedDuration = 0;  // when requested
};

class FirstExpiry : public SchedulerTest, public testing::WithParamInterface<ExpiryRow> {};

TEST_P(FirstExpiry, PollsRequestsOrDrops) {
    const ExpiryRow& row = GetParam();
    ui->leadEnabled = row.lead != 0;
    ui->lead = Time::Microseconds(row.lead);
    At(std::min(row.start, row.fireAt));
    Make({Rec(row.start, row.duration)}, true);
    FireAt(row.fireAt);
    const bool polling = row.outcome == POLL;
    ASSERT_EQ(gateway->sent.size(), row.outcome == REQUEST ? 1u : 0u);
    ASSERT_EQ(timer->armed.size(), polling ? 1u : 0u);
    EXPECT_TRUE(!polling || timer->armed.front().duration == Time::Microseconds(100000));
    EXPECT_EQ(settings->schedule.size(), polling ? 1u : 0u);
    EXPECT_EQ(scheduler->IsEnabled(), polling);
    EXPECT_EQ(settings->enabled, polling);
    EXPECT_TRUE(power->calls.empty());
    if (row.outcome == REQUEST) {
        At(row.callbackAt);
        gateway->sent[0].callback();
        EXPECT_THAT(observer.started, ElementsAre(Rec(row.start, row.observedDuration)));
    }
}

INSTANTIATE_TEST_SUITE_P(
    Rows, FirstExpiry,
    testing::Values(
        ExpiryRow{"BeforeLead", T0 + 60 * SEC, 600 * SEC, 5 * SEC, T0 + 55 * SEC - 1, POLL},
        ExpiryRow{"AtLeadFullDuration", T0 + 60 * SEC, 600 * SEC, 5 * SEC, T0 + 55 * SEC, REQUEST,
                  T0 + 55 * SEC, 600 * SEC},
        ExpiryRow{"Late10s", T0, 60 * SEC, 0, T0, REQUEST, T0 + 10 * SEC, 50 * SEC},
        ExpiryRow{"CallbackAfterEnd", T0, 60 * SEC, 0, T0, REQUEST, T0 + 70 * SEC, -10 * SEC},
        ExpiryRow{"LastMomentOfSpan", T0, 60 * SEC, 0, T0 + 60 * SEC - 1, REQUEST, T0, 60 * SEC},
        ExpiryRow{"AsleepToSpanEnd", T0, 60 * SEC, 0, T0 + 60 * SEC, DROP},
        ExpiryRow{"ZeroDurationNeverOver", T0, 0, 0, T0 + 86400 * SEC, REQUEST, MAX, 0},
        ExpiryRow{"MaxDurationLate", T0, MAX, 0, T0, REQUEST, T0 + SEC, MAX - T0 - SEC},
        ExpiryRow{"MaxStartMaxDuration", MAX, MAX, 0, MAX, DROP},
        ExpiryRow{"MinDuration", T0, MIN, 0, T0, DROP},
        ExpiryRow{"MinStartEndOverflowsOnCut", MIN, 5, 0, MIN, REQUEST, MAX, MIN},
        ExpiryRow{"MinLeadNeverDue", T0, 60 * SEC, MIN, T0, POLL},
        ExpiryRow{"MaxLeadFromMinClock", MIN + 1, SEC, MAX, MIN, REQUEST, MIN + 1, SEC}),
    [](const testing::TestParamInfo<ExpiryRow>& info) { return std::string(info.param.name); });

// Polling -> Capturing -> Polling; then one expiry finds a record lapsed, drops it and
// requests the next, with more to come.
TEST_F(SchedulerTest, RunningCaptureDropsDueRecordsThenALapsedRecordMakesWayForTheNext) {
    const RecordTimeList all({Rec(T0 + SEC), Rec(T0 + 2 * SEC), Rec(T0 + 5 * SEC),
                              Rec(T0 + 100 * SEC, 600 * SEC), Rec(T0 + 800 * SEC, 600 * SEC),
                              Rec(T0 + 2000 * SEC)});
    Make(all, true);
    scheduler->BeforeCaptureStarted(nullptr, {}, {});
    FireAt(T0 + 3 * SEC);
    EXPECT_TRUE(timer->armed.empty());
    EXPECT_EQ(settings->schedule, RecordTimeList(all.begin() + 2, all.end()));
    At(T0 + 10 * SEC);  // the third record passes with no expiry
    scheduler->AfterCaptureStopped(nullptr);
    EXPECT_EQ(settings->schedule, RecordTimeList(all.begin() + 3, all.end()));
    EXPECT_EQ(scheduler->GetSchedule(), settings->schedule);
    EXPECT_EQ(timer->armed.size(), 1u);

    FireAt(T0 + 1000 * SEC);
    ASSERT_EQ(gateway->sent.size(), 1u);
    EXPECT_TRUE(timer->armed.empty() && settings->enabled);
    EXPECT_EQ(settings->schedule, RecordTimeList{all.back()});
    EXPECT_THAT(power->calls, ElementsAre("PreventSleep"));
    gateway->sent[0].callback();
    EXPECT_THAT(observer.started, ElementsAre(Rec(T0 + 800 * SEC, 400 * SEC)));  // 200 s late
}

TEST_F(SchedulerTest, SameDataTwiceWritesNothingStoppedFinishOnlyClearsDisablingStops) {
    Make({Rec(T0 + 60 * SEC)}, true);
    const int writes = settings->writes;
    scheduler->SetSchedule({Rec(T0 + 60 * SEC)});
    scheduler->SetEnabled(true);
    EXPECT_EQ(settings->writes, writes);
    ASSERT_EQ(timer->armed.size(), 1u);
    timer->Fire(Time::ITimer::FinishReason::Stopped);
    EXPECT_TRUE(timer->armed.empty());
    scheduler->SetEnabled(true);  // the old timer is gone, so a new one is armed
    ASSERT_EQ(timer->armed.size(), 1u);
    timer->Fire(Time::ITimer::FinishReason::Stopped);
    scheduler->SetEnabled(false);  // released even with no timer to stop
    EXPECT_TRUE(timer->armed.empty() && gateway->sent.empty());
    EXPECT_FALSE(settings->enabled);
    EXPECT_THAT(power->calls,
                ElementsAre("PreventSleep", "PreventSleep", "PreventSleep", "AllowSleep"));
}

TEST_F(SchedulerTest, SettingsCallbacksDuringRemovalAreIgnoredAndAThrowRestoresTheGuard) {
    Make({Rec(T0 + SEC), Rec(T0 + 90 * SEC)}, true);
    settings->onSetSchedule = [this] { scheduler->SetSchedule({Rec(T0 + 500 * SEC)}); };
    FireAt(T0 + SEC);
    EXPECT_EQ(scheduler->GetSchedule(), RecordTimeList{Rec(T0 + 90 * SEC)});
    EXPECT_TRUE(scheduler->IsEnabled());

    settings->onSetSchedule = [] { throw std::runtime_error("disk full"); };
    scheduler->SetEnabled(true);
    EXPECT_THROW(FireAt(T0 + 90 * SEC), std::runtime_error);
    settings->onSetSchedule = nullptr;
    scheduler->SetSchedule({Rec(T0 + 300 * SEC)});
    EXPECT_EQ(scheduler->GetSchedule(), RecordTimeList{Rec(T0 + 300 * SEC)});
}

// A null service is refused, with no reference kept and nothing published. Under ASan a timer
// or callback reaching the freed engine fails the test outright.
TEST_F(SchedulerTest, RefusesNullServicesAndIsPublishedUntilDestroyedThenUnreachable) {
    InstanceRegistry registry;
    ScopedInstanceRegistry installed(&registry);
    for (int n = 0; n < 6; ++n) {
        EXPECT_THAT(
            [&] {
                Scheduler(n == 0 ? nullptr : settings, n == 1 ? nullptr : ui,
                          n == 2 ? nullptr : gateway, n == 3 ? nullptr : power,
                          n == 4 ? nullptr : clock, n == 5 ? nullptr : timer);
            },
            testing::ThrowsMessage<std::logic_error>("NotNull can not initialized by null"))
            << "null at " << n;
    }
    EXPECT_THAT((std::vector<long>{settings.use_count(), ui.use_count(), gateway.use_count(),
                                   power.use_count(), clock.use_count(), timer.use_count()}),
                testing::Each(1));
    EXPECT_EQ(registry.DoFind("Vexlor::QK::IScheduler"), nullptr);
    EXPECT_EQ(clock->reads + settings->writes, 0);

    Make({Rec(T0), Rec(T0 + 100 * SEC)}, true);
    timer->Fire();                // requests the first record; the gateway keeps its callback
    scheduler->SetEnabled(true);  // polling for the second
    ASSERT_EQ(gateway->sent.size() + timer->armed.size(), 2u);
    EXPECT_EQ(registry.DoFind("Vexlor::QK::IScheduler"), static_cast<IScheduler*>(scheduler.get()));
    const auto powerCalls = power->calls.size();
    scheduler.reset();
    EXPECT_FALSE(timer->Fire());
    const int reads = clock->reads;
    gateway->sent[0].callback();
    EXPECT_TRUE(observer.started.empty());
    EXPECT_EQ(clock->reads, reads);
    EXPECT_EQ(power->calls.size(), powerCalls);
    EXPECT_EQ(registry.DoFind("Vexlor::QK::IScheduler"), nullptr);
}

// The editor reads the wall clock, pinned at T0; say that is 08:00.
class SchedulerHelperTest : public testing::Test {
protected:
    SchedulerHelperTest() { Testing::PinSystemClock(AtMicros(T0)); }
    ~SchedulerHelperTest() override { Testing::UnpinSystemClock(); }
    QString Titles() const {
        QStringList titles;
        for (const RecordTime& record : editor.GetPreparedSchedule()) {
            titles << record.title;
        }
        return titles.join(", ");
    }
    SchedulerHelper editor;
};

RecordTime Named(const char* title, long long start, long long duration = HOUR) {
    return {title, AtMicros(start), Time::Microseconds(duration), 7, RecordMode::Mode2};
}

constexpr long long H10 = T0 + 2 * HOUR, H11 = T0 + 3 * HOUR;

// Inserted at the lower bound, in front of equal starts; refused only when it ended before now.
TEST_F(SchedulerHelperTest, InsertsInStartOrderAndRefusesWhatIsOver) {
    EXPECT_EQ(editor.AddRecord(Named("10:00", H10)), 0);
    EXPECT_EQ(editor.AddRecord(Named("09:00", H10 - HOUR)), 0);
    EXPECT_EQ(editor.AddRecord(Named("11:00", H11)), 2);
    EXPECT_EQ(editor.AddRecord(Named("10:00 b", H10)), 1);
    EXPECT_EQ(editor.AddRecord(Named("ended 1 us ago", T0 - HOUR - 1)), -1);
    EXPECT_EQ(editor.AddRecord(Named("ends now", T0 - HOUR)), 0);
    EXPECT_EQ(editor.AddRecord(Named("no end a year ago", T0 - 365 * 24 * HOUR, 0)), 0);
    EXPECT_EQ(editor.AddRecord(Named("negative duration", T0, -1)), -1);
    EXPECT_EQ(editor.AddRecord(Named("end saturates", MAX - SEC)), 6);
    EXPECT_EQ(Titles(), "no end a year ago, ends now, 09:00, 10:00 b, 10:00, 11:00, end saturates");
}

// Spans are closed intervals. Titles compare exactly, in the test as in the removal, which
// keeps the order of the rest.
TEST_F(SchedulerHelperTest, FindsOverlapsAndTitlesAndRemovesEveryMatch) {
    editor.AddRecord(Named("earlier", T0, HOUR / 2));  // meets no candidate
    long long start = H10;                             // then 10:00 to 11:00, 13:00 to 14:00, ...
    for (const char* title : {"x", "X", "x", "c"}) {
        editor.AddRecord(Named(title, std::exchange(start, start + 3 * HOUR)));
    }
    EXPECT_TRUE(editor.DoesCaptureTimeIntersected(Named("from its end", H11)));
    EXPECT_FALSE(editor.DoesCaptureTimeIntersected(Named("just after", H11 + 1)));
    EXPECT_TRUE(editor.DoesCaptureTimeIntersected(Named("to its start", H10 - HOUR)));
    EXPECT_FALSE(editor.DoesCaptureTimeIntersected(Named("just before", H10 - HOUR, HOUR - 1)));
    EXPECT_TRUE(editor.DoesCaptureTimeIntersected(Named("instant inside", H10 + 1, 0)));
    editor.RemoveRecord("x");
    EXPECT_EQ(Titles(), "earlier, X, c");
    EXPECT_TRUE(editor.DoesTitleAlreadyExists("X"));
    EXPECT_FALSE(editor.DoesTitleAlreadyExists("x"));
    EXPECT_FALSE(editor.DoesTitleAlreadyExists("c "));
}

}  // namespace
}  // namespace Vexlor::QK
