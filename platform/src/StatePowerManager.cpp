#include "platform/StatePowerManager.h"

#include <utility>

namespace Vexlor::App {

StatePowerManager::StatePowerManager(ChangeHandler onChange) : onChange(std::move(onChange)) {}

void StatePowerManager::PreventSleep() {
    SetPrevented(true);
}

void StatePowerManager::AllowSleep() {
    SetPrevented(false);
}

bool StatePowerManager::IsSleepPrevented() const {
    return sleepPrevented.load();
}

void StatePowerManager::SetPrevented(bool prevented) {
    if (sleepPrevented.exchange(prevented) != prevented && onChange) {
        onChange(prevented);
    }
}

}  // namespace Vexlor::App
