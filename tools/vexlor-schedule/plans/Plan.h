#pragma once

#include <optional>
#include <vector>

#include <QByteArray>
#include <QDateTime>
#include <QList>
#include <QString>

#include "interfaces/RecordTime.h"

namespace Vexlor::ScheduleTool {

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

}  // namespace Vexlor::ScheduleTool
