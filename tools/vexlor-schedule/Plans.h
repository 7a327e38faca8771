#pragma once

#include <cstddef>
#include <optional>
#include <vector>

#include <QByteArray>
#include <QDateTime>
#include <QList>
#include <QString>
#include <QStringList>

#include "interfaces/RecordTime.h"

namespace Vexlor::ScheduleTool {

// How far ahead a plan's occurrences are put into the schedule: a week holds one period of
// every weekly rule, so the checks made when a plan is added see each of its weekdays once.
// The first occurrence after the horizon is kept as well, so that a plan never leaves the
// schedule empty (which would switch scheduling off) while it has recordings to come.
constexpr Time::Microseconds PLAN_HORIZON{7LL * 24 * 3600 * 1000000};
// A rule that repeats every few seconds would otherwise fill the schedule.
constexpr std::size_t MAX_PLACED_PER_PLAN = 64;

// A recurring recording. Its occurrences are computed on the wall clock of its time zone,
// so "10:00 every Monday" stays 10:00 across daylight-saving changes.
struct Plan {
    QString title;
    QString rule;     // an RRULE value, "FREQ=WEEKLY;BYDAY=MO"
    QDateTime start;  // the first occurrence as the plan's clock shows it (date and time
                      // fields only; carried with Qt::UTC, which has no gaps or folds)
    QString zone;     // an IANA time-zone id; empty: the local time zone
    QList<QDateTime> exceptions;  // EXDATE, as the plan's clock shows them, like `start`
    Time::Microseconds duration{0};
    int tag = -1;
    int mode = 0;
    QString uid;
    QString source;  // the calendar file it was imported from; empty: added by hand
    // Every occurrence that starts at or before this has been put into the schedule (or was
    // already over): whatever of them ran, was dropped or was removed is not put back.
    Time::TimePoint placedUntil{Time::Microseconds(-1)};
};

// The definition alone, without how far it has been placed.
bool SameDefinition(const Plan& a, const Plan& b);

// A single event imported from a calendar, kept so that a later import can find its record.
struct ImportedRecord {
    QString source;
    QString uid;
    QK::RecordTime record;
};

struct PlanBook {
    std::vector<Plan> plans;
    std::vector<ImportedRecord> imported;
    bool empty() const { return plans.empty() && imported.empty(); }
};

bool operator==(const PlanBook& a, const PlanBook& b);
inline bool operator!=(const PlanBook& a, const PlanBook& b) {
    return !(a == b);
}

QByteArray EncodePlans(const PlanBook& book);
// Nothing for bytes that are not plans; empty bytes are an empty book.
std::optional<PlanBook> DecodePlans(const QByteArray& bytes);

// RULE as the command line takes it: an RRULE value, or daily, weekdays or weekly. Gives
// the RRULE in normal form, or nothing with `error` set.
std::optional<QString> ParseRule(const QString& text, QString& error);

// The instant at which the clock of `zone` (empty: local) shows `wall`, as RFC 5545 reads
// local times: a time the clocks skip is taken with the offset before the change (so it moves
// forward by the length of the gap), a time they show twice is the first of the two.
Time::TimePoint ResolveWallTime(const QDateTime& wall, const QString& zone);

// "2030-01-31T10:00:00" as a wall time carried with Qt::UTC; invalid for other text.
QDateTime WallFromText(const QString& text);

// What the clock of `zone` (empty: local) shows at `instant`, carried with Qt::UTC.
QDateTime WallTimeAt(Time::TimePoint instant, const QString& zone);

// The starts of the plan's occurrences after `after`, in order, at most `limit` of them.
std::vector<Time::TimePoint> Occurrences(const Plan& plan, Time::TimePoint after,
                                         std::size_t limit);

// "Standup (2030-01-31 10:00)": unique within a plan, as its occurrences start at distinct
// times of its clock.
QString OccurrenceTitle(const Plan& plan, Time::TimePoint start);
bool IsOccurrenceOf(const Plan& plan, const QString& title);

// The plan's occurrence records as they go into the schedule.
QK::RecordTime OccurrenceRecord(const Plan& plan, Time::TimePoint start);

struct TopUpResult {
    QK::RecordTimeList schedule;
    PlanBook book;
    QK::RecordTimeList added;
    QStringList notes;  // occurrences left out, each a whole sentence
    bool changed = false;
};

// Puts into the schedule every occurrence of each plan that is not placed yet and starts
// within the horizon from `now`, and the first one after it; leaves out those already over
// and those that would start at the same moment as a record in the schedule or take its
// title. Plans added by hand that have nothing left to run are removed.
TopUpResult TopUp(const QK::RecordTimeList& schedule, const PlanBook& book, Time::TimePoint now);

// The next occurrence of the plan that runs, in the schedule or still to be placed.
std::optional<Time::TimePoint> NextOccurrence(const Plan& plan, const QK::RecordTimeList& schedule);

}  // namespace Vexlor::ScheduleTool
