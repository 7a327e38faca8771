#pragma once

#include "schedule/EditRequest.h"

namespace Vexlor::ScheduleTool {

// The one implementation of every editing and reading command, on a state held in memory.
// A refusal leaves `changed` empty.
EditOutcome ApplyEdit(const ScheduleState& state, const EditRequest& request,
                      const EditContext& context);

}  // namespace Vexlor::ScheduleTool
