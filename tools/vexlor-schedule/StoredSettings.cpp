#include "StoredSettings.h"

#include <memory>

#include "Scheduler/SchedulerSettings.h"
#include "platform/IniSettingsManager.h"

namespace Vexlor::ScheduleTool {

StoredSettings ReadStoredSettings(const QString& path) {
    QK::SchedulerSettings settings(std::make_shared<App::IniSettingsManager>(path));
    return {settings.GetSchedule(), settings.IsSchedulerEnabled()};
}

}  // namespace Vexlor::ScheduleTool
