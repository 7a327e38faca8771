#include "Logging.h"

namespace Vexlor::Platform {

Q_LOGGING_CATEGORY(lcPlatform, "vexlor.platform")

}  // namespace Vexlor::Platform
