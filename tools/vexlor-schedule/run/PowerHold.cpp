#include "run/PowerHold.h"

namespace Vexlor::ScheduleTool {

void PowerHold::PreventSleep() {
    schedulerWants = true;
    Apply();
}

void PowerHold::AllowSleep() {
    schedulerWants = false;
    Apply();
}

void PowerHold::SetCapturing(bool now) {
    capturing = now;
    Apply();
}

// The inner manager hears of changes only, as the scheduler alone would have told it.
void PowerHold::Apply() {
    const bool wanted = schedulerWants || capturing;
    if (wanted == prevented) {
        return;
    }
    prevented = wanted;
    if (wanted) {
        inner->PreventSleep();
    } else {
        inner->AllowSleep();
    }
}

}  // namespace Vexlor::ScheduleTool
