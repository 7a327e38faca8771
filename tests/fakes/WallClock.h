#pragma once

#include <cstdlib>
#include <ctime>
#include <optional>
#include <string>

#include "interfaces/Clock.h"

namespace Vexlor::Testing {

// Pins the time that every Time::SystemClock reports, for the objects that make their own,
// and lets it go again when the test ends.
class ScopedFixedNow {
public:
    explicit ScopedFixedNow(Time::TimePoint now) { Set(now); }
    ~ScopedFixedNow() { Time::SystemClock::ClearFixedNow(); }
    ScopedFixedNow(const ScopedFixedNow&) = delete;
    ScopedFixedNow& operator=(const ScopedFixedNow&) = delete;

    void Set(Time::TimePoint now) { Time::SystemClock::SetFixedNow(now); }
};

// Sets the process's local time zone (a POSIX TZ value) and restores the previous one.
class ScopedTimeZone {
public:
    explicit ScopedTimeZone(const char* zone) {
        if (const char* old = std::getenv("TZ")) {
            previous = old;
        }
        Set(zone);
    }
    ~ScopedTimeZone() {
        if (previous) {
            Set(previous->c_str());
        } else {
            unsetenv("TZ");
            tzset();
        }
    }
    ScopedTimeZone(const ScopedTimeZone&) = delete;
    ScopedTimeZone& operator=(const ScopedTimeZone&) = delete;

    static void Set(const char* zone) {
        setenv("TZ", zone, 1);
        tzset();
    }

private:
    std::optional<std::string> previous;
};

}  // namespace Vexlor::Testing
