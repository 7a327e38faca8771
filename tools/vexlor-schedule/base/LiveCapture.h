#pragma once

#include <optional>

#include <QString>

#include "interfaces/RecordTime.h"

namespace Vexlor::ScheduleTool {

// The capture that an active run records now, as it reports it.
struct LiveCapture {
    QK::RecordTime record;  // its duration: what was left of it when it began
    Time::TimePoint began;
    std::optional<Time::TimePoint> plannedEnd;
    QString file;                    // a screen capture's
    std::optional<QString> command;  // --exec
};

}  // namespace Vexlor::ScheduleTool
