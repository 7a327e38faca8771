#pragma once

#include <memory>

#include "interfaces/PowerManager.h"

namespace Vexlor::ScheduleTool {

// The scheduler keeps the machine awake while it has records to run and while it waits for
// a capture; a capture that goes on after it was told that the capture stopped (beside the
// next one) keeps the machine awake as well, until it ends.
class PowerHold : public App::IPowerManager {
public:
    explicit PowerHold(std::shared_ptr<App::IPowerManager> inner) : inner(std::move(inner)) {}

    void PreventSleep() override;
    void AllowSleep() override;
    void SetCapturing(bool capturing);

private:
    void Apply();

    std::shared_ptr<App::IPowerManager> inner;
    bool schedulerWants = false;
    bool capturing = false;
    bool prevented = false;
};

}  // namespace Vexlor::ScheduleTool
