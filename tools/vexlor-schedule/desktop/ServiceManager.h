#pragma once

#include <QString>

namespace Vexlor::ScheduleTool {

// Tells systemd how a run started as a Type=notify service is doing ("READY=1",
// "STATUS=...", "STOPPING=1", one per line). Does nothing outside such a service
// (NOTIFY_SOCKET unset) and in a build without libsystemd.
void NotifyServiceManager(const QString& state);

}  // namespace Vexlor::ScheduleTool
