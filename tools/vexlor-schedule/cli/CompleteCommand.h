#pragma once

#include <QStringList>

namespace Vexlor::ScheduleTool {

// The shells' helper, CommandName::Complete: prints what to complete the last of `words` with
// (see CompleteCommandLine) and returns the process's exit code.
int PrintCompletion(const QStringList& words);

}  // namespace Vexlor::ScheduleTool
