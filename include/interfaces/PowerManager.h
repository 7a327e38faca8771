#pragma once

namespace Vexlor::App {

// Both operations set a state; they are not counted, and either may come several times
// in a row.
class IPowerManager {
public:
    virtual ~IPowerManager() = default;
    virtual void PreventSleep() = 0;
    virtual void AllowSleep() = 0;
};

}  // namespace Vexlor::App
