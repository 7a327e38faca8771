#pragma once

#include <algorithm>
#include <functional>
#include <mutex>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "core/EventPublisher.h"

namespace Vexlor::Core {

// Runs each observer call at once, in the notifying thread.
struct SyncExecutePolicy {
    void operator()(std::function<void()> call) const { call(); }
};

// Observer list of a publisher. Observers are not owned. Notification works on a snapshot
// taken at the start of each pass, so observers may register and unregister (themselves
// included) while they are being notified; changes take effect from the next pass.
//
// Unregistering does not wait for a pass that already took its snapshot: an observer must
// stay alive until no such pass can still reach it.
template <typename Observer, typename ExecutePolicy = SyncExecutePolicy>
class EventHandlerList : public virtual EventPublisher<Observer> {
public:
    EventHandlerList() = default;
    EventHandlerList(const EventHandlerList&) = delete;
    EventHandlerList& operator=(const EventHandlerList&) = delete;
    ~EventHandlerList() override = default;

    void RegisterEventHandler(Observer* handler) override {
        if (handler == nullptr) {
            return;
        }
        std::lock_guard<std::recursive_mutex> lock(handlersMutex);
        if (std::find(eventHandlers.begin(), eventHandlers.end(), handler) == eventHandlers.end()) {
            eventHandlers.push_back(handler);
        }
    }

    void UnregisterEventHandler(Observer* handler) override {
        if (handler == nullptr) {
            return;
        }
        std::lock_guard<std::recursive_mutex> lock(handlersMutex);
        auto it = std::find(eventHandlers.begin(), eventHandlers.end(), handler);
        if (it != eventHandlers.end()) {
            eventHandlers.erase(it);
        }
    }

    // Calls (observer->*method)(args...) on every observer. The arguments are copied once,
    // here, so every observer sees the same values whatever the caller does meanwhile.
    template <typename Method, typename... Args>
    void PerformAll(Method method, Args&&... args) {
        PerformForEachEventHandler([method, bound = std::make_tuple(std::decay_t<Args>(
                                                std::forward<Args>(args))...)](Observer* observer) {
            std::apply([&](const auto&... values) { (observer->*method)(values...); }, bound);
        });
    }

    // An exception from an observer ends the pass and reaches the caller; the observers
    // after it are not called for this notification.
    template <typename Functor>
    void PerformForEachEventHandler(Functor functor) {
        const std::vector<Observer*> snapshot = [this] {
            std::lock_guard<std::recursive_mutex> lock(handlersMutex);
            return eventHandlers;
        }();
        std::lock_guard<std::recursive_mutex> perform(performMutex);
        for (Observer* observer : snapshot) {
            executePolicy(std::function<void()>([functor, observer] { functor(observer); }));
        }
    }

private:
    std::vector<Observer*> eventHandlers;
    std::recursive_mutex handlersMutex;
    std::recursive_mutex performMutex;
    ExecutePolicy executePolicy;
};

}  // namespace Vexlor::Core
