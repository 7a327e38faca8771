#pragma once

#include <atomic>
#include <functional>

#include "interfaces/PowerManager.h"
#include "vexlor_platform_export.h"

namespace Vexlor::App {

// Keeps whether sleep is to be prevented, as a state: repeated requests change nothing,
// and one AllowSleep undoes any number of PreventSleep calls. `onChange` runs only when
// the state really changes, in the thread that changed it.
class VEXLOR_PLATFORM_EXPORT StatePowerManager : public IPowerManager {
public:
    using ChangeHandler = std::function<void(bool sleepPrevented)>;

    explicit StatePowerManager(ChangeHandler onChange = {});

    void PreventSleep() override;
    void AllowSleep() override;
    bool IsSleepPrevented() const;

private:
    void SetPrevented(bool prevented);

    ChangeHandler onChange;
    std::atomic<bool> sleepPrevented{false};
};

}  // namespace Vexlor::App
