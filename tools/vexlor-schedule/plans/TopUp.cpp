#include "plans/TopUp.h"

#include <algorithm>

#include "core/Saturating.h"
#include "plans/Occurrences.h"
#include "plans/ScheduleIndex.h"

namespace Vexlor::ScheduleTool {

namespace {

// Why `record` cannot join the schedule, or nothing: what the first record in the way, in the
// schedule's order, has in common with it.
QString Collision(ScheduleIndex& schedule, const QK::RecordTime& record) {
    const std::size_t sameTitle = schedule.FirstTitled(record.title);
    const std::size_t sameStart = schedule.FirstAt(record.startTime);
    if (sameTitle != ScheduleIndex::NONE && sameTitle <= sameStart) {
        return QStringLiteral("its title is taken");
    }
    if (sameStart != ScheduleIndex::NONE) {
        // The scheduler keeps one record per start time.
        return QStringLiteral("it would start at the same moment as \"%1\"")
            .arg(schedule.At(sameStart).title);
    }
    return {};
}

}  // namespace

TopUpResult TopUp(const QK::RecordTimeList& schedule, const PlanBook& book, Time::TimePoint now) {
    TopUpResult result{{}, book, {}, {}, false};
    ScheduleIndex index(schedule);
    const Time::TimePoint horizonEnd = Core::SaturatingAdd(now, PLAN_HORIZON);
    std::vector<Plan> kept;
    for (Plan plan : book.plans) {
        std::size_t pending = static_cast<std::size_t>(index.OccurrencesOf(plan.title));
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
            const QString collision = Collision(index, record);
            if (!collision.isEmpty()) {
                result.notes << QStringLiteral("left out \"%1\": %2").arg(record.title, collision);
                continue;
            }
            index.Add(record);
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
    result.schedule = index.Records();
    std::stable_sort(
        result.schedule.begin(), result.schedule.end(),
        [](const QK::RecordTime& a, const QK::RecordTime& b) { return a.startTime < b.startTime; });
    result.changed = !result.added.empty() || result.book != book;
    return result;
}

}  // namespace Vexlor::ScheduleTool
