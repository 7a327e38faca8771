#include "SchedulerHelper.h"

#include <algorithm>

#include "core/Saturating.h"

namespace Vexlor::QK {

namespace {

// Stored values may be any 64-bit numbers, so the end saturates instead of wrapping.
Time::TimePoint EndOf(const RecordTime& record) {
    return Core::SaturatingAdd(record.startTime, record.duration);
}

}  // namespace

class SchedulerHelper::Impl {
public:
    Time::SystemClock clock;
    // Non-decreasing in startTime; AddRecord is the only way in.
    RecordTimeList schedule;
};

SchedulerHelper::SchedulerHelper() : impl(std::make_unique<Impl>()) {}

SchedulerHelper::~SchedulerHelper() = default;

std::size_t SchedulerHelper::GetRecordCount() const {
    return impl->schedule.size();
}

RecordTimeList SchedulerHelper::GetPreparedSchedule() const {
    return impl->schedule;
}

bool SchedulerHelper::DoesCaptureTimeIntersected(const RecordTime& record) const {
    const Time::TimePoint start = record.startTime;
    const Time::TimePoint end = EndOf(record);
    return std::any_of(impl->schedule.begin(), impl->schedule.end(), [&](const RecordTime& other) {
        return other.startTime <= end && start <= EndOf(other);
    });
}

bool SchedulerHelper::DoesTitleAlreadyExists(const QString& title) const {
    return std::any_of(impl->schedule.begin(), impl->schedule.end(),
                       [&](const RecordTime& other) { return other.title == title; });
}

int SchedulerHelper::AddRecord(const RecordTime& record) {
    const Time::TimePoint now = impl->clock.Now();
    if (record.duration.count() != 0 && EndOf(record) < now) {
        return -1;
    }
    RecordTimeList& schedule = impl->schedule;
    const auto position = std::lower_bound(
        schedule.begin(), schedule.end(), record.startTime,
        [](const RecordTime& other, Time::TimePoint start) { return other.startTime < start; });
    const auto inserted = schedule.insert(position, record);
    return static_cast<int>(inserted - schedule.begin());
}

void SchedulerHelper::RemoveRecord(const QString& title) {
    RecordTimeList& schedule = impl->schedule;
    schedule.erase(std::remove_if(schedule.begin(), schedule.end(),
                                  [&](const RecordTime& other) { return other.title == title; }),
                   schedule.end());
}

void SchedulerHelper::ClearSchedule() {
    impl->schedule.clear();
}

}  // namespace Vexlor::QK
