#pragma once

#include <cstddef>
#include <optional>
#include <vector>

#include <QHash>
#include <QString>

#include "interfaces/RecordTime.h"
#include "plans/Plan.h"

namespace Vexlor::ScheduleTool {

// The starts of the plan's occurrences after `after`, in order, at most `limit` of them.
std::vector<Time::TimePoint> Occurrences(const Plan& plan, Time::TimePoint after,
                                         std::size_t limit);

// "Standup (2030-01-31 10:00)": unique within a plan, as its occurrences start at distinct
// times of its clock.
QString OccurrenceTitle(const Plan& plan, Time::TimePoint start);
// The most bytes that OccurrenceTitle adds to the plan's title: " (2030-01-31 10:00:00)".
constexpr int OCCURRENCE_STAMP_BYTES = 22;
bool IsOccurrenceOf(const Plan& plan, const QString& title);
// The title of the plans that `title` would be an occurrence of ("Standup"), if any: a key
// that finds a plan's occurrences without trying every plan.
std::optional<QString> OccurrenceOf(const QString& title);

// The plan's occurrence records as they go into the schedule.
QK::RecordTime OccurrenceRecord(const Plan& plan, Time::TimePoint start);

// The first start of the recordings of each plan in the schedule, by the plan's title.
QHash<QString, Time::TimePoint> FirstOccurrences(const QK::RecordTimeList& schedule);

// The next occurrence of the plan that runs, in the schedule (`first`, as FirstOccurrences
// gives it) or still to be placed.
std::optional<Time::TimePoint> NextOccurrence(const Plan& plan,
                                              const QHash<QString, Time::TimePoint>& first);

}  // namespace Vexlor::ScheduleTool
