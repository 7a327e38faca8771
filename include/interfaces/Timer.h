#pragma once

#include <functional>
#include <utility>

#include "interfaces/Clock.h"

namespace Vexlor::Time {

// Opaque handle of an armed timer. The timer service owns it; it is valid until the
// timer has finished or has been stopped.
struct TimerId {
    unsigned long long value = 0;
};

class ITimer {
public:
    // Stopped (1) is reported when a timer finishes without elapsing; everything else
    // counts as an expiry.
    enum class FinishReason : int { Elapsed = 0, Stopped = 1 };

    virtual ~ITimer() = default;

    // Cancels the timer. The callback is not invoked; unknown or finished ids are ignored.
    virtual void Stop(TimerId* id) = 0;
};

class IDurationTimer : public virtual ITimer {
public:
    using Callback = std::function<void(FinishReason)>;

    // Arms a one-shot timer. The callback runs once, on the thread that armed it.
    virtual TimerId* Start(const Microseconds& duration, Callback callback) = 0;

    template <typename Method, typename Object>
    TimerId* Start(const Microseconds& duration, Method method, Object* object) {
        return Start(duration, Callback(std::bind(method, object, std::placeholders::_1)));
    }
};

}  // namespace Vexlor::Time
