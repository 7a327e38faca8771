#pragma once

#include "base/ExitCode.h"
#include "cli/CommandLine.h"

namespace Vexlor::ScheduleTool {

// Carries out a parsed command on the settings file it names (or the default one) and
// returns the process's exit code.
int Execute(const Invocation& invocation);

}  // namespace Vexlor::ScheduleTool
