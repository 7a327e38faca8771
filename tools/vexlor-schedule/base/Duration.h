#pragma once

#include <optional>

#include <QString>

#include "interfaces/Clock.h"

namespace Vexlor::ScheduleTool {

// Reads a duration written as hours, minutes and seconds in that order, each at most once
// ("90s", "30m", "1h30m", "2h5s"), or "0". Anything else, including signs, fractions,
// spaces and values beyond the 64-bit microsecond range, gives nothing.
std::optional<Time::Microseconds> ParseDuration(const QString& text);

// The same notation, with milliseconds as a decimal fraction of the seconds when present
// ("1h30m", "2.5s", "0"); negative values get a leading "-".
QString FormatDuration(Time::Microseconds duration);

}  // namespace Vexlor::ScheduleTool
