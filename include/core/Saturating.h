#pragma once

#include <limits>

#include "interfaces/Clock.h"

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

inline Time::TimePoint SaturatingAdd(Time::TimePoint t, Time::Microseconds d) {
    return Time::TimePoint(
        Time::Microseconds(SaturatingAdd(t.time_since_epoch().count(), d.count())));
}

inline Time::TimePoint SaturatingSub(Time::TimePoint t, Time::Microseconds d) {
    return Time::TimePoint(
        Time::Microseconds(SaturatingSub(t.time_since_epoch().count(), d.count())));
}

// a - b between two time points.
inline Time::Microseconds SaturatingDiff(Time::TimePoint a, Time::TimePoint b) {
    return Time::Microseconds(
        SaturatingSub(a.time_since_epoch().count(), b.time_since_epoch().count()));
}

}  // namespace Vexlor::Core
