#include <limits>
#include <memory>
#include <stdexcept>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Scheduler/Scheduler.h"
#include "fakes/FakeClock.h"
#include "fakes/FakeServices.h"
#include "fakes/LogCapture.h"
#include "fakes/RecordingRegistry.h"
#include "fakes/RecordingSchedulerObserver.h"

namespace Vexlor::QK {
namespace {

using Testing::AtMicros;
using testing::ElementsAre;
using FinishReason = Time::ITimer::FinishReason;

constexpr long long SEC = 1000000;
constexpr long long MAX = std::numeric_limits<long long>::max();
constexpr long long MIN = std::numeric_limits<long long>::min();
// 10:00:00 on some day, in microseconds since the epoch.
constexpr long long T0 = 1700000000LL * SEC;

RecordTime Rec(const char* title, long long startMicros, long long durationMicros = 60 * SEC) {
    RecordTime record;
    record.title = QString::fromUtf8(title);
    record.startTime = AtMicros(startMicros);
    record.duration = Time::Microseconds(durationMicros);
    record.tag = 7;
    record.mode = RecordMode::Mode2;
    return record;
}

// Settings whose next schedule write throws, as a full disk would.
class ThrowingSettings : public Testing::FakeSchedulerSettings {
public:
    void SetSchedule(const RecordTimeList& value) override {
        if (throwNext) {
            throwNext = false;
            throw std::runtime_error("write failed");
        }
        FakeSchedulerSettings::SetSchedule(value);
    }
    bool throwNext = false;
};

class SchedulerTest : public testing::Test {
protected:
    void Make() {
        scheduler = std::make_unique<Scheduler>(settings, ui, gateway, power, clock, timer);
        scheduler->RegisterEventHandler(&observer);
        power->calls.clear();
    }
    // Stored settings the scheduler is constructed from.
    void Store(RecordTimeList schedule, bool enabled) {
        settings->schedule = std::move(schedule);
        settings->enabled = enabled;
    }
    void At(long long micros) { clock->Set(AtMicros(micros)); }
    bool Fire(FinishReason reason = FinishReason::Elapsed) { return timer->Fire(reason); }
    void RunCallback(size_t i = 0) { gateway->sent.at(i).callback(); }

