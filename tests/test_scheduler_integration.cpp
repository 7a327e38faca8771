// The scheduler on a real event loop, with the QTimer-based timer and the queued gateway.
#include <chrono>
#include <memory>
#include <vector>

#include <gtest/gtest.h>
#include <QCoreApplication>

#include "Scheduler/Scheduler.h"
#include "fakes/FakeClock.h"
#include "fakes/FakeServices.h"
#include "fakes/RecordingSchedulerObserver.h"
#include "platform/FixedUiSettings.h"
#include "platform/QtDurationTimer.h"
#include "platform/QueuedGateway.h"
#include "platform/StatePowerManager.h"
#include "support/EventLoop.h"

namespace Vexlor::QK {
namespace {

using namespace std::chrono_literals;
using Testing::RunLoopFor;
using Testing::RunLoopUntil;

RecordTime Rec(const char* title, Time::TimePoint start, Time::Microseconds duration) {
    RecordTime record;
    record.title = QString::fromUtf8(title);
    record.startTime = start;
    record.duration = duration;
    return record;
}

class SchedulerOnEventLoop : public testing::Test {
protected:
    void SetUp() override {
        Time::SystemClock::ClearFixedNow();
        gateway->RegisterHandler("RECORD_SCHEDULE", [this](ExternalStimulus::Stimulus stimulus) {
            requestedAt.push_back(clock->Now());
            stimulus.callback();
        });
    }
    void Make(const std::shared_ptr<Time::ISystemClock>& useClock) {
        scheduler = std::make_unique<Scheduler>(settings, ui, gateway, power, useClock, timer);
        scheduler->RegisterEventHandler(&observer);
    }

    std::shared_ptr<Testing::FakeSchedulerSettings> settings =
        std::make_shared<Testing::FakeSchedulerSettings>();
    std::shared_ptr<FixedUiSettings> ui = std::make_shared<FixedUiSettings>(false, 0us);
    std::shared_ptr<ExternalStimulus::QueuedGateway> gateway =
        std::make_shared<ExternalStimulus::QueuedGateway>();
    std::shared_ptr<App::StatePowerManager> power = std::make_shared<App::StatePowerManager>();
    std::shared_ptr<Time::SystemClock> clock = std::make_shared<Time::SystemClock>();
    std::shared_ptr<Time::QtDurationTimer> timer = std::make_shared<Time::QtDurationTimer>();
    std::vector<Time::TimePoint> requestedAt;
    Testing::RecordingSchedulerObserver observer;
    std::unique_ptr<Scheduler> scheduler;
};

TEST_F(SchedulerOnEventLoop, RecordIsRequestedOnceSoonAfterItsStart) {
    const Time::TimePoint start = clock->Now() + 300ms;
    settings->schedule = {Rec("soon", start, 10s)};
    settings->enabled = true;
    Make(clock);
    EXPECT_TRUE(power->IsSleepPrevented());

    ASSERT_TRUE(RunLoopUntil([&] { return !requestedAt.empty(); }, 3000));
    RunLoopFor(300);  // room for a second, wrong request
    ASSERT_EQ(requestedAt.size(), 1u);
    EXPECT_GE(requestedAt[0], start);
    EXPECT_LE(requestedAt[0] - start, 150ms);
    ASSERT_EQ(observer.started.size(), 1u);
    EXPECT_EQ(observer.started[0].startTime, start);
    EXPECT_LE(observer.started[0].duration, 10s);
    EXPECT_FALSE(scheduler->IsEnabled());
    EXPECT_TRUE(settings->schedule.empty());
}

TEST_F(SchedulerOnEventLoop, RecordWhoseStartPassesDuringACaptureIsDropped) {
    const Time::TimePoint now = clock->Now();
    const RecordTime later = Rec("later", now + 60s, 10s);
    settings->schedule = {Rec("during", now + 200ms, 10s), later};
    settings->enabled = true;
    Make(clock);
    scheduler->BeforeCaptureStarted(nullptr, {}, {});

    RunLoopFor(400);  // "during" comes due while the capture runs
    EXPECT_TRUE(requestedAt.empty());

    scheduler->AfterCaptureStopped(nullptr);
    EXPECT_EQ(scheduler->GetSchedule(), RecordTimeList({later}));
    EXPECT_TRUE(scheduler->IsEnabled());
    EXPECT_TRUE(power->IsSleepPrevented());
    RunLoopFor(250);  // polling again, nothing due
    EXPECT_TRUE(requestedAt.empty());
    EXPECT_EQ(settings->schedule, RecordTimeList({later}));
}

// Destroyed while its timer is armed and while a delivery of its stimulus is queued: the
// timer must not fire into it and the delivered callback must not reach it (ASan checks
// the memory; the counters check the behaviour).
TEST_F(SchedulerOnEventLoop, DestroyedSchedulerIsReachedByNeitherTimerNorQueuedCallback) {
    auto fakeClock = std::make_shared<Testing::FakeClock>(Testing::AtMicros(1000000000));
    const Time::TimePoint t0 = fakeClock->Now();
    settings->schedule = {Rec("due", t0, 10s), Rec("next", t0 + 100s, 10s)};
    settings->enabled = true;
    Make(fakeClock);

    // One expiry requests "due"; its delivery stays queued until the loop runs again.
    while (settings->schedule.size() == 2) {
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    }
    ASSERT_TRUE(requestedAt.empty()) << "delivered early; the test needs it queued";
    scheduler->SetEnabled(true);  // polling for "next"
    scheduler.reset();

    const int reads = fakeClock->reads;
    fakeClock->Set(t0 + 200s);  // anything reaching the engine now would act
    RunLoopFor(350);
    EXPECT_EQ(requestedAt.size(), 1u);
    EXPECT_TRUE(observer.started.empty());
    EXPECT_EQ(fakeClock->reads, reads);
}

}  // namespace
}  // namespace Vexlor::QK
