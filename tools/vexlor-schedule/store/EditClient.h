#pragma once

#include "schedule/EditRequest.h"
#include "store/ScheduleLocation.h"

namespace Vexlor::ScheduleTool {

// Hands `request` to the run active on the schedule at `location`, or, when none is, carries
// it out on the settings file here under the edit lock (read, edit, write). Throws
// std::runtime_error when the file cannot be read or written or the lock cannot be had.
EditOutcome Ask(const ScheduleLocation& location, const EditRequest& request);

}  // namespace Vexlor::ScheduleTool
