#pragma once

#include <QString>

#include "interfaces/RecordTime.h"

namespace Vexlor::ScheduleTool {

struct StoredSettings {
    QK::RecordTimeList schedule;
    bool enabled = false;
};

// Reads the schedule and the flag afresh from the settings file, through the library's
// settings object on a settings manager of its own.
StoredSettings ReadStoredSettings(const QString& path);

}  // namespace Vexlor::ScheduleTool
