#pragma once

#include "CommandLine.h"

namespace Vexlor::ScheduleTool {

enum ExitCode : int { EXIT_DONE = 0, EXIT_REFUSED = 1, EXIT_USAGE = 2 };

// Carries out a parsed command on the settings file it names (or the default one) and
// returns the process's exit code.
int Execute(const Invocation& invocation);

}  // namespace Vexlor::ScheduleTool
