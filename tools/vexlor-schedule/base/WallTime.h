#pragma once

#include <optional>
#include <vector>

#include <QDate>
#include <QDateTime>
#include <QString>
#include <QTime>

#include "interfaces/Clock.h"

namespace Vexlor::ScheduleTool {

// Wall times are a clock's date and time fields without an offset, carried in a QDateTime
// with Qt::UTC, which has no gaps or folds. A `zone` is an IANA time-zone id; empty is the
// local time zone (TZ as it is now).

// The clock's offset from UTC, in seconds, at `seconds` after the epoch.
long long OffsetAt(long long seconds, const QString& zone);

// Every instant, in seconds after the epoch and in order, at which the clock of `zone` shows
// `wall`: none in a gap the clocks skip, two in a stretch they show twice.
std::vector<long long> WallMoments(const QDateTime& wall, const QString& zone);

// The instant at which the clock of `zone` shows `wall`, as RFC 5545 reads local times: a
// time the clocks skip is taken with the offset before the change (so it moves forward by the
// length of the gap), a time they show twice is the first of the two.
Time::TimePoint ResolveWallTime(const QDateTime& wall, const QString& zone);

// The one instant at which the local clock shows `date` and `time`. A wall-clock time that
// the clocks skip (spring forward) or show twice (fall back), or one before the Unix epoch,
// gives nothing and sets `problem` to a sentence saying why, ready to follow the quoted
// text ("does not exist in local time: ...").
std::optional<Time::TimePoint> ResolveLocalTime(const QDate& date, const QTime& time,
                                                QString& problem);

// What the clock of `zone` shows at `instant`, to the second.
QDateTime WallTimeAt(Time::TimePoint instant, const QString& zone);

// "2030-01-31T10:00:00" as a wall time; invalid for other text.
QDateTime WallFromText(const QString& text);

}  // namespace Vexlor::ScheduleTool
