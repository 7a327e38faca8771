#include "StoredSettings.h"

#include <memory>

#include "Scheduler/SchedulerSettings.h"
#include "platform/IniSettingsManager.h"

namespace Vexlor::ScheduleTool {

namespace {

// Where the settings object keeps the schedule; a schedule that does not decode can only be
// replaced below it.
const std::string SCHEDULE_KEY = "QK/Scheduler/schedule";

}  // namespace

StoredSettings ReadStoredSettings(const QString& path) {
    auto manager = std::make_shared<App::IniSettingsManager>(path);
    QK::SchedulerSettings settings(manager);
    StoredSettings stored;
    stored.enabled = settings.IsSchedulerEnabled();
    try {
        stored.schedule = settings.GetSchedule();
    } catch (const std::logic_error& error) {  // the decoder's; file errors are runtime errors
        throw UnreadableSchedule("the schedule stored in " + path.toStdString() +
                                 " is unreadable (" + error.what() +
                                 "); \"vexlor-schedule clear\" replaces it with an empty one");
    }
    return stored;
}

void WriteStoredSettings(const QString& path, const StoredSettings& wanted) {
    auto manager = std::make_shared<App::IniSettingsManager>(path);
    QK::SchedulerSettings settings(manager);
    try {
        settings.SetSchedule(wanted.schedule);
    } catch (const std::logic_error&) {
        // The old value does not decode, so the settings object cannot compare with it.
        manager->remove(SCHEDULE_KEY);
        settings.SetSchedule(wanted.schedule);
    }
    settings.SetSchedulerEnabled(wanted.enabled);
}

}  // namespace Vexlor::ScheduleTool
