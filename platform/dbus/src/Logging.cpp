#include "Logging.h"

namespace Vexlor::Platform::Bus {

Q_LOGGING_CATEGORY(lcDBus, "vexlor.platform.dbus")

}  // namespace Vexlor::Platform::Bus
