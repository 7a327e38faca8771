#pragma once

#include <QByteArray>

namespace Vexlor::ScheduleTool::Ics {

// The properties that carry a record's tag and mode, which iCalendar has no place for.
inline const QByteArray TAG_PROPERTY = "X-VEXLOR-TAG";
inline const QByteArray MODE_PROPERTY = "X-VEXLOR-MODE";

}  // namespace Vexlor::ScheduleTool::Ics
