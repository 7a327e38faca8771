#pragma once

#include <optional>

#include <QString>

#include "desktop/DesktopBackends.h"
#include "interfaces/Clock.h"

namespace Vexlor::ScheduleTool {

enum class CaptureKind { Simulate, Screen };

struct RunOptions {
    Time::Microseconds lead{0};
    std::optional<QString> exec;
    bool untilEmpty = false;
    std::optional<NoticeChoice> notice;  // unset: chosen from the session, see DesktopBackends.h
    bool keepAwake = true;
    CaptureKind capture = CaptureKind::Simulate;  // --capture; excludes --exec
    std::optional<QString> outputDir;             // --output: where screen captures go
    bool audio = false;                           // --audio: the default source as well
};

}  // namespace Vexlor::ScheduleTool
