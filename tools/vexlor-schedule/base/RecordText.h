#pragma once

#include <QString>

#include "interfaces/RecordTime.h"

namespace Vexlor::ScheduleTool {

// "2030-01-31 18:30:00" in local time.
QString FormatLocalTime(Time::TimePoint time);

// ISO 8601 with milliseconds and the local offset, "2030-01-31T18:30:00.000+01:00".
QString FormatIsoTime(Time::TimePoint time);

// The same in UTC, "2030-01-31T17:30:00.000Z".
QString FormatUtcTime(Time::TimePoint time);

// The title in double quotes, with quotes, backslashes and control characters escaped, so
// that it always stays on one line.
QString QuoteTitle(const QString& title);

// One line of `list`: local start, duration, title, tag, mode.
QString FormatRecordLine(const QK::RecordTime& record);

// `"Title" at 2030-01-31 18:30:00 for 30m`, or `... with no planned end`
QString DescribeRecord(const QK::RecordTime& record);

}  // namespace Vexlor::ScheduleTool
