#pragma once

#include <stdexcept>

#include <QString>

#include "interfaces/RecordTime.h"
#include "interfaces/SettingsManager.h"
#include "plans/Plan.h"

namespace Vexlor::QK {
class SchedulerSettings;
}

namespace Vexlor::ScheduleTool {

struct StoredSettings {
    QK::RecordTimeList schedule;
    bool enabled = false;
    PlanBook plans{};
};

// The stored schedule is there but is not a schedule (a hand edit gone wrong).
class UnreadableSchedule : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The schedule that `settings` read through `manager` from the file at `path`. Throws
// UnreadableSchedule, saying what is stored instead, for a value that is not a schedule.
QK::RecordTimeList ReadSchedule(const QK::SchedulerSettings& settings,
                                const App::ISettingsManager& manager, const QString& path);

// Reads the schedule and the flag afresh from the settings file, through the library's
// settings object. Throws NotASettingsFile for a file that is not one, UnreadableSchedule
// for a stored value that does not decode, and std::runtime_error when the file cannot be
// read.
StoredSettings ReadStoredSettings(const QString& path);

// Writes what differs from the file.
void WriteStoredSettings(const QString& path, const StoredSettings& settings);

// The runner's plans, kept beside the library's keys in the same settings. Reading throws
// UnreadableSchedule for a value that does not decode; writing writes only what differs.
PlanBook ReadPlans(const App::ISettingsManager& manager, const QString& path);
void WritePlans(App::ISettingsManager& manager, const PlanBook& plans);

}  // namespace Vexlor::ScheduleTool
