#pragma once

#include <chrono>
#include <limits>
#include <ratio>

namespace Vexlor::Core {

// Stored records may hold any 64-bit values, so sums of times saturate at the limits of
// long long instead of overflowing.
inline long long SaturatingAdd(long long a, long long b) {
    long long result = 0;
    if (__builtin_add_overflow(a, b, &result)) {
        return b > 0 ? std::numeric_limits<long long>::max()
                     : std::numeric_limits<long long>::min();
    }
    return result;
}

inline long long SaturatingSub(long long a, long long b) {
    long long result = 0;
    if (__builtin_sub_overflow(a, b, &result)) {
        return b < 0 ? std::numeric_limits<long long>::max()
                     : std::numeric_limits<long long>::min();
    }
    return result;
}

// The time overloads take any clock's time points in 64-bit microseconds (the scheduler's
// Time::TimePoint among them), so this header needs nothing from interfaces/.
using SaturatingMicros = std::chrono::duration<long long, std::micro>;
template <typename Clock>
using SaturatingTimePoint = std::chrono::time_point<Clock, SaturatingMicros>;

template <typename Clock>
SaturatingTimePoint<Clock> SaturatingAdd(SaturatingTimePoint<Clock> t, SaturatingMicros d) {
    return SaturatingTimePoint<Clock>(
        SaturatingMicros(SaturatingAdd(t.time_since_epoch().count(), d.count())));
}

template <typename Clock>
SaturatingTimePoint<Clock> SaturatingSub(SaturatingTimePoint<Clock> t, SaturatingMicros d) {
    return SaturatingTimePoint<Clock>(
        SaturatingMicros(SaturatingSub(t.time_since_epoch().count(), d.count())));
}

// a - b between two time points.
template <typename Clock>
SaturatingMicros SaturatingDiff(SaturatingTimePoint<Clock> a, SaturatingTimePoint<Clock> b) {
    return SaturatingMicros(
        SaturatingSub(a.time_since_epoch().count(), b.time_since_epoch().count()));
}

}  // namespace Vexlor::Core
