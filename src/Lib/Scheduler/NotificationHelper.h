#pragma once

#include <memory>

#include "interfaces/ApplicationServices.h"
#include "interfaces/ICaptureSchedulerSettings.h"
#include "vexlor_scheduler_export.h"

namespace Vexlor::QK {

// Shows a desktop notice once while the first stored recording is between 4 h 30 min and
// 3 h 30 min away, and withdraws it 30 s before the start, when the schedule empties or
// when another recording takes the front. Checks the stored schedule every 10 s.
//
// Must be made, used and destroyed in a thread that runs a Qt event loop. Destruction
// leaves a notice that is on the screen where it is.
class VEXLOR_SCHEDULER_EXPORT NotificationHelper {
public:
    NotificationHelper(const std::shared_ptr<ICaptureSchedulerSettings>& settings,
                       const std::shared_ptr<App::ICustomizationManager>& customizationManager,
                       const std::shared_ptr<App::ILookAndFeelManager>& lookAndFeelManager);
    ~NotificationHelper();

    NotificationHelper(const NotificationHelper&) = delete;
    NotificationHelper& operator=(const NotificationHelper&) = delete;

    class Impl;

private:
    std::unique_ptr<Impl> impl;
};

}  // namespace Vexlor::QK
