#include "plans/TopUp.h"

#include <algorithm>

#include "core/Saturating.h"
#include "plans/Occurrences.h"

namespace Vexlor::ScheduleTool {

namespace {

int PendingOccurrences(const Plan& plan, const QK::RecordTimeList& schedule) {
    return static_cast<int>(std::count_if(
        schedule.begin(), schedule.end(),
        [&plan](const QK::RecordTime& record) { return IsOccurrenceOf(plan, record.title); }));
}

// Why `record` cannot join `schedule`, or nothing.
QString Collision(const QK::RecordTimeList& schedule, const QK::RecordTime& record) {
    for (const QK::RecordTime& existing : schedule) {
        if (existing.title == record.title) {
            return QStringLiteral("its title is taken");
        }
        if (existing.startTime == record.startTime) {
            // The scheduler keeps one record per start time.
            return QStringLiteral("it would start at the same moment as \"%1\"")
                .arg(existing.title);
        }
    }
    return {};
}

}  // namespace

TopUpResult TopUp(const QK::RecordTimeList& schedule, const PlanBook& book, Time::TimePoint now) {
    TopUpResult result{schedule, book, {}, {}, false};
    const Time::TimePoint horizonEnd = Core::SaturatingAdd(now, PLAN_HORIZON);
    std::vector<Plan> kept;
    for (Plan plan : book.plans) {
        std::size_t pending = PendingOccurrences(plan, result.schedule);
        // Occurrences that start before this are over.
        const Time::TimePoint overUntil =
            Core::SaturatingSub(now, std::max(plan.duration, Time::Microseconds(1)));
        const std::vector<Time::TimePoint> starts =
            Occurrences(plan, std::max(plan.placedUntil, overUntil), MAX_PLACED_PER_PLAN + 1);
        for (const Time::TimePoint start : starts) {
            const bool beyond = start > horizonEnd;
            if ((beyond && pending > 0 && plan.placedUntil > horizonEnd) ||
                pending >= MAX_PLACED_PER_PLAN) {
                break;
            }
            plan.placedUntil = start;
            const QK::RecordTime record = OccurrenceRecord(plan, start);
            const QString collision = Collision(result.schedule, record);
            if (!collision.isEmpty()) {
                result.notes << QStringLiteral("left out \"%1\": %2").arg(record.title, collision);
                continue;
            }
            result.schedule.push_back(record);
            result.added.push_back(record);
            ++pending;
            if (beyond) {
                break;
            }
        }
        if (plan.source.isEmpty() && pending == 0 && starts.empty()) {
            continue;  // finished
        }
        kept.push_back(std::move(plan));
    }
    result.book.plans = std::move(kept);
    std::stable_sort(
        result.schedule.begin(), result.schedule.end(),
        [](const QK::RecordTime& a, const QK::RecordTime& b) { return a.startTime < b.startTime; });
    result.changed = !result.added.empty() || result.book != book;
    return result;
}

}  // namespace Vexlor::ScheduleTool
