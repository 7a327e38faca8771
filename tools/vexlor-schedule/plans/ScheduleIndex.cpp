#include "plans/ScheduleIndex.h"

#include "plans/Occurrences.h"

namespace Vexlor::ScheduleTool {

ScheduleIndex::ScheduleIndex(const QK::RecordTimeList& schedule) {
    records_.reserve(schedule.size());
    live_.reserve(schedule.size());
    for (const QK::RecordTime& record : schedule) {
        Add(record);
    }
}

void ScheduleIndex::Add(const QK::RecordTime& record) {
    const std::size_t position = records_.size();
    records_.push_back(record);
    live_.push_back(true);
    byTitle_[record.title].at.push_back(position);
    byStart_[record.startTime.time_since_epoch().count()].at.push_back(position);
    if (const auto plan = OccurrenceOf(record.title)) {
        byPlan_[*plan].at.push_back(position);
        ++occurrences_[*plan];
    }
}

void ScheduleIndex::RemoveAll(Positions* positions) {
    for (const std::size_t position : positions->at) {
        if (!live_[position]) {
            continue;
        }
        live_[position] = false;
        if (const auto plan = OccurrenceOf(records_[position].title)) {
            --occurrences_[*plan];
        }
    }
    // Every one of them is gone: the other indices skip them as they meet them.
    positions->at.clear();
    positions->from = 0;
}

void ScheduleIndex::RemoveTitled(const QString& title) {
    const auto found = byTitle_.find(title);
    if (found != byTitle_.end()) {
        RemoveAll(&*found);
    }
}

void ScheduleIndex::RemoveOccurrencesOf(const QString& planTitle) {
    const auto found = byPlan_.find(planTitle);
    if (found != byPlan_.end()) {
        RemoveAll(&*found);
    }
}

std::size_t ScheduleIndex::FirstLive(Positions* positions) const {
    while (positions->from < positions->at.size() && !live_[positions->at[positions->from]]) {
        ++positions->from;
    }
    return positions->from < positions->at.size() ? positions->at[positions->from] : NONE;
}

std::size_t ScheduleIndex::FirstTitled(const QString& title) {
    const auto found = byTitle_.find(title);
    return found == byTitle_.end() ? NONE : FirstLive(&*found);
}

std::size_t ScheduleIndex::FirstAt(Time::TimePoint start) {
    const auto found = byStart_.find(start.time_since_epoch().count());
    return found == byStart_.end() ? NONE : FirstLive(&found->second);
}

QK::RecordTimeList ScheduleIndex::Records() const {
    QK::RecordTimeList left;
    left.reserve(records_.size());
    for (std::size_t i = 0; i < records_.size(); ++i) {
        if (live_[i]) {
            left.push_back(records_[i]);
        }
    }
    return left;
}

}  // namespace Vexlor::ScheduleTool
