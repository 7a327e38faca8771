#include "plans/Occurrences.h"

#include <algorithm>

#include <KCalendarCore/Recurrence>
#include <QRegularExpression>

#include "base/WallTime.h"
#include "plans/Rules.h"

namespace Vexlor::ScheduleTool {

std::vector<Time::TimePoint> Occurrences(const Plan& plan, Time::TimePoint after,
                                         std::size_t limit) {
    std::vector<Time::TimePoint> starts;
    const auto recurrence = WallRecurrence(plan);
    if (!recurrence || limit == 0) {
        return starts;
    }
    // A day back covers any offset change; what resolves to `after` or earlier is skipped.
    QDateTime cursor = std::max(WallTimeAt(after, plan.zone).addDays(-1), plan.start.addSecs(-1));
    while (starts.size() < limit) {
        const QDateTime next = recurrence->getNextDateTime(cursor);
        if (!next.isValid() || next <= cursor) {
            break;
        }
        cursor = next;
        const Time::TimePoint start =
            ResolveWallTime(QDateTime(next.date(), next.time(), Qt::UTC), plan.zone);
        // A time in a gap can land on a later one's instant; each instant runs once.
        if (start > after && (starts.empty() || start > starts.back())) {
            starts.push_back(start);
        }
    }
    return starts;
}

QString OccurrenceTitle(const Plan& plan, Time::TimePoint start) {
    const QDateTime wall = WallTimeAt(start, plan.zone);
    const QString format = wall.time().second() == 0 ? QStringLiteral("yyyy-MM-dd HH:mm")
                                                     : QStringLiteral("yyyy-MM-dd HH:mm:ss");
    return QStringLiteral("%1 (%2)").arg(plan.title, wall.toString(format));
}

std::optional<QString> OccurrenceOf(const QString& title) {
    static const QRegularExpression stamp(
        QStringLiteral("^ \\(\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d(:\\d\\d)?\\)$"));
    // The stamp holds " (" only at its start, so only the last " (" can begin it.
    const int at = title.lastIndexOf(QStringLiteral(" ("));
    if (at < 0 || !stamp.match(title.midRef(at)).hasMatch()) {
        return std::nullopt;
    }
    return title.left(at);
}

bool IsOccurrenceOf(const Plan& plan, const QString& title) {
    const auto of = OccurrenceOf(title);
    return of && *of == plan.title;
}

QK::RecordTime OccurrenceRecord(const Plan& plan, Time::TimePoint start) {
    QK::RecordTime record;
    record.title = OccurrenceTitle(plan, start);
    record.startTime = start;
    record.duration = plan.duration;
    record.tag = plan.tag;
    record.mode = static_cast<QK::RecordMode>(plan.mode);
    return record;
}

QHash<QString, Time::TimePoint> FirstOccurrences(const QK::RecordTimeList& schedule) {
    QHash<QString, Time::TimePoint> first;
    for (const QK::RecordTime& record : schedule) {
        if (const auto plan = OccurrenceOf(record.title)) {
            const auto found = first.find(*plan);
            if (found == first.end()) {
                first.insert(*plan, record.startTime);
            } else if (record.startTime < *found) {
                *found = record.startTime;
            }
        }
    }
    return first;
}

std::optional<Time::TimePoint> NextOccurrence(const Plan& plan,
                                              const QHash<QString, Time::TimePoint>& first) {
    const auto found = first.find(plan.title);
    if (found != first.end()) {
        return *found;
    }
    const auto starts = Occurrences(plan, plan.placedUntil, 1);
    return starts.empty() ? std::nullopt : std::optional<Time::TimePoint>(starts.front());
}

}  // namespace Vexlor::ScheduleTool
