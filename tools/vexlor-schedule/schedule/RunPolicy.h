#pragma once

#include <optional>

#include <QStringList>

#include "schedule/EditRequest.h"

namespace Vexlor::ScheduleTool {

// Puts the plans' next occurrences into the schedule (see TopUp); nothing when nothing is
// to be added or changed.
std::optional<ScheduleState> TopUpPlans(const ScheduleState& state, Time::TimePoint now,
                                        QStringList& notes);

// The scheduler takes only records that start now or later. A record that has begun and
// not ended (or has no planned end) would be dropped unrun, so it is moved to start at
// `now + margin`, keeping its planned end. Records caught up together keep their order one
// microsecond apart, since the scheduler keeps one record per start time.
QK::RecordTimeList CatchUp(QK::RecordTimeList schedule, Time::TimePoint now,
                           Time::Microseconds margin);

}  // namespace Vexlor::ScheduleTool
