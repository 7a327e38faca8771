#pragma once

#include <cstddef>

#include <QStringList>

#include "interfaces/RecordTime.h"
#include "plans/Plan.h"

namespace Vexlor::ScheduleTool {

// How far ahead a plan's occurrences are put into the schedule: a week holds one period of
// every weekly rule, so the checks made when a plan is added see each of its weekdays once.
// The first occurrence after the horizon is kept as well, so that a plan never leaves the
// schedule empty (which would switch scheduling off) while it has recordings to come.
constexpr Time::Microseconds PLAN_HORIZON{7LL * 24 * 3600 * 1000000};
// A rule that repeats every few seconds would otherwise fill the schedule.
constexpr std::size_t MAX_PLACED_PER_PLAN = 64;

struct TopUpResult {
    QK::RecordTimeList schedule;
    PlanBook book;
    QK::RecordTimeList added;
    QStringList notes;  // occurrences left out, each a whole sentence
    bool changed = false;
};

// Puts into the schedule every occurrence of each plan that is not placed yet and starts
// within the horizon from `now`, and the first one after it; leaves out those already over
// and those that would start at the same moment as a record in the schedule or take its
// title. Plans added by hand that have nothing left to run are removed.
TopUpResult TopUp(const QK::RecordTimeList& schedule, const PlanBook& book, Time::TimePoint now);

}  // namespace Vexlor::ScheduleTool
