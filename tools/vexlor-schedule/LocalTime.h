#pragma once

#include <optional>

#include <QDate>
#include <QString>
#include <QTime>

#include "interfaces/Clock.h"

namespace Vexlor::ScheduleTool {

// The one instant at which the local clock shows `date` and `time`. A wall-clock time that
// the clocks skip (spring forward) or show twice (fall back), or one before the Unix epoch,
// gives nothing and sets `problem` to a sentence saying why, ready to follow the quoted
// text ("does not exist in local time: ...").
std::optional<Time::TimePoint> ResolveLocalTime(const QDate& date, const QTime& time,
                                                QString& problem);

}  // namespace Vexlor::ScheduleTool
