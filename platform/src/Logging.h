#pragma once

#include <QLoggingCategory>

namespace Vexlor::Platform {

// The platform layer's messages, "vexlor.platform" in QT_LOGGING_RULES.
Q_DECLARE_LOGGING_CATEGORY(lcPlatform)

}  // namespace Vexlor::Platform
