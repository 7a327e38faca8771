// Built with ThreadSanitizer in CI: only std primitives are involved.
#include <atomic>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "core/EventHandlerList.h"

namespace Vexlor::Core {
namespace {

class ICounter {
public:
    virtual ~ICounter() = default;
    virtual void Hit(int amount) = 0;
};

class Counter : public ICounter {
public:
    void Hit(int amount) override { hits.fetch_add(amount, std::memory_order_relaxed); }
    std::atomic<long> hits{0};
};

TEST(EventHandlerListConcurrency, RegisterUnregisterAndNotifyFromManyThreads) {
    EventHandlerList<ICounter, SyncExecutePolicy> list;
    constexpr int THREADS = 4;
    constexpr int ROUNDS = 2000;
    std::vector<Counter> counters(THREADS);
    Counter permanent;
    list.RegisterEventHandler(&permanent);

    std::vector<std::thread> threads;
    for (int t = 0; t < THREADS; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < ROUNDS; ++i) {
                list.RegisterEventHandler(&counters[t]);
                list.PerformAll(&ICounter::Hit, 1);
                list.UnregisterEventHandler(&counters[t]);
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }

    // The permanent observer saw every pass; each thread's own observer was in at least
    // the snapshots of its own passes.
    EXPECT_EQ(permanent.hits.load(), THREADS * ROUNDS);
    for (const Counter& counter : counters) {
        EXPECT_GE(counter.hits.load(), ROUNDS);
    }
    list.PerformAll(&ICounter::Hit, 1);
    EXPECT_EQ(permanent.hits.load(), THREADS * ROUNDS + 1);
}

TEST(EventHandlerListConcurrency, ObserversMutateListWhileOtherThreadsNotify) {
    // Registers and removes a transient observer from inside its own notification.
    class Churning : public ICounter {
    public:
        Churning(EventHandlerList<ICounter, SyncExecutePolicy>& list, Counter& transient)
            : list(list), transient(transient) {}
        void Hit(int) override {
            calls.fetch_add(1, std::memory_order_relaxed);
            list.RegisterEventHandler(&transient);
            list.UnregisterEventHandler(&transient);
        }
        EventHandlerList<ICounter, SyncExecutePolicy>& list;
        Counter& transient;
        std::atomic<long> calls{0};
    };

    EventHandlerList<ICounter, SyncExecutePolicy> list;
    Counter transient;
    Churning a(list, transient), b(list, transient);
    list.RegisterEventHandler(&a);
    list.RegisterEventHandler(&b);
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 1000; ++i) {
                list.PerformAll(&ICounter::Hit, 1);
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    // a and b stay registered throughout, so every pass calls both exactly once.
    EXPECT_EQ(a.calls.load(), 3000);
    EXPECT_EQ(b.calls.load(), 3000);
}

}  // namespace
}  // namespace Vexlor::Core
