#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "core/EventHandlerList.h"
#include "interfaces/RecordTime.h"

namespace Vexlor::Core {
namespace {

class IListener {
public:
    virtual ~IListener() = default;
    virtual void OnValue(int value) = 0;
    virtual void OnSchedule(const QK::RecordTimeList& schedule) = 0;
};

using List = EventHandlerList<IListener, SyncExecutePolicy>;

// Appends its name to a shared log and runs an optional action during its notification.
class Listener : public IListener {
public:
    Listener(std::string name, std::vector<std::string>& log) : name(std::move(name)), log(log) {}
    void OnValue(int value) override {
        log.push_back(name + ":" + std::to_string(value));
        if (action) {
            action();
        }
    }
    void OnSchedule(const QK::RecordTimeList& schedule) override {
        received.push_back(schedule);
        if (action) {
            action();
        }
    }

    std::string name;
    std::vector<std::string>& log;
    std::function<void()> action;
    std::vector<QK::RecordTimeList> received;
};

class EventHandlerListTest : public testing::Test {
protected:
    std::vector<std::string> log;
    List list;
    Listener o1{"o1", log}, o2{"o2", log}, o3{"o3", log}, o4{"o4", log};

    void RegisterThree() {
        list.RegisterEventHandler(&o1);
        list.RegisterEventHandler(&o2);
        list.RegisterEventHandler(&o3);
    }
    std::vector<std::string> Pass(int value) {
        log.clear();
        list.PerformAll(&IListener::OnValue, value);
        return log;
    }
    using Log = std::vector<std::string>;
};

TEST_F(EventHandlerListTest, EmptyListCallsNothing) {
    EXPECT_TRUE(Pass(1).empty());
}

TEST_F(EventHandlerListTest, NotifiesInRegistrationOrderAndKeepsOrderAfterRemoval) {
    RegisterThree();
    EXPECT_EQ(Pass(1), (Log{"o1:1", "o2:1", "o3:1"}));
    list.UnregisterEventHandler(&o2);
    EXPECT_EQ(Pass(2), (Log{"o1:2", "o3:2"}));
}

TEST_F(EventHandlerListTest, NullDuplicateAndUnknownAreIgnored) {
    list.RegisterEventHandler(nullptr);
    list.RegisterEventHandler(&o1);
    list.RegisterEventHandler(&o1);
    list.UnregisterEventHandler(nullptr);
    list.UnregisterEventHandler(&o2);
    EXPECT_EQ(Pass(3), (Log{"o1:3"}));
    list.UnregisterEventHandler(&o1);
    EXPECT_TRUE(Pass(4).empty());
}

TEST_F(EventHandlerListTest, UnregisterDuringPassTakesEffectFromNextPass) {
    RegisterThree();
    o1.action = [&] { list.UnregisterEventHandler(&o3); };
    EXPECT_EQ(Pass(1), (Log{"o1:1", "o2:1", "o3:1"}));
    EXPECT_EQ(Pass(2), (Log{"o1:2", "o2:2"}));
}

TEST_F(EventHandlerListTest, ObserverMayUnregisterItselfDuringItsNotification) {
    RegisterThree();
    o2.action = [&] { list.UnregisterEventHandler(&o2); };
    EXPECT_EQ(Pass(1), (Log{"o1:1", "o2:1", "o3:1"}));
    EXPECT_EQ(Pass(2), (Log{"o1:2", "o3:2"}));
}

TEST_F(EventHandlerListTest, RegisterDuringPassIsCalledLastFromNextPass) {
    RegisterThree();
    o1.action = [&] { list.RegisterEventHandler(&o4); };
    EXPECT_EQ(Pass(1), (Log{"o1:1", "o2:1", "o3:1"}));
    EXPECT_EQ(Pass(2), (Log{"o1:2", "o2:2", "o3:2", "o4:2"}));
}

TEST_F(EventHandlerListTest, ExceptionEndsPassReleasesLocksAndLeavesListIntact) {
    RegisterThree();
    o2.action = [] { throw std::runtime_error("observer failed"); };
    EXPECT_THROW(Pass(1), std::runtime_error);
    EXPECT_EQ(log, (Log{"o1:1", "o2:1"}));

    // Both mutexes must be free: another thread can register and notify at once.
    std::thread other([&] {
        list.RegisterEventHandler(&o4);
        o2.action = nullptr;
        list.PerformAll(&IListener::OnValue, 2);
    });
    other.join();
    EXPECT_EQ(Pass(3), (Log{"o1:3", "o2:3", "o3:3", "o4:3"}));
}

TEST_F(EventHandlerListTest, NestedPassOnSameThreadCompletesBeforeOuterContinues) {
    RegisterThree();
    bool nested = false;
    o1.action = [&] {
        if (!nested) {
            nested = true;
            list.PerformAll(&IListener::OnValue, 9);
        }
    };
    EXPECT_EQ(Pass(1), (Log{"o1:1", "o1:9", "o2:9", "o3:9", "o2:1", "o3:1"}));
}

TEST_F(EventHandlerListTest, EveryObserverGetsAnEqualCopyOfTheArgument) {
    list.RegisterEventHandler(&o1);
    list.RegisterEventHandler(&o2);
    QK::RecordTimeList schedule(2);
    schedule[0].title = QStringLiteral("first");
    const QK::RecordTimeList expected = schedule;
    // The caller's list changes while the pass runs; observers must not see it.
    o1.action = [&] { schedule.clear(); };
    list.PerformAll(&IListener::OnSchedule, schedule);
    ASSERT_EQ(o2.received.size(), 1u);
    EXPECT_EQ(o1.received.front(), expected);
    EXPECT_EQ(o2.received.front(), expected);
}

}  // namespace
}  // namespace Vexlor::Core
