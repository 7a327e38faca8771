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

    // Sets `updatingSettings` for a scope and puts the previous value back, also when the
    // scope is left by an exception.
    class UpdatingSettingsScope {
    public:
        explicit UpdatingSettingsScope(Impl& engine)
            : flag(engine.updatingSettings), previous(flag) {
            flag = true;
        }
        ~UpdatingSettingsScope() { flag = previous; }
        UpdatingSettingsScope(const UpdatingSettingsScope&) = delete;
        UpdatingSettingsScope& operator=(const UpdatingSettingsScope&) = delete;

    private:
        bool& flag;
        bool previous;
    };

    Impl(const std::shared_ptr<ICaptureSchedulerSettings>& settings,
         const std::shared_ptr<IUiSettings>& uiSettings,
         const std::shared_ptr<ExternalStimulus::IGateway>& gateway,
         const std::shared_ptr<App::IPowerManager>& powerManager,
         const std::shared_ptr<Time::ISystemClock>& systemClock,
         const std::shared_ptr<Time::IDurationTimer>& durationTimer);
    ~Impl();

    // Sorted by start, one record per start time, only records starting now or later.
    RecordTimeList GetFilteredSchedule(RecordTimeList schedule) const;

    // Filters `schedule`, stores it and the effective flag (writing the settings only on a
    // change), then starts or stops polling unless a capture is running.
    void SetScheduleAndEnable(const RecordTimeList& schedule, bool enable);
    void StartScheduling();
    void StopScheduling();
    void OnTimeout(Time::ITimer::FinishReason reason);
    // The first task with the lead time taken off its start; `tasks` must not be empty.
    RecordTime GetFrontTask() const;
    void RemoveFirstTask();
    void RequsetStartCapture();

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
    // Stimulus callbacks hold a weak reference to this; once the engine is gone they find
    // it expired and do nothing. Declared last so that it dies first.
    std::shared_ptr<const bool> alive = std::make_shared<const bool>(true);
};

}  // namespace Vexlor::QK
