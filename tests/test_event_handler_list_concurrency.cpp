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
    virtual void Hit() = 0;
};

using List = EventHandlerList<ICounter, SyncExecutePolicy>;

// Counts its calls; may register and remove a transient observer while being notified.
class Counter : public ICounter {
public:
    void Hit() override {
        hits.fetch_add(1, std::memory_order_relaxed);
        if (list != nullptr) {
            list->RegisterEventHandler(transient);
            list->UnregisterEventHandler(transient);
        }
    }
    std::atomic<long> hits{0};
    List* list = nullptr;
    ICounter* transient = nullptr;
};

TEST(EventHandlerListConcurrency, RegisterUnregisterAndNotifyFromManyThreads) {
    constexpr int THREADS = 4;
    constexpr int ROUNDS = 2000;
    List list;
    std::vector<Counter> own(THREADS);
    Counter permanent, transient;
    permanent.list = &list;
    permanent.transient = &transient;
    list.RegisterEventHandler(&permanent);

    std::vector<std::thread> threads;
    for (int t = 0; t < THREADS; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < ROUNDS; ++i) {
                list.RegisterEventHandler(&own[t]);
                list.PerformAll(&ICounter::Hit);
                list.UnregisterEventHandler(&own[t]);
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    // Every pass reached the permanent observer once; each thread's own observer was in the
    // snapshot of at least its own passes.
    EXPECT_EQ(permanent.hits.load(), THREADS * ROUNDS);
    for (const Counter& counter : own) {
        EXPECT_GE(counter.hits.load(), ROUNDS);
    }
}

}  // namespace
}  // namespace Vexlor::Core
