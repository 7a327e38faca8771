#pragma once

namespace Vexlor::ScheduleTool {

enum ExitCode : int { EXIT_DONE = 0, EXIT_REFUSED = 1, EXIT_USAGE = 2 };

}  // namespace Vexlor::ScheduleTool
