#pragma once

#include <chrono>

#include "interfaces/Clock.h"

namespace Vexlor::ScheduleTool {

constexpr std::chrono::seconds EDIT_LOCK_PATIENCE{30};
constexpr std::chrono::seconds STORAGE_RETRY{2};
// Far enough ahead that the scheduler, reading the clock a moment later, still sees a
// caught-up record as starting now or later.
constexpr Time::Microseconds CATCH_UP_MARGIN{100000};
// The scheduler drops a record whose start has passed when it is handed a new schedule
// before its poll requested that record. Edits wait while the next record starts within
// this much, which is more than the catch-up margin, so the records already planned are
// never caught up (and pushed back) by an edit.
constexpr Time::Microseconds DUE_GUARD{150000};
constexpr int DEFER_CHECK_MS = 10;
// Should the record not be requested (the machine paused, say), edits wait no longer.
constexpr long long DEFER_LIMIT_MS = 2000;
// How often the plans' horizon moves on; each plan keeps an occurrence beyond the horizon,
// so a minute late costs nothing.
constexpr int PLAN_TOP_UP_MS = 60000;

}  // namespace Vexlor::ScheduleTool
