#include "desktop/ServiceManager.h"

#ifdef VEXLOR_SCHEDULE_WITH_SYSTEMD
#include <systemd/sd-daemon.h>
#endif

namespace Vexlor::ScheduleTool {

void NotifyServiceManager([[maybe_unused]] const QString& state) {
#ifdef VEXLOR_SCHEDULE_WITH_SYSTEMD
    // The variable stays set: STATUS and STOPPING follow READY. Captures inherit it, but
    // systemd takes notifications from the main process only (NotifyAccess=main).
    sd_notify(0, state.toUtf8().constData());
#endif
}

}  // namespace Vexlor::ScheduleTool
