#include <atomic>
#include <chrono>
#include <limits>

#include "interfaces/Clock.h"
#include "testing/SystemClockPin.h"

namespace Vexlor::Time {

namespace {

// Microseconds since the epoch; the minimum means "not pinned".
constexpr long long NOT_FIXED = std::numeric_limits<long long>::min();
std::atomic<long long> fixedNow{NOT_FIXED};

}  // namespace

TimePoint SystemClock::Now() const {
    const long long fixed = fixedNow.load(std::memory_order_relaxed);
    if (fixed != NOT_FIXED) {
        return TimePoint(Microseconds(fixed));
    }
    const auto sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
    return TimePoint(std::chrono::duration_cast<Microseconds>(sinceEpoch));
}

std::time_t SystemClock::ToTimeT(const TimePoint& timePoint) const {
    return static_cast<std::time_t>(
        std::chrono::floor<std::chrono::seconds>(timePoint.time_since_epoch()).count());
}

}  // namespace Vexlor::Time

namespace Vexlor::Testing {

void PinSystemClock(Time::TimePoint now) {
    Time::fixedNow.store(now.time_since_epoch().count(), std::memory_order_relaxed);
}

void UnpinSystemClock() {
    Time::fixedNow.store(Time::NOT_FIXED, std::memory_order_relaxed);
}

}  // namespace Vexlor::Testing
