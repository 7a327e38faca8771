#include "SchedulerImpl.h"

#include <algorithm>

#include <glog/logging.h>

namespace Vexlor::QK {

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

Scheduler::Impl::~Impl() = default;

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

}  // namespace Vexlor::QK
