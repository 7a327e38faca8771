#include "schedule/RunPolicy.h"

#include <algorithm>

#include "core/Saturating.h"
#include "plans/TopUp.h"

namespace Vexlor::ScheduleTool {

namespace {

Time::TimePoint EndOf(const QK::RecordTime& record) {
    return Core::SaturatingAdd(record.startTime, record.duration);
}

}  // namespace

std::optional<ScheduleState> TopUpPlans(const ScheduleState& state, Time::TimePoint now,
                                        QStringList& notes) {
    if (state.plans.plans.empty()) {
        return std::nullopt;
    }
    TopUpResult result = TopUp(state.schedule, state.plans, now);
    notes = result.notes;
    if (!result.changed) {
        return std::nullopt;
    }
    return ScheduleState{std::move(result.schedule), state.enabled, std::move(result.book)};
}

QK::RecordTimeList CatchUp(QK::RecordTimeList schedule, Time::TimePoint now,
                           Time::Microseconds margin) {
    std::stable_sort(
        schedule.begin(), schedule.end(),
        [](const QK::RecordTime& a, const QK::RecordTime& b) { return a.startTime < b.startTime; });
    const Time::TimePoint earliest = Core::SaturatingAdd(now, margin);
    Time::TimePoint next = earliest;
    for (QK::RecordTime& record : schedule) {
        if (record.startTime >= next) {
            break;  // sorted: the rest start later still
        }
        const bool endless = record.duration.count() == 0;
        const Time::TimePoint end = EndOf(record);
        if (!endless && end <= next) {
            continue;  // over: the scheduler drops it, and that is reported
        }
        record.startTime = next;
        if (!endless) {
            record.duration = end - next;
        }
        next += Time::Microseconds(1);
    }
    return schedule;
}

}  // namespace Vexlor::ScheduleTool
