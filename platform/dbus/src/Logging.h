#pragma once

#include <QLoggingCategory>

namespace Vexlor::Platform::Bus {

// The D-Bus back-ends' messages, "vexlor.platform.dbus" in QT_LOGGING_RULES.
Q_DECLARE_LOGGING_CATEGORY(lcDBus)

}  // namespace Vexlor::Platform::Bus
