#pragma once

#include <chrono>
#include <functional>
#include <memory>

#include "vexlor_platform_dbus_export.h"

namespace Vexlor::App {

// Tells when logind is about to suspend or hibernate the machine and when it has woken up
// (org.freedesktop.login1.Manager.PrepareForSleep on the system bus). logind suspends despite
// a sleep lock in some cases, a closed lid by default, so a lock alone does not tell a
// program that the machine slept.
class VEXLOR_PLATFORM_DBUS_EXPORT LogindSleepSignal {
public:
    // True before the machine sleeps, false after it woke up. Called on the thread that
    // created the source; the callback must outlive it.
    using Callback = std::function<void(bool goingToSleep)>;

    static constexpr std::chrono::milliseconds DefaultTimeout{2000};

    // A source that listens until destroyed, or null when the system bus does not answer
    // within `timeout` (checked once per process, as for LogindPowerManager). logind need
    // not run yet: its signals are taken from whichever process owns its name.
    static std::unique_ptr<LogindSleepSignal> Create(
        Callback callback, std::chrono::milliseconds timeout = DefaultTimeout);

    ~LogindSleepSignal();
    LogindSleepSignal(const LogindSleepSignal&) = delete;
    LogindSleepSignal& operator=(const LogindSleepSignal&) = delete;

private:
    struct Impl;
    explicit LogindSleepSignal(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> impl;
};

}  // namespace Vexlor::App
