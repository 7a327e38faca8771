#pragma once

#include "run/RunOptions.h"
#include "store/ScheduleLocation.h"

namespace Vexlor::ScheduleTool {

// `run`: becomes the one writer of the schedule at `location` (no other run may be active),
// wires the scheduler, its settings, the notice and the platform services, takes edits from
// other processes, runs the event loop and returns the exit code. Needs a QCoreApplication.
int RunScheduler(const ScheduleLocation& location, const RunOptions& options);

}  // namespace Vexlor::ScheduleTool
