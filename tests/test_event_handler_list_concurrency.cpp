// Built with ThreadSanitizer in CI: only std primitives are involved.
#include <atomic>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "core/EventHandlerList.h"

namespace Vexlor::Core {
namespace {

using Log = std::vector<std::string>;

// Counts its calls, logs "name:value" if it has a log, then runs its action.
struct Listener {
    explicit Listener(std::string name = {}, Log* log = nullptr)
        : name(std::move(name)), log(log) {}
    void OnValue(int value) {
        hits.fetch_add(1, std::memory_order_relaxed);
        if (log != nullptr) {
            log->push_back(name + ":" + std::to_string(value));
        }
        if (action) {
            action();
        }
    }
    std::string name;
    Log* log = nullptr;
    std::function<void()> action;
    std::atomic<long> hits{0};
};

using List = EventHandlerList<Listener, SyncExecutePolicy>;

class EventHandlerListTest : public testing::Test {
protected:
    EventHandlerListTest() {
        for (Listener* o : {&o1, &o2, &o3}) {
            list.RegisterEventHandler(o);
        }
    }
    Log Pass(int value) {
        log.clear();
        list.PerformAll(&Listener::OnValue, value);
        return log;
    }

    Log log;
    List list;
    Listener o1{"o1", &log}, o2{"o2", &log}, o3{"o3", &log}, o4{"o4", &log};
};

// Null, a duplicate and an unknown observer are ignored. Every observer of a pass gets the
// argument as it was passed; changes during a pass take effect from the next pass, and a
// nested pass on the same thread completes before the outer one continues.
TEST_F(EventHandlerListTest, PassWorksOnTheListAsItWasWhenItBeganAndEndsAtAnException) {
    list.RegisterEventHandler(nullptr);
    list.RegisterEventHandler(&o1);
    list.UnregisterEventHandler(nullptr);
    list.UnregisterEventHandler(&o4);
    int value = 1;
    o1.action = [&] {
        value = 5;
        list.UnregisterEventHandler(&o3);
        list.RegisterEventHandler(&o4);
    };
    o2.action = [&] { list.UnregisterEventHandler(&o2); };
    list.PerformAll(&Listener::OnValue, value);
    EXPECT_EQ(log, (Log{"o1:1", "o2:1", "o3:1"}));
    bool nested = false;
    o1.action = [&] {
        if (!std::exchange(nested, true)) {
            list.PerformAll(&Listener::OnValue, 9);
        }
    };
    EXPECT_EQ(Pass(2), (Log{"o1:2", "o1:9", "o4:9", "o4:2"}));

    // An exception ends the pass. Another thread can then register and notify at once, so
    // neither mutex is still held.
    o1.action = [] { throw std::runtime_error("observer failed"); };
    EXPECT_THROW(Pass(3), std::runtime_error);
    EXPECT_EQ(log, Log{"o1:3"});
    std::thread([&] {
        list.RegisterEventHandler(&o3);
        o1.action = nullptr;
        list.PerformAll(&Listener::OnValue, 4);
    }).join();
    EXPECT_EQ(Pass(5), (Log{"o1:5", "o4:5", "o3:5"}));
}

TEST(EventHandlerListConcurrency, RegisterUnregisterAndNotifyFromManyThreads) {
    constexpr int THREADS = 4;
    constexpr int ROUNDS = 2000;
    List list;
    std::vector<Listener> own(THREADS);
    Listener permanent, transient;
    // Registers and removes another observer while being notified.
    permanent.action = [&] {
        list.RegisterEventHandler(&transient);
        list.UnregisterEventHandler(&transient);
    };
    list.RegisterEventHandler(&permanent);

    std::vector<std::thread> threads;
    for (int t = 0; t < THREADS; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < ROUNDS; ++i) {
                list.RegisterEventHandler(&own[t]);
                list.PerformAll(&Listener::OnValue, i);
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
    for (const Listener& listener : own) {
        EXPECT_GE(listener.hits.load(), ROUNDS);
    }
}

}  // namespace
}  // namespace Vexlor::Core
