#pragma once

#include <optional>

#include <QString>

namespace Vexlor::ScheduleTool {

// The option wins, then the environment variable VEXLOR_SCHEDULE_SETTINGS (when set and
// not empty), then "vexlor-schedule/settings.ini" in `configFolder`.
QString ChooseSettingsPath(const std::optional<QString>& fromOption,
                           const std::optional<QString>& fromEnvironment,
                           const QString& configFolder);

// ChooseSettingsPath with this process's environment and the user's configuration folder.
QString SettingsPathForProcess(const std::optional<QString>& fromOption);

}  // namespace Vexlor::ScheduleTool
