#pragma once

#include <memory>

#include "interfaces/Clock.h"
#include "interfaces/Gateway.h"
#include "interfaces/ICaptureSchedulerSettings.h"
#include "interfaces/IScheduler.h"
#include "interfaces/PowerManager.h"
#include "interfaces/Timer.h"
#include "interfaces/UiSettings.h"
#include "vexlor_scheduler_export.h"

namespace Vexlor::QK {

// Runs a schedule: while enabled it polls the clock every 100 ms and, when the first
// record is due (a lead time ahead of its start if the UI settings ask for one), sends the
// stimulus "RECORD_SCHEDULE" through the gateway. Its callback tells the observers which
// recording started. Records that pass unseen, or while a capture runs, are dropped; the
// settings are kept in step with what is left.
//
// Must be driven from one thread; the timer and the gateway must deliver there.
// BeforeCaptureStarted may come from any thread.
//
// Destruction stops an armed timer, and a stimulus callback that the gateway still holds
// finds the scheduler gone (it keeps a weak reference) and does nothing. Destruction writes
// nothing to the settings and tells the power manager nothing: a sleep request made while
// polling stays in place until the application releases it.
class VEXLOR_SCHEDULER_EXPORT Scheduler : public IScheduler {
public:
    Scheduler(const std::shared_ptr<ICaptureSchedulerSettings>& settings,
              const std::shared_ptr<IUiSettings>& uiSettings,
              const std::shared_ptr<ExternalStimulus::IGateway>& gateway,
              const std::shared_ptr<App::IPowerManager>& powerManager,
              const std::shared_ptr<Time::ISystemClock>& systemClock,
              const std::shared_ptr<Time::IDurationTimer>& durationTimer);
    ~Scheduler() override;

    Scheduler(const Scheduler&) = delete;
    Scheduler& operator=(const Scheduler&) = delete;

    void RegisterEventHandler(ISchedulerObserver* handler) override;
    void UnregisterEventHandler(ISchedulerObserver* handler) override;

    bool IsEnabled() const override;
    void SetEnabled(bool enable) override;
    RecordTimeList GetSchedule() const override;
    void SetSchedule(const RecordTimeList& schedule) override;

    void BeforeCaptureStarted(const std::shared_ptr<IProject>& project,
                              const CaptureSettings& captureSettings,
                              const std::vector<Provider>& providers) override;
    void AfterCaptureStopped(const std::shared_ptr<IProject>& project) override;

    class Impl;

private:
    std::unique_ptr<Impl> impl;
};

}  // namespace Vexlor::QK
