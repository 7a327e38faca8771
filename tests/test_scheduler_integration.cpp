// The platform stand-ins on a real event loop.
#include <chrono>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QThread>

#include "platform/QtDurationTimer.h"
#include "platform/QueuedGateway.h"
#include "platform/StatePowerManager.h"

namespace Vexlor::QK {
namespace {

using namespace std::chrono_literals;
using FinishReason = Time::ITimer::FinishReason;

// Runs the event loop until `done` holds or `timeoutMs` has passed; returns whether it held.
bool RunLoopUntil(const std::function<bool()>& done, int timeoutMs) {
    QElapsedTimer elapsed;
    elapsed.start();
    while (!done() && !elapsed.hasExpired(timeoutMs)) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
    }
    return done();
}

// One release after many requests: a state, not a counter.
TEST(StatePowerManager, OneAllowSleepEndsAnyNumberOfPreventSleeps) {
    App::StatePowerManager power;
    power.PreventSleep();
    power.PreventSleep();
    EXPECT_TRUE(power.IsSleepPrevented());
    power.AllowSleep();
    EXPECT_FALSE(power.IsSleepPrevented());
}

TEST(QtDurationTimer, FiresOnceNotEarlyOnTheArmingThreadUnlessStoppedOrDestroyed) {
    std::vector<std::pair<FinishReason, QThread*>> finishes;
    const auto record = [&](FinishReason reason) {
        finishes.emplace_back(reason, QThread::currentThread());
    };
    const auto armedAt = std::chrono::steady_clock::now();
    {
        Time::QtDurationTimer timer;
        timer.Start(Time::Microseconds(50500), record);
        timer.Stop(timer.Start(20ms, record));
        // Beyond QTimer's int milliseconds: must neither wrap into a short interval nor fire.
        timer.Start(Time::Microseconds(std::numeric_limits<long long>::max()), record);
        timer.Start(Time::Microseconds((1LL << 32) * 1000 + 5000), record);
        ASSERT_TRUE(RunLoopUntil([&] { return !finishes.empty(); }, 2000));
        EXPECT_GE(std::chrono::steady_clock::now() - armedAt, 50500us);
        timer.Start(20ms, record);  // still armed when the service goes
    }
    RunLoopUntil([] { return false; }, 100);
    EXPECT_THAT(finishes, testing::ElementsAre(
                              std::make_pair(FinishReason::Elapsed, QThread::currentThread())));
}

TEST(QueuedGateway, DeliversLaterToTheHandlerOfTheNameOnly) {
    ExternalStimulus::QueuedGateway gateway;
    std::vector<std::string> delivered;
    gateway.RegisterHandler(
        "A", [&](ExternalStimulus::Stimulus stimulus) { delivered.push_back(stimulus.name); });
    gateway.SendStimulus({"A", nullptr});
    gateway.SendStimulus({"NONE", nullptr});
    EXPECT_TRUE(delivered.empty());
    RunLoopUntil([] { return false; }, 50);
    EXPECT_THAT(delivered, testing::ElementsAre("A"));
}

}  // namespace
}  // namespace Vexlor::QK
