#pragma once

#include <QString>

#include "CommandLine.h"

namespace Vexlor::ScheduleTool {

// `run`: wires the scheduler, its settings, the notice and the platform services, runs the
// event loop and returns the exit code. Needs a QCoreApplication.
int RunScheduler(const QString& settingsPath, const RunOptions& options);

}  // namespace Vexlor::ScheduleTool
