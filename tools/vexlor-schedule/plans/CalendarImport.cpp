#include "plans/Calendar.h"

#include <algorithm>
#include <set>
#include <utility>

#include "base/RecordText.h"
#include "plans/CalendarRead.h"
#include "plans/Occurrences.h"
#include "plans/TopUp.h"

namespace Vexlor::ScheduleTool {

namespace {

using Ics::Entry;

struct Counts {
    int added = 0;
    int updated = 0;
    int removed = 0;
    int unchanged = 0;
};

void RemoveTitle(QK::RecordTimeList& schedule, const QString& title) {
    schedule.erase(std::remove_if(schedule.begin(), schedule.end(),
                                  [&](const QK::RecordTime& r) { return r.title == title; }),
                   schedule.end());
}

void RemovePlan(QK::RecordTimeList& schedule, std::vector<Plan>& plans,
                std::vector<Plan>::iterator plan) {
    schedule.erase(
        std::remove_if(schedule.begin(), schedule.end(),
                       [&](const QK::RecordTime& r) { return IsOccurrenceOf(*plan, r.title); }),
        schedule.end());
    plans.erase(plan);
}

// The title is used by a plan, or by a record of the schedule that belongs to none.
bool TitleTaken(const QK::RecordTimeList& schedule, const PlanBook& book, const QString& title) {
    for (const Plan& plan : book.plans) {
        if (plan.title == title) {
            return true;
        }
    }
    return std::any_of(schedule.begin(), schedule.end(),
                       [&](const QK::RecordTime& r) { return r.title == title; });
}

bool IsOver(const QK::RecordTime& record, Time::TimePoint now) {
    return record.duration.count() == 0 ? record.startTime < now
                                        : record.startTime + record.duration <= now;
}

std::vector<Plan>::iterator FindPlan(std::vector<Plan>& plans, const QString& source,
                                     const QString& uid) {
    return std::find_if(plans.begin(), plans.end(),
                        [&](const Plan& p) { return p.source == source && p.uid == uid; });
}

std::vector<ImportedRecord>::iterator FindRecord(std::vector<ImportedRecord>& imported,
                                                 const QString& source, const QString& uid) {
    return std::find_if(imported.begin(), imported.end(), [&](const ImportedRecord& r) {
        return r.source == source && r.uid == uid;
    });
}

// Puts the entry among the plans or into the schedule; false, with a line saying why, when
// it would clash with what is there or is over.
bool Place(ImportResult& result, const Entry& entry, const QString& source, Time::TimePoint now) {
    const QString& title = entry.plan ? entry.plan->title : entry.record.title;
    if (TitleTaken(result.schedule, result.book, title)) {
        result.lines << QStringLiteral("skipped %1: the title is taken").arg(QuoteTitle(title));
        return false;
    }
    if (entry.plan) {
        result.book.plans.push_back(*entry.plan);
        return true;
    }
    if (IsOver(entry.record, now)) {
        result.lines
            << QStringLiteral("skipped %1: it is already over").arg(DescribeRecord(entry.record));
        return false;
    }
    if (std::any_of(result.schedule.begin(), result.schedule.end(), [&](const QK::RecordTime& r) {
            return r.startTime == entry.record.startTime;
        })) {
        result.lines << QStringLiteral("skipped %1: another recording starts at the same moment")
                            .arg(DescribeRecord(entry.record));
        return false;
    }
    result.schedule.push_back(entry.record);
    result.book.imported.push_back({source, entry.uid, entry.record});
    return true;
}

// Takes the entry in place of what an earlier import of the same UID from `source` left,
// unless that is the same already.
void Merge(ImportResult& result, Entry& entry, const QString& source, Time::TimePoint now,
           Counts& counts) {
    auto& plans = result.book.plans;
    auto& imported = result.book.imported;
    if (entry.plan) {
        entry.plan->source = source;
    }
    const auto oldPlan = FindPlan(plans, source, entry.uid);
    const auto oldRecord = FindRecord(imported, source, entry.uid);
    const bool same = entry.plan ? oldPlan != plans.end() && SameDefinition(*oldPlan, *entry.plan)
                                 : oldRecord != imported.end() && oldRecord->record == entry.record;
    if (same) {
        ++counts.unchanged;
        return;
    }
    const bool existed = oldPlan != plans.end() || oldRecord != imported.end();
    if (oldPlan != plans.end()) {
        RemovePlan(result.schedule, plans, oldPlan);
    }
    if (oldRecord != imported.end()) {
        RemoveTitle(result.schedule, oldRecord->record.title);
        imported.erase(oldRecord);
    }
    const bool kept = Place(result, entry, source, now);
    if (existed) {
        ++counts.updated;
    } else if (kept) {
        ++counts.added;
    }
}

// Removes the plans and records of `source` whose events are gone from it; gives how many.
int RemoveGone(ImportResult& result, const QString& source, const std::set<QString>& present) {
    int removed = 0;
    auto& plans = result.book.plans;
    for (auto plan = plans.begin(); plan != plans.end();) {
        if (plan->source == source && !present.count(plan->uid)) {
            RemovePlan(result.schedule, plans, plan);
            plan = plans.begin();
            ++removed;
        } else {
            ++plan;
        }
    }
    auto& imported = result.book.imported;
    for (auto record = imported.begin(); record != imported.end();) {
        if (record->source == source && !present.count(record->uid)) {
            RemoveTitle(result.schedule, record->record.title);
            record = imported.erase(record);
            ++removed;
        } else {
            ++record;
        }
    }
    return removed;
}

}  // namespace

QString CalendarTooLarge() {
    return QStringLiteral("the file holds more than %1 MiB (%2 bytes), the most that import takes")
        .arg(MAX_CALENDAR_BYTES >> 20)
        .arg(MAX_CALENDAR_BYTES);
}

ImportResult ImportCalendar(const QK::RecordTimeList& schedule, const PlanBook& book,
                            const QByteArray& text, const QString& source, Time::TimePoint now) {
    ImportResult result{{}, schedule, book, {}, false};
    Ics::Reading reading = Ics::ReadEvents(text);
    if (!reading.error.isEmpty()) {
        result.error = reading.error;
        return result;
    }
    Counts counts;
    std::set<QString> present;
    for (Entry& entry : reading.entries) {
        present.insert(entry.uid);
        Merge(result, entry, source, now, counts);
    }
    counts.removed = RemoveGone(result, source, present);
    TopUpResult topUp = TopUp(result.schedule, result.book, now);
    result.schedule = std::move(topUp.schedule);
    result.book = std::move(topUp.book);
    result.lines += reading.skipped;
    result.lines += topUp.notes;
    result.lines.prepend(
        QStringLiteral("imported %1: %2 added, %3 updated, %4 removed, %5 unchanged")
            .arg(source)
            .arg(counts.added)
            .arg(counts.updated)
            .arg(counts.removed)
            .arg(counts.unchanged));
    result.changed = result.schedule != schedule || result.book != book;
    return result;
}

}  // namespace Vexlor::ScheduleTool
