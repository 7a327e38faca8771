#include "Scheduler/Scheduler.h"

#include "SchedulerImpl.h"

namespace Vexlor::QK {

Scheduler::Scheduler(const std::shared_ptr<ICaptureSchedulerSettings>& settings,
                     const std::shared_ptr<IUiSettings>& uiSettings,
                     const std::shared_ptr<ExternalStimulus::IGateway>& gateway,
                     const std::shared_ptr<App::IPowerManager>& powerManager,
                     const std::shared_ptr<Time::ISystemClock>& systemClock,
                     const std::shared_ptr<Time::IDurationTimer>& durationTimer)
    : impl(std::make_unique<Impl>(settings, uiSettings, gateway, powerManager, systemClock,
                                  durationTimer)) {
    impl->registration =
        std::make_unique<InstanceRegistration<IScheduler>>(static_cast<IScheduler*>(this));
    // Through the public operations, so that the stored data is filtered like any other.
    SetSchedule(settings->GetSchedule());
    SetEnabled(settings->IsSchedulerEnabled());
    // Written back whatever happened above, so the stored state never claims more than
    // the engine will run.
    settings->SetSchedule(GetSchedule());
    settings->SetSchedulerEnabled(IsEnabled());
}

Scheduler::~Scheduler() = default;

void Scheduler::RegisterEventHandler(ISchedulerObserver* handler) {
    impl->observers.RegisterEventHandler(handler);
}

void Scheduler::UnregisterEventHandler(ISchedulerObserver* handler) {
    impl->observers.UnregisterEventHandler(handler);
}

bool Scheduler::IsEnabled() const {
    return impl->enabled;
}

void Scheduler::SetEnabled(bool enable) {
    if (impl->updatingSettings) {
        return;
    }
    impl->SetScheduleAndEnable(GetSchedule(), enable);
}

RecordTimeList Scheduler::GetSchedule() const {
    return impl->tasks;
}

void Scheduler::SetSchedule(const RecordTimeList& schedule) {
    if (impl->updatingSettings) {
        return;
    }
    // The current effective flag: a new schedule never switches scheduling on by itself.
    impl->SetScheduleAndEnable(schedule, IsEnabled());
}

void Scheduler::BeforeCaptureStarted(const std::shared_ptr<IProject>& /*project*/,
                                     const CaptureSettings& /*captureSettings*/,
                                     const std::vector<Provider>& /*providers*/) {
    impl->captureRunning.store(true);
}

void Scheduler::AfterCaptureStopped(const std::shared_ptr<IProject>& /*project*/) {
    impl->captureRunning.store(false);
    // Settings observers that forward to SetSchedule/SetEnabled are ignored meanwhile.
    Impl::UpdatingSettingsScope guard(*impl);
    impl->SetScheduleAndEnable(impl->tasks, impl->enabled);
}

}  // namespace Vexlor::QK
