#include "schedule/Edits.h"

#include <algorithm>

#include "Scheduler/SchedulerHelper.h"
#include "base/RecordText.h"
#include "core/Saturating.h"
#include "plans/Calendar.h"
#include "plans/Occurrences.h"
#include "plans/Rules.h"
#include "plans/TopUp.h"
#include "schedule/Reports.h"

namespace Vexlor::ScheduleTool {

namespace {

// The stored schedule as the editor sees it: put in record by record, so records that are
// already over stay out.
void LoadInto(QK::SchedulerHelper& helper, const QK::RecordTimeList& schedule) {
    for (const QK::RecordTime& record : schedule) {
        helper.AddRecord(record);
    }
}

Time::TimePoint EndOf(const QK::RecordTime& record) {
    return Core::SaturatingAdd(record.startTime, record.duration);
}

// A recording takes [start, start + duration); one without a planned end, its start. Spans
// that only meet, one ending as the next begins, do not overlap.
bool Overlaps(const QK::RecordTime& a, const QK::RecordTime& b) {
    const auto end = [](const QK::RecordTime& r) {
        return r.duration.count() == 0 ? Core::SaturatingAdd(r.startTime, Time::Microseconds(1))
                                       : EndOf(r);
    };
    return a.startTime < end(b) && b.startTime < end(a);
}

// Why `record` cannot join `planned`, or nothing.
QString Conflict(const QK::RecordTimeList& planned, const QK::RecordTime& record, bool allowOverlap,
                 const EditContext& context) {
    if (context.recording && context.recording->title == record.title) {
        return QStringLiteral("the title is taken by %1, which is being recorded now")
            .arg(DescribeRecord(*context.recording));
    }
    for (const QK::RecordTime& existing : planned) {
        if (existing.title == record.title) {
            return QStringLiteral("the title is taken by %1").arg(DescribeRecord(existing));
        }
    }
    for (const QK::RecordTime& existing : planned) {
        // The scheduler keeps one record per start time; the other would vanish unrun.
        if (existing.startTime == record.startTime) {
            return QStringLiteral("%1 starts at the same moment as %2; only one of them could run")
                .arg(DescribeRecord(record), DescribeRecord(existing));
        }
    }
    if (allowOverlap) {
        return {};
    }
    if (context.recording && Overlaps(*context.recording, record)) {
        return QStringLiteral(
                   "%1 overlaps %2, which is being recorded now (use --allow-overlap to "
                   "keep both)")
            .arg(DescribeRecord(record), DescribeRecord(*context.recording));
    }
    for (const QK::RecordTime& existing : planned) {
        if (Overlaps(existing, record)) {
            return QStringLiteral("%1 overlaps %2 (use --allow-overlap to keep both)")
                .arg(DescribeRecord(record), DescribeRecord(existing));
        }
    }
    return {};
}

const Plan* PlanTitled(const PlanBook& book, const QString& title) {
    for (const Plan& plan : book.plans) {
        if (plan.title == title) {
            return &plan;
        }
    }
    return nullptr;
}

QString OffNote(bool enabled) {
    return enabled ? QString()
                   : Line(QStringLiteral("scheduling is off, so it will not run: switch it on with "
                                         "\"vexlor-schedule enable\" (or add with --enable)"));
}

// The occurrences of plans not in the schedule yet that could meet `record`.
QK::RecordTimeList UnplacedNear(const PlanBook& book, const QK::RecordTime& record) {
    QK::RecordTimeList near;
    for (const Plan& plan : book.plans) {
        const Time::TimePoint after =
            std::max(plan.placedUntil,
                     Core::SaturatingSub(record.startTime, plan.duration) - Time::Microseconds(1));
        for (const Time::TimePoint start : Occurrences(plan, after, 2)) {
            near.push_back(OccurrenceRecord(plan, start));
        }
    }
    return near;
}

EditOutcome Add(const ScheduleState& state, const EditRequest& request,
                const EditContext& context) {
    const QK::RecordTime& record = request.record;
    if (record.duration.count() != 0 && EndOf(record) < context.now) {
        return Refused(QStringLiteral("%1 is already over").arg(DescribeRecord(record)));
    }
    QK::SchedulerHelper helper;
    LoadInto(helper, state.schedule);
    if (PlanTitled(state.plans, record.title)) {
        return Refused(
            QStringLiteral("the title is taken by the plan %1").arg(QuoteTitle(record.title)));
    }
    QK::RecordTimeList planned = helper.GetPreparedSchedule();
    const QK::RecordTimeList near = UnplacedNear(state.plans, record);
    planned.insert(planned.end(), near.begin(), near.end());
    const QString conflict = Conflict(planned, record, request.allowOverlap, context);
    if (!conflict.isEmpty()) {
        return Refused(conflict);
    }
    if (helper.AddRecord(record) < 0) {
        return Refused(QStringLiteral("%1 is already over").arg(DescribeRecord(record)));
    }
    EditOutcome outcome;
    outcome.changed =
        ScheduleState{helper.GetPreparedSchedule(), state.enabled || request.enable, state.plans};
    outcome.out = Line(QStringLiteral("added %1").arg(DescribeRecord(record)));
    if (record.startTime < context.now) {
        outcome.out +=
            Line(QStringLiteral("it has begun: it is recorded from now to its planned end"));
    }
    outcome.out += OffNote(outcome.changed->enabled);
    return outcome;
}

// A plan is checked by its occurrences within the horizon, as each would be by `add`.
EditOutcome AddPlan(const ScheduleState& state, const EditRequest& request,
                    const EditContext& context) {
    QString error;
    const auto rule = ParseRule(request.rule, error);
    if (!rule) {
        return Refused(error);
    }
    const QString& title = request.record.title;
    if (PlanTitled(state.plans, title)) {
        return Refused(QStringLiteral("the title is taken by the plan %1").arg(QuoteTitle(title)));
    }
    Plan plan;
    plan.title = title;
    plan.rule = *rule;
    plan.start = request.wallStart;
    plan.duration = request.record.duration;
    plan.tag = request.record.tag;
    plan.mode = static_cast<int>(request.record.mode);
    const TopUpResult alone = TopUp({}, PlanBook{{plan}, {}}, context.now);
    if (alone.added.empty()) {
        return Refused(QStringLiteral("the plan %1 (%2) has no recording from now on")
                           .arg(QuoteTitle(title), plan.rule));
    }
    QK::SchedulerHelper helper;
    LoadInto(helper, state.schedule);
    for (const QK::RecordTime& record : state.schedule) {
        if (record.title == title) {
            return Refused(QStringLiteral("the title is taken by %1").arg(DescribeRecord(record)));
        }
    }
    for (const QK::RecordTime& occurrence : alone.added) {
        const QString conflict =
            Conflict(helper.GetPreparedSchedule(), occurrence, request.allowOverlap, context);
        if (!conflict.isEmpty()) {
            return Refused(conflict);
        }
        helper.AddRecord(occurrence);
    }
    EditOutcome outcome;
    PlanBook book = state.plans;
    book.plans.push_back(alone.book.plans.front());
    outcome.changed =
        ScheduleState{helper.GetPreparedSchedule(), state.enabled || request.enable, book};
    outcome.out = Line(QStringLiteral("added the plan %1 (%2), in the schedule: %3, the first %4")
                           .arg(QuoteTitle(title), plan.rule)
                           .arg(alone.added.size())
                           .arg(DescribeRecord(alone.added.front())));
    outcome.out += OffNote(outcome.changed->enabled);
    return outcome;
}

EditOutcome Remove(const ScheduleState& state, const QString& title) {
    if (const Plan* plan = PlanTitled(state.plans, title)) {
        ScheduleState changed = state;
        auto& schedule = changed.schedule;
        const auto removed = std::remove_if(
            schedule.begin(), schedule.end(),
            [plan](const QK::RecordTime& record) { return IsOccurrenceOf(*plan, record.title); });
        const long count = static_cast<long>(schedule.end() - removed);
        schedule.erase(removed, schedule.end());
        changed.plans.plans.erase(changed.plans.plans.begin() + (plan - state.plans.plans.data()));
        EditOutcome outcome;
        outcome.changed = changed;
        outcome.out =
            Line(QStringLiteral("removed the plan %1 and its %2 recordings in the schedule")
                     .arg(QuoteTitle(title))
                     .arg(count));
        return outcome;
    }
    QK::SchedulerHelper helper;
    LoadInto(helper, state.schedule);
    if (!helper.DoesTitleAlreadyExists(title)) {
        return Refused(QStringLiteral("no planned recording is titled %1").arg(QuoteTitle(title)));
    }
    helper.RemoveRecord(title);
    EditOutcome outcome;
    outcome.changed = ScheduleState{helper.GetPreparedSchedule(), state.enabled, state.plans};
    outcome.out = Line(QStringLiteral("removed %1").arg(QuoteTitle(title)));
    return outcome;
}

EditOutcome Import(const ScheduleState& state, const EditRequest& request,
                   const EditContext& context) {
    if (request.calendar.size() > MAX_CALENDAR_BYTES) {
        return Refused(
            QStringLiteral("%1: %2; nothing was imported").arg(request.source, CalendarTooLarge()));
    }
    const ImportResult result =
        ImportCalendar(state.schedule, state.plans, request.calendar, request.source, context.now);
    if (!result.error.isEmpty()) {
        return Refused(
            QStringLiteral("%1: %2; nothing was imported").arg(request.source, result.error));
    }
    EditOutcome outcome;
    for (const QString& line : result.lines) {
        outcome.out += Line(line);
    }
    if (result.changed) {
        outcome.changed = ScheduleState{result.schedule, state.enabled, result.book};
    }
    return outcome;
}

}  // namespace

EditOutcome ApplyEdit(const ScheduleState& state, const EditRequest& request,
                      const EditContext& context) {
    switch (request.command) {
        case CommandName::Add:
            return request.rule.isEmpty() ? Add(state, request, context)
                                          : AddPlan(state, request, context);
        case CommandName::Remove:
            return Remove(state, request.title);
        case CommandName::Clear:
            return {EXIT_DONE, {}, {}, ScheduleState{{}, state.enabled, {}}};
        case CommandName::Enable:
        case CommandName::Disable:
            return {
                EXIT_DONE,
                {},
                {},
                ScheduleState{state.schedule, request.command == CommandName::Enable, state.plans}};
        case CommandName::List:
            return List(state, request.json);
        case CommandName::Status:
            return Status(state, context, request.json);
        case CommandName::Import:
            return Import(state, request, context);
        case CommandName::Export:
            return {EXIT_DONE, WriteCalendar(state.schedule, state.plans), {}, std::nullopt};
        case CommandName::Upcoming:
            return Upcoming(state, request, context);
        case CommandName::Stop:  // the active run's own business
        case CommandName::Run:
        case CommandName::Help:
        case CommandName::Complete:
            break;
    }
    return Refused(QStringLiteral("not an editing command"));
}

}  // namespace Vexlor::ScheduleTool
