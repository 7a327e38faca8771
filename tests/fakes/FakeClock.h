#pragma once

#include <ctime>

#include "interfaces/Clock.h"

namespace Vexlor::Testing {

inline Time::TimePoint AtMicros(long long micros) {
    return Time::TimePoint(Time::Microseconds(micros));
}

// Reports whatever the test puts in `now` and counts its readings.
class FakeClock : public Time::ISystemClock {
public:
    explicit FakeClock(Time::TimePoint now = AtMicros(0)) : now(now) {}
    Time::TimePoint Now() const override {
        ++reads;
        return now;
    }
    std::time_t ToTimeT(const Time::TimePoint& t) const override {
        return static_cast<std::time_t>(t.time_since_epoch().count() / 1000000);
    }

    Time::TimePoint now;
    mutable int reads = 0;
};

}  // namespace Vexlor::Testing
