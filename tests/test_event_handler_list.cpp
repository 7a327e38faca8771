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

using Log = std::vector<std::string>;

// Appends "name:value" to a shared log, then runs an optional action.
class Listener : public IListener {
public:
    Listener(std::string name, Log& log) : name(std::move(name)), log(log) {}
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
    Log& log;
    std::function<void()> action;
    std::vector<QK::RecordTimeList> received;
};

class EventHandlerListTest : public testing::Test {
protected:
    Log log;
    EventHandlerList<IListener, SyncExecutePolicy> list;
    Listener o1{"o1", log}, o2{"o2", log}, o3{"o3", log}, o4{"o4", log};

    void SetUp() override {
        for (Listener* o : {&o1, &o2, &o3}) {
            list.RegisterEventHandler(o);
        }
    }
    Log Pass(int value) {
        log.clear();
        list.PerformAll(&IListener::OnValue, value);
        return log;
    }
};

TEST_F(EventHandlerListTest, RegistrationOrderWithNullDuplicateAndUnknownIgnored) {
    list.RegisterEventHandler(nullptr);
    list.RegisterEventHandler(&o1);
    list.UnregisterEventHandler(nullptr);
    list.UnregisterEventHandler(&o4);
    EXPECT_EQ(Pass(1), (Log{"o1:1", "o2:1", "o3:1"}));
    list.UnregisterEventHandler(&o2);
    EXPECT_EQ(Pass(2), (Log{"o1:2", "o3:2"}));
}

TEST_F(EventHandlerListTest, ChangesDuringAPassTakeEffectFromTheNextPass) {
    o1.action = [&] {
        list.UnregisterEventHandler(&o3);
        list.RegisterEventHandler(&o4);
    };
    o2.action = [&] { list.UnregisterEventHandler(&o2); };
    EXPECT_EQ(Pass(1), (Log{"o1:1", "o2:1", "o3:1"}));
    o1.action = nullptr;
    EXPECT_EQ(Pass(2), (Log{"o1:2", "o4:2"}));
}

TEST_F(EventHandlerListTest, ExceptionEndsThePassWithBothLocksReleased) {
    o2.action = [] { throw std::runtime_error("observer failed"); };
    EXPECT_THROW(Pass(1), std::runtime_error);
    EXPECT_EQ(log, (Log{"o1:1", "o2:1"}));
    // Another thread can register and notify at once, so neither mutex is still held.
    std::thread([&] {
        list.RegisterEventHandler(&o4);
        o2.action = nullptr;
        list.PerformAll(&IListener::OnValue, 2);
    }).join();
    EXPECT_EQ(Pass(3), (Log{"o1:3", "o2:3", "o3:3", "o4:3"}));
}

TEST_F(EventHandlerListTest, NestedPassOnSameThreadCompletesBeforeOuterContinues) {
    bool nested = false;
    o1.action = [&] {
        if (!nested) {
            nested = true;
            list.PerformAll(&IListener::OnValue, 9);
        }
    };
    EXPECT_EQ(Pass(1), (Log{"o1:1", "o1:9", "o2:9", "o3:9", "o2:1", "o3:1"}));
}

TEST_F(EventHandlerListTest, EveryObserverGetsTheValueAsPassed) {
    QK::RecordTimeList schedule(2);
    schedule[0].title = QStringLiteral("first");
    const QK::RecordTimeList expected = schedule;
    o1.action = [&] { schedule.clear(); };
    list.PerformAll(&IListener::OnSchedule, schedule);
    EXPECT_EQ(o1.received, std::vector<QK::RecordTimeList>{expected});
    EXPECT_EQ(o3.received, std::vector<QK::RecordTimeList>{expected});
}

}  // namespace
}  // namespace Vexlor::Core
