#pragma once

#include <chrono>
#include <ctime>
#include <ratio>

#include "vexlor_host_core_export.h"

namespace Vexlor::Time {

// Every time value in the scheduler is a signed 64-bit count of microseconds.
using Microseconds = std::chrono::duration<long long, std::ratio<1, 1000000>>;

class IClock {
public:
    using rep = Microseconds::rep;
    using period = Microseconds::period;
    using duration = Microseconds;
    using time_point = std::chrono::time_point<IClock, Microseconds>;
    static constexpr bool is_steady = false;

    virtual ~IClock() = default;
    virtual time_point Now() const = 0;
};

using TimePoint = IClock::time_point;

class ISystemClock : public IClock {
public:
    // Seconds since the Unix epoch, rounded towards negative infinity.
    virtual std::time_t ToTimeT(const TimePoint& timePoint) const = 0;
};

// The wall clock: microseconds since the Unix epoch.
class VEXLOR_HOST_CORE_EXPORT SystemClock : public ISystemClock {
public:
    TimePoint Now() const override;
    std::time_t ToTimeT(const TimePoint& timePoint) const override;
};

}  // namespace Vexlor::Time
