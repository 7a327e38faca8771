#include <limits>
#include <memory>
#include <stdexcept>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Scheduler/Scheduler.h"
#include "fakes/FakeClock.h"
#include "fakes/FakeServices.h"
#include "fakes/RecordingRegistry.h"

namespace Vexlor::QK {
namespace {

using namespace Testing;
using testing::ElementsAre;

constexpr long long SEC = 1000000, T0 = 1700000000LL * SEC;
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
        EXPECT_EQ(gateway->sent[0].name, "RECORD_SCHEDULE");
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
        ExpiryRow{"CallbackAtEnd", T0, 60 * SEC, 0, T0, REQUEST, T0 + 60 * SEC, 0},
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

// Lapsed, then Requested with more to come, then Polling again.
TEST_F(SchedulerTest, DroppedRecordIsFollowedByTheNextInTheSameExpiry) {
    Make({Rec(T0, 600 * SEC), Rec(T0 + 700 * SEC, 600 * SEC), Rec(T0 + 2000 * SEC)}, true);
    FireAt(T0 + 900 * SEC);
    ASSERT_EQ(gateway->sent.size(), 1u);
    EXPECT_TRUE(timer->armed.empty() && power->calls.empty() && settings->enabled);
    EXPECT_EQ(settings->schedule, RecordTimeList{Rec(T0 + 2000 * SEC)});
    EXPECT_EQ(scheduler->GetSchedule(), settings->schedule);
    gateway->sent[0].callback();
    EXPECT_THAT(observer.started, ElementsAre(Rec(T0 + 700 * SEC, 400 * SEC)));  // 200 s late
    scheduler->SetEnabled(true);
    EXPECT_EQ(timer->armed.size(), 1u);
}

// Polling -> Capturing -> Polling.
TEST_F(SchedulerTest, RunningCaptureDropsDueRecordsAndStopResumesPolling) {
    Make({Rec(T0 + SEC), Rec(T0 + 2 * SEC), Rec(T0 + 5 * SEC), Rec(T0 + 100 * SEC)}, true);
    scheduler->BeforeCaptureStarted(nullptr, {}, {});
    FireAt(T0 + 3 * SEC);
    EXPECT_TRUE(timer->armed.empty());
    EXPECT_EQ(settings->schedule, RecordTimeList({Rec(T0 + 5 * SEC), Rec(T0 + 100 * SEC)}));
    At(T0 + 10 * SEC);  // the third record passes with no expiry
    scheduler->AfterCaptureStopped(nullptr);
    EXPECT_EQ(settings->schedule, RecordTimeList{Rec(T0 + 100 * SEC)});
    EXPECT_EQ(scheduler->GetSchedule(), settings->schedule);
    EXPECT_EQ(timer->armed.size(), 1u);
    EXPECT_THAT(power->calls, ElementsAre("PreventSleep"));
    EXPECT_TRUE(gateway->sent.empty());
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
    EXPECT_EQ(timer->armed.size(), 1u);
    scheduler->SetEnabled(false);
    EXPECT_TRUE(timer->armed.empty() && gateway->sent.empty());
    EXPECT_FALSE(settings->enabled);
    EXPECT_THAT(power->calls,
                ElementsAre("PreventSleep", "PreventSleep", "PreventSleep", "AllowSleep"));
}

TEST_F(SchedulerTest, ConstructionFromStoredSettings) {
    Make({Rec(T0 - 2 * SEC), Rec(T0 - SEC)}, true);
    EXPECT_TRUE(settings->schedule.empty());
    EXPECT_FALSE(scheduler->IsEnabled() || settings->enabled);

    settings->schedule = {Rec(T0 + 3 * SEC), Rec(T0 + SEC), Rec(T0 + 2 * SEC)};
    scheduler = std::make_unique<Scheduler>(settings, ui, gateway, power, clock, timer);
    EXPECT_EQ(settings->schedule,
              RecordTimeList({Rec(T0 + SEC), Rec(T0 + 2 * SEC), Rec(T0 + 3 * SEC)}));
    EXPECT_FALSE(scheduler->IsEnabled() || settings->enabled);
    EXPECT_TRUE(timer->armed.empty());
    EXPECT_THAT(power->calls, testing::AllOf(testing::Each("AllowSleep"), testing::SizeIs(2)));
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

class NullService : public SchedulerTest, public testing::WithParamInterface<int> {};

TEST_P(NullService, IsRefusedAndNoReferenceIsKept) {
    RecordingRegistry registry;
    const int n = GetParam();
    EXPECT_THROW(
        Scheduler(n == 0 ? nullptr : settings, n == 1 ? nullptr : ui, n == 2 ? nullptr : gateway,
                  n == 3 ? nullptr : power, n == 4 ? nullptr : clock, n == 5 ? nullptr : timer),
        std::logic_error);
    EXPECT_THAT((std::vector<long>{settings.use_count(), ui.use_count(), gateway.use_count(),
                                   power.use_count(), clock.use_count(), timer.use_count()}),
                testing::Each(1));
    EXPECT_TRUE(registry.calls.empty());
    EXPECT_EQ(clock->reads + settings->writes, 0);
}

INSTANTIATE_TEST_SUITE_P(EachPosition, NullService, testing::Range(0, 6));

// Under ASan a timer or callback reaching the freed engine fails the test outright.
TEST_F(SchedulerTest, PublishedUntilDestroyedThenReachedByNeitherTimerNorHeldCallback) {
    RecordingRegistry registry;
    Make({Rec(T0), Rec(T0 + 100 * SEC)}, true);
    void* base = static_cast<IScheduler*>(scheduler.get());
    timer->Fire();                // requests the first record; the gateway keeps its callback
    scheduler->SetEnabled(true);  // polling for the second
    ASSERT_EQ(gateway->sent.size() + timer->armed.size(), 2u);
    EXPECT_EQ(registry.Find<IScheduler>(), base);
    EXPECT_EQ(registry.calls.at(0).key, "Vexlor::QK::IScheduler");
    const auto powerCalls = power->calls.size();
    scheduler.reset();
    EXPECT_FALSE(timer->Fire());
    const int reads = clock->reads;
    gateway->sent[0].callback();
    EXPECT_TRUE(observer.started.empty());
    EXPECT_EQ(clock->reads, reads);
    EXPECT_EQ(power->calls.size(), powerCalls);
    EXPECT_EQ(registry.calls.back().op, "unregister");
    EXPECT_EQ(registry.Find<IScheduler>(), nullptr);
}

}  // namespace
}  // namespace Vexlor::QK