    std::shared_ptr<ThrowingSettings> settings = std::make_shared<ThrowingSettings>();
    std::shared_ptr<Testing::FakeUiSettings> ui = std::make_shared<Testing::FakeUiSettings>();
    std::shared_ptr<Testing::FakeGateway> gateway = std::make_shared<Testing::FakeGateway>();
    std::shared_ptr<Testing::FakePowerManager> power =
        std::make_shared<Testing::FakePowerManager>();
    std::shared_ptr<Testing::FakeClock> clock = std::make_shared<Testing::FakeClock>(AtMicros(T0));
    std::shared_ptr<Testing::FakeTimer> timer = std::make_shared<Testing::FakeTimer>();
    Testing::RecordingSchedulerObserver observer;
    std::unique_ptr<Scheduler> scheduler;
};

// Idle -> Polling -> (re-armed while not due) -> Requested.
TEST_F(SchedulerTest, PollsEvery100msUntilDueThenRequestsOnce) {
    Store({Rec("a", T0 + 30 * SEC), Rec("b", T0 + 90 * SEC)}, true);
    Make();
    ASSERT_EQ(timer->armed.size(), 1u);
    EXPECT_EQ(timer->armed[0].duration, Time::Microseconds(100000));

    At(T0 + 30 * SEC - 1);
    ASSERT_TRUE(Fire());
    EXPECT_TRUE(gateway->sent.empty());
    ASSERT_EQ(timer->armed.size(), 1u);
    EXPECT_EQ(timer->armed[0].duration, Time::Microseconds(100000));

    At(T0 + 30 * SEC);
    ASSERT_TRUE(Fire());
    ASSERT_EQ(gateway->sent.size(), 1u);
    EXPECT_EQ(gateway->sent[0].name, "RECORD_SCHEDULE");
    EXPECT_TRUE(timer->armed.empty());
    EXPECT_THAT(scheduler->GetSchedule(), ElementsAre(Rec("b", T0 + 90 * SEC)));
    EXPECT_EQ(settings->schedule, scheduler->GetSchedule());
    EXPECT_TRUE(scheduler->IsEnabled());
    EXPECT_TRUE(power->calls.empty());

    // Requested -> Polling on the next flag or schedule.
    scheduler->SetEnabled(true);
    EXPECT_EQ(timer->armed.size(), 1u);
}

TEST_F(SchedulerTest, RequestingTheLastRecordSwitchesTheSchedulerOff) {
    Store({Rec("a", T0 + SEC)}, true);
    Make();
    At(T0 + SEC);
    Fire();
    EXPECT_EQ(gateway->sent.size(), 1u);
    EXPECT_FALSE(scheduler->IsEnabled());
    EXPECT_FALSE(settings->enabled);
    EXPECT_TRUE(settings->schedule.empty());
    EXPECT_TRUE(timer->armed.empty());
    EXPECT_TRUE(power->calls.empty());
}

TEST_F(SchedulerTest, EnablingWithNothingAheadStaysIdle) {
    Make();
    const int enabledWrites = settings->enabledWrites;
    scheduler->SetSchedule({Rec("past", T0 - 1)});
    scheduler->SetEnabled(true);
    EXPECT_FALSE(scheduler->IsEnabled());
    EXPECT_EQ(settings->enabledWrites, enabledWrites);
    EXPECT_EQ(timer->starts, 0);
    EXPECT_THAT(power->calls, ElementsAre("AllowSleep", "AllowSleep"));
}

TEST_F(SchedulerTest, SameDataTwiceWritesNothingButPreventsSleepAgain) {
    Make();
    const RecordTimeList schedule{Rec("a", T0 + 60 * SEC)};
    scheduler->SetSchedule(schedule);
    scheduler->SetEnabled(true);
    const int scheduleWrites = settings->scheduleWrites;
    const int enabledWrites = settings->enabledWrites;
    scheduler->SetSchedule(schedule);
    scheduler->SetEnabled(true);
    EXPECT_EQ(settings->scheduleWrites, scheduleWrites);
    EXPECT_EQ(settings->enabledWrites, enabledWrites);
    EXPECT_THAT(power->calls,
                ElementsAre("AllowSleep", "PreventSleep", "PreventSleep", "PreventSleep"));
    EXPECT_EQ(timer->starts, 1);
}

TEST_F(SchedulerTest, SetScheduleNeverSwitchesOnButSetEnabledDoes) {
    Make();
    scheduler->SetSchedule({Rec("b", T0 + 90 * SEC), Rec("a", T0 + 30 * SEC)});
    EXPECT_EQ(settings->schedule,
              RecordTimeList({Rec("a", T0 + 30 * SEC), Rec("b", T0 + 90 * SEC)}));
    EXPECT_FALSE(scheduler->IsEnabled());
    EXPECT_EQ(timer->starts, 0);
    scheduler->SetEnabled(true);
    EXPECT_TRUE(settings->enabled);
    EXPECT_EQ(timer->armed.size(), 1u);
}

TEST_F(SchedulerTest, SetEnabledFalseStopsTheTimerAndAllowsSleep) {
    Store({Rec("a", T0 + 30 * SEC)}, true);
    Make();
    ASSERT_EQ(timer->armed.size(), 1u);
    scheduler->SetEnabled(false);
    EXPECT_TRUE(timer->armed.empty());
    EXPECT_EQ(timer->stops, 1);
    EXPECT_THAT(power->calls, ElementsAre("AllowSleep"));
    EXPECT_FALSE(settings->enabled);
    EXPECT_THAT(scheduler->GetSchedule(), ElementsAre(Rec("a", T0 + 30 * SEC)));
}

TEST_F(SchedulerTest, StoppedFinishOnlyClearsTheTimer) {
    Store({Rec("a", T0 + SEC), Rec("b", T0 + 100 * SEC)}, true);
    Make();
    At(T0 + 2 * SEC);
    Fire(FinishReason::Stopped);
    EXPECT_TRUE(gateway->sent.empty());
    EXPECT_TRUE(timer->armed.empty());
    EXPECT_EQ(scheduler->GetSchedule().size(), 2u);
    // With the old timer gone, the next start arms a new one.
    scheduler->SetEnabled(true);
    EXPECT_EQ(timer->armed.size(), 1u);
}

TEST_F(SchedulerTest, LeadTimeRequestsEarlyAndObserversGetTheStoredRecord) {
    ui->leadEnabled = true;
    ui->lead = Time::Microseconds(5 * SEC);
    const RecordTime record = Rec("a", T0 + 60 * SEC, 600 * SEC);
    Store({record}, true);
    Make();
    At(T0 + 55 * SEC - 1);
    Fire();
    EXPECT_TRUE(gateway->sent.empty());
    At(T0 + 55 * SEC);
    Fire();
    ASSERT_EQ(gateway->sent.size(), 1u);
    RunCallback();
    EXPECT_THAT(observer.started, ElementsAre(record));
}

struct LateStartRow {
    long long callbackAfterStart;
    long long duration;
    long long expectedDuration;
};

class LateStart : public SchedulerTest, public testing::WithParamInterface<LateStartRow> {};

TEST_P(LateStart, DurationIsCutByTheLatenessOfTheCallback) {
    const LateStartRow row = GetParam();
    Store({Rec("a", T0 + SEC, row.duration)}, true);
    Make();
    At(T0 + SEC);
    Fire();
    ASSERT_EQ(gateway->sent.size(), 1u);
    At(T0 + SEC + row.callbackAfterStart);
    RunCallback();
    ASSERT_EQ(observer.started.size(), 1u);
    EXPECT_EQ(observer.started[0].duration.count(), row.expectedDuration);
    EXPECT_EQ(observer.started[0].startTime, AtMicros(T0 + SEC));
}

INSTANTIATE_TEST_SUITE_P(Rows, LateStart,
                         testing::Values(LateStartRow{10 * SEC, 60 * SEC, 50 * SEC},  // 10 s late
                                         LateStartRow{0, 60 * SEC, 60 * SEC},         // on time
                                         LateStartRow{60 * SEC, 60 * SEC, 0},         // at the end
                                         LateStartRow{70 * SEC, 60 * SEC,
                                                      -10 * SEC},           // after the end
                                         LateStartRow{3600 * SEC, 0, 0}));  // no planned end

TEST_F(SchedulerTest, AsleepThroughWholeSpansDropsThemInOneExpiry) {
    Store({Rec("a", T0, 600 * SEC), Rec("b", T0 + 120 * SEC, 180 * SEC)}, true);
    Make();
    At(T0 + 900 * SEC);
    Fire();
    EXPECT_TRUE(gateway->sent.empty());
    EXPECT_TRUE(scheduler->GetSchedule().empty());
    EXPECT_FALSE(scheduler->IsEnabled());
    EXPECT_FALSE(settings->enabled);
    EXPECT_TRUE(settings->schedule.empty());
    EXPECT_TRUE(timer->armed.empty());
    // Lapsed: the power manager is not told.
    EXPECT_TRUE(power->calls.empty());
}

TEST_F(SchedulerTest, AfterDroppingAnOverRecordTheNextIsRequestedInTheSameExpiry) {
    Store({Rec("a", T0, 600 * SEC), Rec("b", T0 + 700 * SEC, 600 * SEC)}, true);
    Make();
    At(T0 + 900 * SEC);
    Fire();
    ASSERT_EQ(gateway->sent.size(), 1u);
    RunCallback();
    ASSERT_EQ(observer.started.size(), 1u);
    EXPECT_EQ(observer.started[0].title, "b");
    EXPECT_TRUE(scheduler->GetSchedule().empty());
}

TEST_F(SchedulerTest, ZeroDurationIsNeverOver) {
    Store({Rec("open", T0, 0)}, true);
    Make();
    At(T0 + 24 * 3600 * SEC);
    Fire();
    ASSERT_EQ(gateway->sent.size(), 1u);
    RunCallback();
    ASSERT_EQ(observer.started.size(), 1u);
    EXPECT_EQ(observer.started[0].duration.count(), 0);
}

// Polling -> Capturing -> Polling.
TEST_F(SchedulerTest, RunningCaptureDropsDueRecordsAndStopResumesPolling) {
    Store({Rec("a", T0 + SEC), Rec("b", T0 + 2 * SEC), Rec("c", T0 + 5 * SEC),
           Rec("d", T0 + 100 * SEC)},
          true);
    Make();
    scheduler->BeforeCaptureStarted(nullptr, {}, {});
    At(T0 + 3 * SEC);
    Fire();
    EXPECT_TRUE(gateway->sent.empty());
    EXPECT_TRUE(timer->armed.empty());
    EXPECT_THAT(scheduler->GetSchedule(),
                ElementsAre(Rec("c", T0 + 5 * SEC), Rec("d", T0 + 100 * SEC)));
    EXPECT_EQ(settings->schedule, scheduler->GetSchedule());

    At(T0 + 10 * SEC);  // "c" passes with no expiry
    scheduler->AfterCaptureStopped(nullptr);
    EXPECT_THAT(scheduler->GetSchedule(), ElementsAre(Rec("d", T0 + 100 * SEC)));
    EXPECT_EQ(settings->schedule, scheduler->GetSchedule());
    EXPECT_TRUE(scheduler->IsEnabled());
    EXPECT_EQ(timer->armed.size(), 1u);
    EXPECT_THAT(power->calls, ElementsAre("PreventSleep"));
    EXPECT_TRUE(gateway->sent.empty());
}

TEST_F(SchedulerTest, EnablingDuringACaptureArmsNothingUntilItStops) {
    Store({Rec("a", T0 + 60 * SEC)}, false);
    Make();
    scheduler->BeforeCaptureStarted(nullptr, {}, {});
    scheduler->SetEnabled(true);
    EXPECT_TRUE(scheduler->IsEnabled());
    EXPECT_TRUE(settings->enabled);
    EXPECT_TRUE(timer->armed.empty());
    EXPECT_TRUE(power->calls.empty());
    scheduler->AfterCaptureStopped(nullptr);
    EXPECT_EQ(timer->armed.size(), 1u);
}

TEST_F(SchedulerTest, ConstructionFromAllPastRecordsStoresEmptyAndOff) {
    Store({Rec("a", T0 - 2 * SEC), Rec("b", T0 - SEC)}, true);
    Make();
    EXPECT_TRUE(scheduler->GetSchedule().empty());
    EXPECT_FALSE(scheduler->IsEnabled());
    EXPECT_TRUE(settings->schedule.empty());
    EXPECT_FALSE(settings->enabled);
    EXPECT_TRUE(timer->armed.empty());
}

TEST_F(SchedulerTest, ConstructionWhileOffSortsAndAllowsSleep) {
    Store({Rec("c", T0 + 3 * SEC), Rec("a", T0 + SEC), Rec("b", T0 + 2 * SEC)}, false);
    scheduler = std::make_unique<Scheduler>(settings, ui, gateway, power, clock, timer);
    const RecordTimeList sorted{Rec("a", T0 + SEC), Rec("b", T0 + 2 * SEC), Rec("c", T0 + 3 * SEC)};
    EXPECT_EQ(scheduler->GetSchedule(), sorted);
    EXPECT_EQ(settings->schedule, sorted);
    EXPECT_FALSE(scheduler->IsEnabled());
    EXPECT_EQ(timer->starts, 0);
    EXPECT_THAT(power->calls, testing::Each(testing::Eq("AllowSleep")));
    EXPECT_FALSE(power->calls.empty());
}

TEST_F(SchedulerTest, ConstructionCollapsesDuplicatesWithOneWarningAndPolls) {
    Testing::LogCapture log;
    Store({Rec("a", T0 + SEC), Rec("b", T0 + SEC), Rec("c", T0 + 2 * SEC)}, true);
    Make();
    EXPECT_EQ(settings->schedule.size(), 2u);
    EXPECT_EQ(log.Entries().size(), 1u);
    EXPECT_TRUE(scheduler->IsEnabled());
    EXPECT_EQ(timer->armed.size(), 1u);
}

// Forwards every schedule change back into the scheduler, as an application may.
class ForwardingObserver : public ICaptureSchedulerSettingsObserver {
public:
    void OnSchedulerEnabledChanged(bool) override {}
    void OnScheduleChanged(const RecordTimeList&) override {
        ++calls;
        target->SetSchedule({Rec("injected", T0 + 500 * SEC)});
    }
    Scheduler* target = nullptr;
    int calls = 0;
};

TEST_F(SchedulerTest, SettingsObserverCallsDuringRemovalAreIgnored) {
    Store({Rec("a", T0 + SEC), Rec("b", T0 + 90 * SEC)}, true);
    Make();
    ForwardingObserver forward;
    forward.target = scheduler.get();
    settings->RegisterEventHandler(&forward);
    At(T0 + SEC);
    Fire();
    EXPECT_EQ(forward.calls, 1);
    EXPECT_THAT(scheduler->GetSchedule(), ElementsAre(Rec("b", T0 + 90 * SEC)));
    EXPECT_TRUE(scheduler->IsEnabled());
    settings->UnregisterEventHandler(&forward);
}

TEST_F(SchedulerTest, SettingsExceptionLeavesTheGuardRestored) {
    Store({Rec("a", T0 + SEC), Rec("b", T0 + 90 * SEC)}, true);
    Make();
    At(T0 + SEC);
    settings->throwNext = true;
    EXPECT_THROW(Fire(), std::runtime_error);
    scheduler->SetSchedule({Rec("c", T0 + 200 * SEC)});
    EXPECT_THAT(scheduler->GetSchedule(), ElementsAre(Rec("c", T0 + 200 * SEC)));

    scheduler->BeforeCaptureStarted(nullptr, {}, {});
    At(T0 + 300 * SEC);
    settings->throwNext = true;
    EXPECT_THROW(scheduler->AfterCaptureStopped(nullptr), std::runtime_error);
    scheduler->SetSchedule({Rec("d", T0 + 400 * SEC)});
    EXPECT_THAT(scheduler->GetSchedule(), ElementsAre(Rec("d", T0 + 400 * SEC)));
}

class NullService : public testing::TestWithParam<int> {};

TEST_P(NullService, IsRefusedAndNoReferenceIsKept) {
    Testing::RecordingRegistry registry;
    auto settings = std::make_shared<Testing::FakeSchedulerSettings>();
    auto ui = std::make_shared<Testing::FakeUiSettings>();
    auto gateway = std::make_shared<Testing::FakeGateway>();
    auto power = std::make_shared<Testing::FakePowerManager>();
    auto clock = std::make_shared<Testing::FakeClock>();
    auto timer = std::make_shared<Testing::FakeTimer>();
    const int nulled = GetParam();
    try {
        Scheduler scheduler(nulled == 0 ? nullptr : settings, nulled == 1 ? nullptr : ui,
                            nulled == 2 ? nullptr : gateway, nulled == 3 ? nullptr : power,
                            nulled == 4 ? nullptr : clock, nulled == 5 ? nullptr : timer);
        FAIL() << "constructed with a null service";
    } catch (const std::logic_error& error) {
        EXPECT_STREQ(error.what(), "NotNull can not initialized by null");
    }
    EXPECT_EQ(settings.use_count(), 1);
    EXPECT_EQ(ui.use_count(), 1);
    EXPECT_EQ(gateway.use_count(), 1);
    EXPECT_EQ(power.use_count(), 1);
    EXPECT_EQ(clock.use_count(), 1);
    EXPECT_EQ(timer.use_count(), 1);
    EXPECT_TRUE(registry.calls.empty());
    EXPECT_EQ(clock->reads, 0);
    EXPECT_EQ(settings->scheduleWrites + settings->enabledWrites, 0);
}

INSTANTIATE_TEST_SUITE_P(EachPosition, NullService, testing::Range(0, 6));

TEST_F(SchedulerTest, PublishedAsISchedulerForItsLifetime) {
    Testing::RecordingRegistry registry;
    Make();
    void* base = static_cast<IScheduler*>(scheduler.get());
    ASSERT_EQ(registry.calls.size(), 1u);
    EXPECT_EQ(registry.calls[0].op, "register");
    EXPECT_EQ(registry.calls[0].key, "Vexlor::QK::IScheduler");
    EXPECT_EQ(registry.calls[0].instance, base);
    EXPECT_EQ(registry.Find<IScheduler>(), base);
    scheduler.reset();
    ASSERT_EQ(registry.calls.size(), 2u);
    EXPECT_EQ(registry.calls[1].op, "unregister");
    EXPECT_EQ(registry.calls[1].key, "Vexlor::QK::IScheduler");
    EXPECT_EQ(registry.calls[1].instance, base);
    EXPECT_EQ(registry.Find<IScheduler>(), nullptr);
}

TEST_F(SchedulerTest, DestructionStopsTheTimerAndDisarmsHeldCallbacks) {
    Store({Rec("a", T0), Rec("b", T0 + 100 * SEC)}, true);
    Make();
    Fire();  // requests "a"; the gateway keeps its callback
    ASSERT_EQ(gateway->sent.size(), 1u);
    scheduler->SetEnabled(true);  // polling for "b"
    ASSERT_EQ(timer->armed.size(), 1u);
    const int stops = timer->stops;
    const size_t powerCalls = power->calls.size();

    scheduler.reset();
    EXPECT_EQ(timer->stops, stops + 1);
    EXPECT_FALSE(Fire());
    const int reads = clock->reads;
    At(T0 + 10 * SEC);
    RunCallback();
    EXPECT_TRUE(observer.started.empty());
    EXPECT_EQ(clock->reads, reads);
    EXPECT_EQ(power->calls.size(), powerCalls);
}

// Stored records may hold any 64-bit values; none of these may overflow (UBSan aborts on
// signed overflow in the sanitizer build), and where nothing overflows the results are the
// ordinary ones.
struct HostileRow {
    const char* name;
    long long now;
    long long start;
    long long duration;
    long long lead;  // 0: lead time off
    bool requested;
    long long callbackNow;
    long long observedDuration;
};

class HostileRecord : public SchedulerTest, public testing::WithParamInterface<HostileRow> {};

TEST_P(HostileRecord, IsHandledWithoutOverflow) {
    const HostileRow row = GetParam();
    ui->leadEnabled = row.lead != 0;
    ui->lead = Time::Microseconds(row.lead);
    At(row.now);
    Store({Rec("x", row.start, row.duration)}, true);
    Make();
    ASSERT_EQ(scheduler->GetSchedule().size(), 1u);
    Fire();
    ASSERT_EQ(gateway->sent.size(), row.requested ? 1u : 0u);
    if (!row.requested) {
        return;
    }
    At(row.callbackNow);
    RunCallback();
    ASSERT_EQ(observer.started.size(), 1u);
    EXPECT_EQ(observer.started[0].duration.count(), row.observedDuration);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, HostileRecord,
    testing::Values(HostileRow{"MaxDurationLate", T0, T0, MAX, 0, true, T0 + SEC, MAX - T0 - SEC},
                    HostileRow{"MaxStartMaxDuration", MAX, MAX, MAX, 0, false, 0, 0},
                    HostileRow{"MinDuration", T0, T0, MIN, 0, false, 0, 0},
                    HostileRow{"MinStartEndOverflowsOnCut", MIN, MIN, 5, 0, true, MAX, MIN},
                    HostileRow{"MaxLeadMakesMaxStartDue", 0, MAX, MAX, MAX, true, 0, MAX},
                    HostileRow{"MinLeadNeverDue", T0, T0, 60 * SEC, MIN, false, 0, 0},
                    HostileRow{"MaxLeadFromMinClock", MIN, MIN + 1, SEC, MAX, true, MIN + 1, SEC}),
    [](const testing::TestParamInfo<HostileRow>& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace Vexlor::QK
