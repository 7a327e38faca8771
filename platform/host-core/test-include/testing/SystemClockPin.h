#pragma once

// For tests only; not installed. The host core exports these so that tests can pin the
// time that every Time::SystemClock in the process reports, since the editor and the
// notice make their own clocks.

#include "interfaces/Clock.h"
#include "vexlor_host_core_export.h"

namespace Vexlor::Testing {

VEXLOR_HOST_CORE_EXPORT void PinSystemClock(Time::TimePoint now);
VEXLOR_HOST_CORE_EXPORT void UnpinSystemClock();

}  // namespace Vexlor::Testing
