#pragma once

#include "cli/CommandLine.h"
#include "schedule/EditRequest.h"

namespace Vexlor::ScheduleTool {

// The request that a parsed editing or reading command makes, with its times resolved at
// `now`, so that the process that carries it out (this one, or the active run) needs
// nothing else.
EditRequest MakeEditRequest(const Invocation& invocation, Time::TimePoint now);

}  // namespace Vexlor::ScheduleTool
