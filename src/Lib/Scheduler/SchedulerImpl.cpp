#include "SchedulerImpl.h"

#include <algorithm>
#include <utility>

#include <glog/logging.h>

#include "core/Saturating.h"

namespace Vexlor::QK {

namespace {

const char* const RECORD_SCHEDULE = "RECORD_SCHEDULE";

}  // namespace

Scheduler::Impl::Impl(const std::shared_ptr<ICaptureSchedulerSettings>& settings,
                      const std::shared_ptr<IUiSettings>& uiSettings,
                      const std::shared_ptr<ExternalStimulus::IGateway>& gateway,
                      const std::shared_ptr<App::IPowerManager>& powerManager,
                      const std::shared_ptr<Time::ISystemClock>& systemClock,
                      const std::shared_ptr<Time::IDurationTimer>& durationTimer)
    : settings(settings),
      uiSettings(uiSettings),
      gateway(gateway),
      powerManager(powerManager),
      systemClock(systemClock),
      durationTimer(durationTimer) {}

Scheduler::Impl::~Impl() {
    // The timer service would otherwise call OnTimeout on freed memory. Nothing is written
    // to the settings and the power manager is not told: the application decides what its
    // own shutdown means for sleep.
    if (timerId != nullptr) {
        durationTimer->Stop(std::exchange(timerId, nullptr));
    }
}

RecordTimeList Scheduler::Impl::GetFilteredSchedule(RecordTimeList schedule) const {
    const auto byStart = [](const RecordTime& a, const RecordTime& b) {
        return a.startTime < b.startTime;
    };
    // Stable, so that of several records with one start time the first given survives.
    std::stable_sort(schedule.begin(), schedule.end(), byStart);

    const auto sameStart = [](const RecordTime& a, const RecordTime& b) {
        return a.startTime == b.startTime;
    };
    const auto unique = std::unique(schedule.begin(), schedule.end(), sameStart);
    const auto dropped = std::distance(unique, schedule.end());
    if (dropped > 0) {
        LOG(WARNING) << __PRETTY_FUNCTION__
                     << ": Got tasks with similar start time. Number of tasks: " << dropped;
    }

    const Time::TimePoint now = systemClock->Now();
    const auto first = std::lower_bound(
        schedule.begin(), unique, now,
        [](const RecordTime& record, Time::TimePoint t) { return record.startTime < t; });
    return RecordTimeList(first, unique);
}

void Scheduler::Impl::SetScheduleAndEnable(const RecordTimeList& schedule, bool enable) {
    // Copied before anything changes: `schedule` may be `tasks` itself.
    RecordTimeList filtered = GetFilteredSchedule(RecordTimeList(schedule));
    if (filtered != tasks) {
        tasks = std::move(filtered);
        settings->SetSchedule(tasks);
    }
    const bool effective = enable && !tasks.empty();
    if (effective != enabled) {
        enabled = effective;
        settings->SetSchedulerEnabled(enabled);
    }
    if (captureRunning.load()) {
        return;
    }
    if (enabled) {
        StartScheduling();
    } else {
        StopScheduling();
    }
}

void Scheduler::Impl::StartScheduling() {
    powerManager->PreventSleep();
    if (timerId == nullptr) {
        timerId = durationTimer->Start(POLL_INTERVAL, &Scheduler::Impl::OnTimeout, this);
    }
}

void Scheduler::Impl::StopScheduling() {
    powerManager->AllowSleep();
    if (timerId != nullptr) {
        durationTimer->Stop(std::exchange(timerId, nullptr));
    }
}

void Scheduler::Impl::OnTimeout(Time::ITimer::FinishReason reason) {
    timerId = nullptr;
    if (reason == Time::ITimer::FinishReason::Stopped || !enabled || tasks.empty()) {
        return;
    }
    const Time::TimePoint now = systemClock->Now();

    if (captureRunning.load()) {
        // No second capture while one runs: whatever falls due now is dropped, and polling
        // waits for AfterCaptureStopped.
        while (now >= GetFrontTask().startTime) {
            RemoveFirstTask();
            if (tasks.empty()) {
                return;
            }
        }
        return;
    }

    for (;;) {
        const RecordTime front = GetFrontTask();
        if (now < front.startTime) {
            if (timerId == nullptr) {
                timerId = durationTimer->Start(POLL_INTERVAL, &Scheduler::Impl::OnTimeout, this);
            }
            return;
        }
        const bool over = front.duration.count() != 0 &&
                          now >= Core::SaturatingAdd(front.startTime, front.duration);
        if (!over) {
            RequsetStartCapture();
            return;
        }
        // Its whole span passed unseen (the machine slept, or the loop was blocked).
        RemoveFirstTask();
        if (tasks.empty()) {
            return;
        }
    }
}

RecordTime Scheduler::Impl::GetFrontTask() const {
    RecordTime front = tasks.front();
    if (uiSettings->IsLeadTimeEnabled()) {
        front.startTime = Core::SaturatingSub(front.startTime, uiSettings->GetLeadTime());
    }
    return front;
}

void Scheduler::Impl::RemoveFirstTask() {
    UpdatingSettingsScope guard(*this);
    tasks.erase(tasks.begin());
    settings->SetSchedule(tasks);
    enabled = !tasks.empty();
    settings->SetSchedulerEnabled(enabled);
}

void Scheduler::Impl::RequsetStartCapture() {
    ExternalStimulus::Stimulus stimulus;
    stimulus.name = RECORD_SCHEDULE;
    stimulus.callback = [engine = this, token = std::weak_ptr<const bool>(alive),
                         record = tasks.front()] {
        // The gateway may keep the callback beyond the engine's life.
        if (token.expired()) {
            return;
        }
        const Time::TimePoint now = engine->systemClock->Now();
        RecordTime started = record;
        if (started.duration.count() != 0 && started.startTime < now) {
            // A late start shortens the recording so that it still ends on time; past the
            // end this goes to zero or below, which the observers get to see.
            const Time::TimePoint end = Core::SaturatingAdd(started.startTime, started.duration);
            started.duration = Core::SaturatingDiff(end, now);
        }
        engine->observers.PerformAll(&ISchedulerObserver::OnScheduledCaptureStarted, started);
    };
    gateway->SendStimulus(std::move(stimulus));
    RemoveFirstTask();
}

}  // namespace Vexlor::QK
