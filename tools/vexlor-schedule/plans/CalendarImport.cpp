#include "plans/Calendar.h"

#include <algorithm>
#include <set>
#include <utility>

#include "base/RecordText.h"
#include "plans/CalendarRead.h"
#include "plans/Occurrences.h"
#include "plans/ScheduleIndex.h"
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

// Plans and imported records by the file and UID they came from.
using Key = std::pair<QString, QString>;

// The positions of the items with one key, in order; those before `from` are removed.
struct Positions {
    std::vector<std::size_t> at;
    std::size_t from = 0;
};

// The schedule and plan book under import, each lookup and removal indexed: an import
// touches every event of a file, so a search of the whole schedule per event would make it
// grow with the square of the file. Removed plans and records leave gaps until Finish().
class Importing {
public:
    Importing(const QK::RecordTimeList& schedule, const PlanBook& book);

    // The title is used by a plan, or by a record of the schedule.
    bool TitleTaken(const QString& title) {
        return planTitles_.value(title) > 0 || schedule_.FirstTitled(title) != ScheduleIndex::NONE;
    }
    bool StartTaken(Time::TimePoint start) {
        return schedule_.FirstAt(start) != ScheduleIndex::NONE;
    }
    // The plan or record that `key` was imported as, if any: a position in plans or imported.
    std::size_t FindPlan(const Key& key) { return Find(planAt_, plans_, key); }
    std::size_t FindRecord(const Key& key) { return Find(recordAt_, imported_, key); }
    const Plan& PlanAt(std::size_t position) const { return *plans_[position]; }
    const ImportedRecord& RecordAt(std::size_t position) const { return *imported_[position]; }

    void AddPlan(const Plan& plan);
    void AddRecord(const ImportedRecord& imported);
    // With what it put into the schedule.
    void RemovePlan(std::size_t position);
    void RemoveRecord(std::size_t position);
    // Those from `source` whose UID is not in `present`; gives how many.
    int RemoveGone(const QString& source, const std::set<QString>& present);

    void Finish(ImportResult& result) const;

private:
    // The first of them that is not removed.
    template <typename Item>
    static std::size_t Find(QHash<Key, Positions>& at,
                            const std::vector<std::optional<Item>>& items, const Key& key) {
        const auto found = at.find(key);
        if (found == at.end()) {
            return ScheduleIndex::NONE;
        }
        Positions& positions = *found;
        while (positions.from < positions.at.size() && !items[positions.at[positions.from]]) {
            ++positions.from;
        }
        return positions.from < positions.at.size() ? positions.at[positions.from]
                                                    : ScheduleIndex::NONE;
    }

    ScheduleIndex schedule_;
    std::vector<std::optional<Plan>> plans_;
    std::vector<std::optional<ImportedRecord>> imported_;
    QHash<QString, int> planTitles_;
    QHash<Key, Positions> planAt_;
    QHash<Key, Positions> recordAt_;
};

Importing::Importing(const QK::RecordTimeList& schedule, const PlanBook& book)
    : schedule_(schedule) {
    for (const Plan& plan : book.plans) {
        AddPlan(plan);
    }
    for (const ImportedRecord& imported : book.imported) {
        imported_.emplace_back(imported);
        recordAt_[Key{imported.source, imported.uid}].at.push_back(imported_.size() - 1);
    }
}

void Importing::AddPlan(const Plan& plan) {
    plans_.emplace_back(plan);
    ++planTitles_[plan.title];
    planAt_[Key{plan.source, plan.uid}].at.push_back(plans_.size() - 1);
}

void Importing::AddRecord(const ImportedRecord& imported) {
    schedule_.Add(imported.record);
    imported_.emplace_back(imported);
    recordAt_[Key{imported.source, imported.uid}].at.push_back(imported_.size() - 1);
}

void Importing::RemovePlan(std::size_t position) {
    const Plan& plan = *plans_[position];
    schedule_.RemoveOccurrencesOf(plan.title);
    --planTitles_[plan.title];
    plans_[position].reset();
}

