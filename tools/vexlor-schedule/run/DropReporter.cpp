#include "run/DropReporter.h"

#include <algorithm>

namespace Vexlor::ScheduleTool {

void DropReporter::OnSchedulerEnabledChanged(bool) {
    if (onChange) {
        onChange();
    }
}

void DropReporter::OnScheduleChanged(const QK::RecordTimeList& schedule) {
    QK::RecordTimeList remaining = schedule;
    QK::RecordTimeList removed;
    for (const QK::RecordTime& record : known) {
        const auto match = std::find(remaining.begin(), remaining.end(), record);
        if (match != remaining.end()) {
            remaining.erase(match);
        } else {
            removed.push_back(record);
        }
    }
    if (requestInFlight() && !removed.empty() && !known.empty() &&
        removed.front() == known.front()) {
        removed.erase(removed.begin());
    }
    known = schedule;
    if (!removed.empty()) {
        printer.RecordsDropped(removed);
    }
    if (onChange) {
        onChange();
    }
}

}  // namespace Vexlor::ScheduleTool
