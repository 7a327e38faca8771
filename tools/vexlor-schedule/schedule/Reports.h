#pragma once

#include "schedule/EditRequest.h"

namespace Vexlor::ScheduleTool {

// `upcoming`: the next recordings, the plans' occurrences to come among them.
EditOutcome Upcoming(const ScheduleState& state, const EditRequest& request,
                     const EditContext& context);

// `status`, as lines or as one JSON document.
EditOutcome Status(const ScheduleState& state, const EditContext& context, bool json);

// `list`, as lines or as one JSON document.
EditOutcome List(const ScheduleState& state, bool json);

}  // namespace Vexlor::ScheduleTool
