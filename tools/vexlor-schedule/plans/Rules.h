#pragma once

#include <memory>
#include <optional>

#include <QString>

#include "plans/Plan.h"

namespace KCalendarCore {
class Recurrence;
}

namespace Vexlor::ScheduleTool {

// RULE as the command line takes it: an RRULE value, or daily, weekdays or weekly. Gives
// the RRULE in normal form, or nothing with `error` set.
std::optional<QString> ParseRule(const QString& text, QString& error);

// The plan's recurrence on its wall clock, or null for a rule that does not parse.
// Expanding on the wall clock (carried as UTC, which has no daylight-saving changes) keeps
// each occurrence at its time of day; the wall times are turned into instants afterwards,
// each gap and fold resolved the same way.
std::unique_ptr<KCalendarCore::Recurrence> WallRecurrence(const Plan& plan);

}  // namespace Vexlor::ScheduleTool
