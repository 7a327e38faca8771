#include <atomic>
#include <chrono>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <QObject>
#include <QThread>

#include "platform/QtDurationTimer.h"
#include "platform/QueuedGateway.h"
#include "platform/StatePowerManager.h"
#include "support/EventLoop.h"

namespace Vexlor {
namespace {

using namespace std::chrono_literals;
using FinishReason = Time::ITimer::FinishReason;
using Testing::RunLoopFor;
using Testing::RunLoopUntil;

struct Finish {
    FinishReason reason;
    std::chrono::steady_clock::time_point at;
    QThread* thread;
};

Time::IDurationTimer::Callback Recorder(std::vector<Finish>& finishes) {
    return [&finishes](FinishReason reason) {
        finishes.push_back({reason, std::chrono::steady_clock::now(), QThread::currentThread()});
    };
}

TEST(QtDurationTimer, FiresOnceNotBeforeItsDurationOnTheArmingThread) {
    Time::QtDurationTimer timer;
    std::vector<Finish> finishes;
    const auto armedAt = std::chrono::steady_clock::now();
    timer.Start(Time::Microseconds(50500), Recorder(finishes));
    ASSERT_TRUE(RunLoopUntil([&] { return !finishes.empty(); }, 2000));
    RunLoopFor(100);
    ASSERT_EQ(finishes.size(), 1u);
    EXPECT_EQ(finishes[0].reason, FinishReason::Elapsed);
    EXPECT_GE(finishes[0].at - armedAt, 50500us);
    EXPECT_EQ(finishes[0].thread, QThread::currentThread());
}

TEST(QtDurationTimer, StopAndDestructionDropTheCallback) {
    std::vector<Finish> finishes;
    {
        Time::QtDurationTimer timer;
        Time::TimerId* stopped = timer.Start(20ms, Recorder(finishes));
        timer.Start(20ms, Recorder(finishes));  // still armed when the service goes
        timer.Stop(stopped);
        timer.Stop(stopped);  // already gone: ignored
    }
    RunLoopFor(100);
    EXPECT_TRUE(finishes.empty());
}

// A duration beyond QTimer's int milliseconds must neither wrap into a short interval nor
// fire at once.
TEST(QtDurationTimer, FarFutureDurationsDoNotFireEarly) {
    Time::QtDurationTimer timer;
    std::vector<Finish> finishes;
    timer.Start(Time::Microseconds(std::numeric_limits<long long>::max()), Recorder(finishes));
    timer.Start(std::chrono::hours(24 * 30), Recorder(finishes));
    timer.Start(Time::Microseconds((1LL << 32) * 1000 + 5000), Recorder(finishes));
    RunLoopFor(150);
    EXPECT_TRUE(finishes.empty());
}

TEST(QtDurationTimer, CallbackMayArmTheNextTimer) {
    Time::QtDurationTimer timer;
    int fired = 0;
    std::function<void(FinishReason)> again = [&](FinishReason) {
        if (++fired < 3) {
            timer.Start(5ms, again);
        }
    };
    timer.Start(5ms, again);
    EXPECT_TRUE(RunLoopUntil([&] { return fired == 3; }, 2000));
    // Negative durations are already due.
    timer.Start(Time::Microseconds(std::numeric_limits<long long>::min()), again);
    EXPECT_TRUE(RunLoopUntil([&] { return fired == 4; }, 2000));
}

TEST(QtDurationTimer, DeliversOnTheThreadThatArmedIt) {
    Time::QtDurationTimer timer;
    std::atomic<QThread*> firedOn{nullptr};
    QThread worker;
    worker.start();
    QObject context;
    context.moveToThread(&worker);
    QMetaObject::invokeMethod(
        &context,
        [&] { timer.Start(10ms, [&](FinishReason) { firedOn = QThread::currentThread(); }); },
        Qt::BlockingQueuedConnection);
    for (int i = 0; i < 300 && firedOn.load() == nullptr; ++i) {
        QThread::msleep(10);
    }
    worker.quit();
    worker.wait();
    EXPECT_EQ(firedOn.load(), &worker);
}

TEST(QueuedGateway, DeliversLaterToTheHandlerOfTheName) {
    ExternalStimulus::QueuedGateway gateway;
    std::vector<std::string> delivered;
    int callbacks = 0;
    gateway.RegisterHandler("A", [&](ExternalStimulus::Stimulus stimulus) {
        delivered.push_back("A:" + stimulus.name);
        stimulus.callback();
    });
    gateway.RegisterHandler("B", [&](ExternalStimulus::Stimulus) { delivered.push_back("B"); });
    gateway.SendStimulus({"A", [&] { ++callbacks; }});
    gateway.SendStimulus({"NONE", [&] { ++callbacks; }});
    gateway.SendStimulus({"B", nullptr});
    EXPECT_TRUE(delivered.empty());
    RunLoopFor(50);
    EXPECT_THAT(delivered, testing::ElementsAre("A:A", "B"));
    EXPECT_EQ(callbacks, 1);

    gateway.UnregisterHandler("A");
    gateway.SendStimulus({"A", nullptr});
    RunLoopFor(50);
    EXPECT_EQ(delivered.size(), 2u);
}

TEST(QueuedGateway, SendFromAnotherThreadIsDeliveredOnTheGatewayThread) {
    ExternalStimulus::QueuedGateway gateway;
    QThread* deliveredOn = nullptr;
    gateway.RegisterHandler(
        "X", [&](ExternalStimulus::Stimulus) { deliveredOn = QThread::currentThread(); });
    std::thread sender([&] { gateway.SendStimulus({"X", nullptr}); });
    sender.join();
    EXPECT_TRUE(RunLoopUntil([&] { return deliveredOn != nullptr; }, 2000));
    EXPECT_EQ(deliveredOn, QThread::currentThread());
}

TEST(QueuedGateway, QueuedDeliveriesDieWithTheGateway) {
    int delivered = 0;
    {
        ExternalStimulus::QueuedGateway gateway;
        gateway.RegisterHandler("X", [&](ExternalStimulus::Stimulus) { ++delivered; });
        gateway.SendStimulus({"X", nullptr});
    }
    RunLoopFor(50);
    EXPECT_EQ(delivered, 0);
}

TEST(StatePowerManager, IsAStateNotACounter) {
    std::vector<bool> changes;
    App::StatePowerManager power([&](bool prevented) { changes.push_back(prevented); });
    EXPECT_FALSE(power.IsSleepPrevented());
    power.PreventSleep();
    power.PreventSleep();
    power.AllowSleep();
    EXPECT_FALSE(power.IsSleepPrevented());
    power.AllowSleep();
    power.PreventSleep();
    EXPECT_TRUE(power.IsSleepPrevented());
    EXPECT_THAT(changes, testing::ElementsAre(true, false, true));
}

}  // namespace
}  // namespace Vexlor
