#include "store/SettingsPath.h"

#include <QStandardPaths>
#include <QtGlobal>

namespace Vexlor::ScheduleTool {

QString ChooseSettingsPath(const std::optional<QString>& fromOption,
                           const std::optional<QString>& fromEnvironment,
                           const QString& configFolder) {
    if (fromOption && !fromOption->isEmpty()) {
        return *fromOption;
    }
    if (fromEnvironment && !fromEnvironment->isEmpty()) {
        return *fromEnvironment;
    }
    return configFolder + QStringLiteral("/vexlor-schedule/settings.ini");
}

QString SettingsPathForProcess(const std::optional<QString>& fromOption) {
    std::optional<QString> fromEnvironment;
    if (qEnvironmentVariableIsSet("VEXLOR_SCHEDULE_SETTINGS")) {
        fromEnvironment = qEnvironmentVariable("VEXLOR_SCHEDULE_SETTINGS");
    }
    return ChooseSettingsPath(
        fromOption, fromEnvironment,
        QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation));
}

}  // namespace Vexlor::ScheduleTool
