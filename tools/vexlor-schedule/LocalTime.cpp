#include "LocalTime.h"

#include <time.h>

#include <algorithm>
#include <vector>

#include <QDateTime>

namespace Vexlor::ScheduleTool {

namespace {

constexpr long long DAY = 86400;

// The local clock's offset from UTC, in seconds, at the instant `seconds` after the epoch.
long long OffsetAt(long long seconds) {
    const time_t instant = static_cast<time_t>(seconds);
    tm fields{};
    if (!::localtime_r(&instant, &fields)) {
        return 0;
    }
    return fields.tm_gmtoff;
}

// The first instant in (from, to] whose offset differs from the offset at `from`.
long long TransitionAfter(long long from, long long to) {
    const long long before = OffsetAt(from);
    while (to - from > 1) {
        const long long middle = from + (to - from) / 2;
        (OffsetAt(middle) == before ? from : to) = middle;
    }
    return to;
}

// A wall-clock reading given as seconds of UTC, "02:00", with seconds only when there are.
QString ClockText(long long wallSeconds) {
    const QDateTime clock = QDateTime::fromSecsSinceEpoch(wallSeconds, Qt::UTC);
    return clock.toString(clock.time().second() == 0 ? QStringLiteral("HH:mm")
                                                     : QStringLiteral("HH:mm:ss"));
}

QString MomentText(long long instant, long long offset) {
    return QDateTime::fromSecsSinceEpoch(instant, Qt::OffsetFromUTC, static_cast<int>(offset))
        .toString(Qt::ISODate);
}

}  // namespace

std::optional<Time::TimePoint> ResolveLocalTime(const QDate& date, const QTime& time,
                                                QString& problem) {
    const QString tooEarly = QStringLiteral("is before 1970-01-01 00:00 UTC");
    if (date.year() < 1970) {
        problem = tooEarly;
        return std::nullopt;
    }
    // localtime_r need not notice a changed TZ by itself.
    ::tzset();
    // The same fields read as UTC; the instant wanted is this minus the offset in force then.
    const long long wall = QDateTime(date, time, Qt::UTC).toSecsSinceEpoch();
    // Each offset in force within a day around it is a candidate; it fits if it is still in
    // force at the instant it gives. None fits in a gap, two fit in a repeated stretch.
    std::vector<long long> moments;
    for (const long long probe : {wall - DAY, wall, wall + DAY}) {
        const long long candidate = wall - OffsetAt(probe);
        if (OffsetAt(candidate) == wall - candidate &&
            std::find(moments.begin(), moments.end(), candidate) == moments.end()) {
            moments.push_back(candidate);
        }
    }
    std::sort(moments.begin(), moments.end());

    if (moments.empty()) {
        const long long earlier = OffsetAt(wall - DAY);
        const long long later = OffsetAt(wall + DAY);
        problem = QStringLiteral("does not exist in local time");
        if (later > earlier) {
            const long long change = TransitionAfter(wall - later, wall - earlier);
            problem += QStringLiteral(": clocks skip from %1 to %2")
                           .arg(ClockText(change + earlier), ClockText(change + later));
        }
        return std::nullopt;
    }
    if (moments.size() > 1) {
        const long long first = moments.front();
        const long long second = moments.back();
        const long long change = TransitionAfter(first, second);
        const QString from = ClockText(change + (wall - first));
        const QString to = ClockText(change + (wall - second));
        problem =
            QStringLiteral(
                "happens twice in local time (clocks go back from %1 to %2): at %3 and "
                "at %4; pick a time before %2 or from %1 on, or use --in")
                .arg(from, to, MomentText(first, wall - first), MomentText(second, wall - second));
        return std::nullopt;
    }
    if (moments.front() < 0) {
        problem = tooEarly;
        return std::nullopt;
    }
    return Time::TimePoint(Time::Microseconds(moments.front() * 1000000));
}

}  // namespace Vexlor::ScheduleTool
