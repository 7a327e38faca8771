#pragma once

#include <chrono>
#include <functional>
#include <memory>

#include <QString>

#include "interfaces/PowerManager.h"
#include "vexlor_platform_dbus_export.h"

namespace Vexlor::App {

// Keeps the machine awake with a logind sleep lock (org.freedesktop.login1 on the system bus,
// Manager.Inhibit("sleep", who, why, "block")). The lock lives as long as the descriptor that
// logind hands out stays open: PreventSleep takes it once, AllowSleep closes it. Both set a
// state, so repeated calls take no second lock and close nothing twice.
//
// Every call waits at most `timeout`; when logind is gone or refuses, the state stays "allowed"
// and a warning is logged. The system bus is used only once Platform::Bus::Probe has found that
// it answers (checked once per process), so a bus that never answers costs one `timeout`.
class VEXLOR_PLATFORM_DBUS_EXPORT LogindPowerManager : public IPowerManager {
public:
    // Called with true when the lock is taken and with false when it is released, also when
    // the destructor releases it; the callback must outlive the manager.
    using ChangeCallback = std::function<void(bool sleepPrevented)>;

    static constexpr std::chrono::milliseconds DefaultTimeout{2000};

    // `who` is the program's name and `why` a reason a person understands ("A scheduled
    // recording is planned"); `systemd-inhibit --list` shows both.
    LogindPowerManager(QString who, QString why, ChangeCallback onChange = {},
                       std::chrono::milliseconds timeout = DefaultTimeout);
    // Releases a lock that is still held.
    ~LogindPowerManager() override;
    LogindPowerManager(const LogindPowerManager&) = delete;
    LogindPowerManager& operator=(const LogindPowerManager&) = delete;

    // True when logind answers on the system bus within `timeout`.
    static bool IsAvailable(std::chrono::milliseconds timeout = DefaultTimeout);

    // A manager, or null when logind does not answer within `timeout`.
    static std::shared_ptr<LogindPowerManager> Create(
        const QString& who, const QString& why, ChangeCallback onChange = {},
        std::chrono::milliseconds timeout = DefaultTimeout);

    void PreventSleep() override;
    void AllowSleep() override;

    // Whether the lock is held now.
    bool IsSleepPrevented() const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl;
};

}  // namespace Vexlor::App
