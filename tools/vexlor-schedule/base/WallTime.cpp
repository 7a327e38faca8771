#include "base/WallTime.h"

#include <time.h>

#include <algorithm>

#include <QStringList>
#include <QTimeZone>

namespace Vexlor::ScheduleTool {

namespace {

constexpr long long DAY = 86400;
constexpr long long MICROS = 1000000;

// The first instant in (from, to] whose offset differs from the offset at `from`.
long long TransitionAfter(long long from, long long to) {
    const long long before = OffsetAt(from, {});
    while (to - from > 1) {
        const long long middle = from + (to - from) / 2;
        (OffsetAt(middle, {}) == before ? from : to) = middle;
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

QString SkippedProblem(long long wall) {
    const long long earlier = OffsetAt(wall - DAY, {});
    const long long later = OffsetAt(wall + DAY, {});
    QString problem = QStringLiteral("does not exist in local time");
    if (later > earlier) {
        const long long change = TransitionAfter(wall - later, wall - earlier);
        problem += QStringLiteral(": clocks skip from %1 to %2")
                       .arg(ClockText(change + earlier), ClockText(change + later));
    }
    return problem;
}

QString RepeatedProblem(long long wall, long long first, long long second) {
    const long long change = TransitionAfter(first, second);
    const QString from = ClockText(change + (wall - first));
    const QString to = ClockText(change + (wall - second));
    return QStringLiteral(
               "happens twice in local time (clocks go back from %1 to %2): at %3 and "
               "at %4; pick a time before %2 or from %1 on, or use --in")
        .arg(from, to, MomentText(first, wall - first), MomentText(second, wall - second));
}

}  // namespace

long long OffsetAt(long long seconds, const QString& zone) {
    if (zone.isEmpty()) {
        const time_t instant = static_cast<time_t>(seconds);
        tm fields{};
        return ::localtime_r(&instant, &fields) ? fields.tm_gmtoff : 0;
    }
    return QTimeZone(zone.toUtf8()).offsetFromUtc(QDateTime::fromSecsSinceEpoch(seconds, Qt::UTC));
}

std::vector<long long> WallMoments(const QDateTime& wall, const QString& zone) {
    if (zone.isEmpty()) {
        ::tzset();  // localtime_r need not notice a changed TZ by itself
    }
    const long long fields = wall.toSecsSinceEpoch();
    // Each offset in force within a day around it is a candidate; it fits if it is still in
    // force at the instant it gives.
    std::vector<long long> moments;
    for (const long long probe : {fields - DAY, fields, fields + DAY}) {
        const long long candidate = fields - OffsetAt(probe, zone);
        if (OffsetAt(candidate, zone) == fields - candidate &&
            std::find(moments.begin(), moments.end(), candidate) == moments.end()) {
            moments.push_back(candidate);
        }
    }
    std::sort(moments.begin(), moments.end());
    return moments;
}

Time::TimePoint ResolveWallTime(const QDateTime& wall, const QString& zone) {
    const std::vector<long long> moments = WallMoments(wall, zone);
    const long long seconds =
        !moments.empty() ? moments.front()
                         : wall.toSecsSinceEpoch() - OffsetAt(wall.toSecsSinceEpoch() - DAY, zone);
    return Time::TimePoint(Time::Microseconds(seconds * MICROS));
}

std::optional<Time::TimePoint> ResolveLocalTime(const QDate& date, const QTime& time,
                                                QString& problem) {
    const QString tooEarly = QStringLiteral("is before 1970-01-01 00:00 UTC");
    if (date.year() < 1970) {
        problem = tooEarly;
        return std::nullopt;
    }
    const QDateTime fields(date, time, Qt::UTC);
    const long long wall = fields.toSecsSinceEpoch();
    const std::vector<long long> moments = WallMoments(fields, {});
    if (moments.empty()) {
        problem = SkippedProblem(wall);
        return std::nullopt;
    }
    if (moments.size() > 1) {
        problem = RepeatedProblem(wall, moments.front(), moments.back());
        return std::nullopt;
    }
    if (moments.front() < 0) {
        problem = tooEarly;
        return std::nullopt;
    }
    return Time::TimePoint(Time::Microseconds(moments.front() * MICROS));
}

QDateTime WallTimeAt(Time::TimePoint instant, const QString& zone) {
    const long long micros = instant.time_since_epoch().count();
    const long long seconds = micros / MICROS - (micros % MICROS < 0 ? 1 : 0);
    return QDateTime::fromSecsSinceEpoch(seconds + OffsetAt(seconds, zone), Qt::UTC);
}

QDateTime WallFromText(const QString& text) {
    // Read as UTC from the start: read as local time, one in a gap would be invalid.
    const QStringList parts = text.split(QLatin1Char('T'));
    return parts.size() != 2 ? QDateTime()
                             : QDateTime(QDate::fromString(parts[0], Qt::ISODate),
                                         QTime::fromString(parts[1], Qt::ISODate), Qt::UTC);
}

}  // namespace Vexlor::ScheduleTool
