#pragma once

#include <atomic>
#include <memory>

#include "Scheduler/Scheduler.h"
#include "core/EventHandlerList.h"
#include "core/NotNull.h"
#include "interfaces/InstanceRegistry.h"

namespace Vexlor::QK {

class Scheduler::Impl {
public:
    static constexpr Time::Microseconds POLL_INTERVAL{100000};

    Impl(const std::shared_ptr<ICaptureSchedulerSettings>& settings,
         const std::shared_ptr<IUiSettings>& uiSettings,
         const std::shared_ptr<ExternalStimulus::IGateway>& gateway,
         const std::shared_ptr<App::IPowerManager>& powerManager,
         const std::shared_ptr<Time::ISystemClock>& systemClock,
         const std::shared_ptr<Time::IDurationTimer>& durationTimer);
    ~Impl();

    // Sorted by start, one record per start time, only records starting now or later.
    RecordTimeList GetFilteredSchedule(RecordTimeList schedule) const;

    // Field order matters: it is the order in which null services are refused and the
    // reverse of the order of destruction.
    Core::NotNull<std::shared_ptr<ICaptureSchedulerSettings>> settings;
    Core::NotNull<std::shared_ptr<IUiSettings>> uiSettings;
    Core::NotNull<std::shared_ptr<ExternalStimulus::IGateway>> gateway;
    Core::NotNull<std::shared_ptr<App::IPowerManager>> powerManager;
    Core::NotNull<std::shared_ptr<Time::ISystemClock>> systemClock;
    Core::NotNull<std::shared_ptr<Time::IDurationTimer>> durationTimer;
    Core::EventHandlerList<ISchedulerObserver, Core::SyncExecutePolicy> observers;
    std::unique_ptr<InstanceRegistration<IScheduler>> registration;
    RecordTimeList tasks;
    bool enabled = false;
    std::atomic<bool> captureRunning{false};
    bool updatingSettings = false;
    Time::TimerId* timerId = nullptr;
};

}  // namespace Vexlor::QK
