#pragma once

namespace Vexlor::ScheduleTool {

// Stop and the commands before it go to an active run; Complete is the shells' hidden helper.
// The values travel over the control socket, so new commands go at the end.
enum class CommandName {
    Add,
    List,
    Remove,
    Clear,
    Enable,
    Disable,
    Status,
    Stop,
    Run,
    Help,
    Import,
    Export,
    Upcoming,
    Complete
};

}  // namespace Vexlor::ScheduleTool
