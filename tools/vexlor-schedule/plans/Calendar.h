#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

#include "interfaces/RecordTime.h"
#include "plans/Plan.h"

namespace Vexlor::ScheduleTool {

struct ImportResult {
    QString error;  // set: the file is refused and nothing changes
    QK::RecordTimeList schedule;
    PlanBook book;
    QStringList lines;  // what was added, updated, removed, skipped
    bool changed = false;
};

// The most bytes a calendar file may hold, which bounds the memory and time an import takes
// (20,000 plain events take about 2.2 MB); `import` refuses a file over it before reading
// further.
constexpr qint64 MAX_CALENDAR_BYTES = 4 * 1024 * 1024;

// Why a calendar over MAX_CALENDAR_BYTES is refused.
QString CalendarTooLarge();

// Takes the events of an .ics file into the schedule: a VEVENT with an RRULE becomes a
// plan, one without a one-off record. `source` names the file: an event imported from it
// before is found again by its UID and updated, and the events from it that are gone are
// removed. All-day events, events without a UID, and properties that this program does not
// carry out are reported and left out.
ImportResult ImportCalendar(const QK::RecordTimeList& schedule, const PlanBook& book,
                            const QByteArray& text, const QString& source, Time::TimePoint now);

// Every plan and every one-off record of the schedule as an iCalendar document.
QString WriteCalendar(const QK::RecordTimeList& schedule, const PlanBook& book);

}  // namespace Vexlor::ScheduleTool