void Importing::RemoveRecord(std::size_t position) {
    const ImportedRecord& imported = *imported_[position];
    schedule_.RemoveTitled(imported.record.title);
    imported_[position].reset();
}

int Importing::RemoveGone(const QString& source, const std::set<QString>& present) {
    int removed = 0;
    for (std::size_t i = 0; i < plans_.size(); ++i) {
        if (plans_[i] && plans_[i]->source == source && !present.count(plans_[i]->uid)) {
            RemovePlan(i);
            ++removed;
        }
    }
    for (std::size_t i = 0; i < imported_.size(); ++i) {
        if (imported_[i] && imported_[i]->source == source && !present.count(imported_[i]->uid)) {
            RemoveRecord(i);
            ++removed;
        }
    }
    return removed;
}

void Importing::Finish(ImportResult& result) const {
    result.schedule = schedule_.Records();
    result.book.plans.clear();
    for (const auto& plan : plans_) {
        if (plan) {
            result.book.plans.push_back(*plan);
        }
    }
    result.book.imported.clear();
    for (const auto& imported : imported_) {
        if (imported) {
            result.book.imported.push_back(*imported);
        }
    }
}

bool IsOver(const QK::RecordTime& record, Time::TimePoint now) {
    return record.duration.count() == 0 ? record.startTime < now
                                        : record.startTime + record.duration <= now;
}

// Puts the entry among the plans or into the schedule; false, with a line saying why, when
// it would clash with what is there or is over.
bool Place(Importing& book, ImportResult& result, const Entry& entry, const QString& source,
           Time::TimePoint now) {
    const QString& title = entry.plan ? entry.plan->title : entry.record.title;
    if (book.TitleTaken(title)) {
        result.lines << QStringLiteral("skipped %1: the title is taken").arg(QuoteTitle(title));
        return false;
    }
    if (entry.plan) {
        book.AddPlan(*entry.plan);
        return true;
    }
    if (IsOver(entry.record, now)) {
        result.lines
            << QStringLiteral("skipped %1: it is already over").arg(DescribeRecord(entry.record));
        return false;
    }
    if (book.StartTaken(entry.record.startTime)) {
        result.lines << QStringLiteral("skipped %1: another recording starts at the same moment")
                            .arg(DescribeRecord(entry.record));
        return false;
    }
    book.AddRecord({source, entry.uid, entry.record});
    return true;
}

// Takes the entry in place of what an earlier import of the same UID from `source` left,
// unless that is the same already.
void Merge(Importing& book, ImportResult& result, Entry& entry, const QString& source,
           Time::TimePoint now, Counts& counts) {
    if (entry.plan) {
        entry.plan->source = source;
    }
    const Key key{source, entry.uid};
    const std::size_t oldPlan = book.FindPlan(key);
    const std::size_t oldRecord = book.FindRecord(key);
    const bool hadPlan = oldPlan != ScheduleIndex::NONE;
    const bool hadRecord = oldRecord != ScheduleIndex::NONE;
    const bool same = entry.plan ? hadPlan && SameDefinition(book.PlanAt(oldPlan), *entry.plan)
                                 : hadRecord && book.RecordAt(oldRecord).record == entry.record;
    if (same) {
        ++counts.unchanged;
        return;
    }
    if (hadPlan) {
        book.RemovePlan(oldPlan);
    }
    if (hadRecord) {
        book.RemoveRecord(oldRecord);
    }
    const bool kept = Place(book, result, entry, source, now);
    if (hadPlan || hadRecord) {
        ++counts.updated;
    } else if (kept) {
        ++counts.added;
    }
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
    Importing importing(schedule, book);
    for (Entry& entry : reading.entries) {
        present.insert(entry.uid);
        Merge(importing, result, entry, source, now, counts);
    }
    counts.removed = importing.RemoveGone(source, present);
    importing.Finish(result);
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
