#include "plans/CalendarRead.h"

#include <algorithm>
#include <set>
#include <utility>

#include <KCalendarCore/Event>
#include <KCalendarCore/ICalFormat>
#include <KCalendarCore/MemoryCalendar>
#include <KCalendarCore/Recurrence>
#include <KCalendarCore/RecurrenceRule>
#include <QTimeZone>

#include "base/TitleRule.h"
#include "base/WallTime.h"
#include "plans/CalendarProperties.h"
#include "plans/CalendarScan.h"
#include "plans/Occurrences.h"
#include "plans/Rules.h"

namespace Vexlor::ScheduleTool::Ics {

namespace {

// What an event may hold: carried out, or bookkeeping that changes nothing here.
const std::set<QString> USED = {
    "UID",          "SUMMARY",       "DTSTART", "DTEND",   "DURATION",      "RRULE",   "EXDATE",
    "X-VEXLOR-TAG", "X-VEXLOR-MODE", "DTSTAMP", "CREATED", "LAST-MODIFIED", "SEQUENCE"};

QString ZoneOf(const QDateTime& time) {
    switch (time.timeSpec()) {
        case Qt::TimeZone:
            return QString::fromUtf8(time.timeZone().id());
        case Qt::UTC:
        case Qt::OffsetFromUTC:
            return QStringLiteral("UTC");
        case Qt::LocalTime:
            break;
    }
    return {};  // floating: the local clock
}

// The event's length in whole seconds, from its DURATION or its DTEND; 0 without either.
long long LengthSeconds(const KCalendarCore::Event& event, Time::TimePoint start) {
    if (event.hasDuration()) {
        return event.duration().asSeconds();
    }
    if (event.hasEndDate()) {
        // The end is read like the start, not as Qt picks in a gap or fold.
        const QDateTime end = event.dtEnd();
        return (ResolveWallTime(QDateTime(end.date(), end.time(), Qt::UTC), ZoneOf(end)) - start) /
               Time::Microseconds(1000000);
    }
    return 0;
}

// Reads one event into the reading: an entry, or a line saying why it is skipped. An event
// that cannot be read at all sets the reading's error, which refuses the whole file.
class EventReader {
public:
    EventReader(Reading& reading, const ScannedEvent& scanned)
        : reading_(reading),
          scanned_(scanned),
          where_(QStringLiteral("the event on line %1").arg(scanned.line)) {}
    void Read(const KCalendarCore::MemoryCalendar& calendar, std::set<QString>& seen);

private:
    // Each check gives false when the event goes no further.
    bool Skip(const QString& line) {
        reading_.skipped << line;
        return false;
    }
    bool Refuse(const QString& error) {
        reading_.error = error;
        return false;
    }
    bool CheckText(std::set<QString>& seen);
    bool ReadStart();
    bool CheckContent();
    void NoteLeftOut(const KCalendarCore::Recurrence& recurrence);
    bool Fill(Entry& entry);
    bool ReadPlan(Entry& entry);

    Reading& reading_;
    const ScannedEvent& scanned_;
    const QString where_;  // "the event on line 12"
    KCalendarCore::Event::Ptr event_;
    QDateTime wall_;  // the start on the clock of `zone_`
    QString zone_;
    QString title_;
};

void EventReader::Read(const KCalendarCore::MemoryCalendar& calendar, std::set<QString>& seen) {
    if (!CheckText(seen)) {
        return;
    }
    event_ = calendar.event(scanned_.uid);
    if (!event_) {
        Refuse(LineError(scanned_.line, QStringLiteral("BEGIN:VEVENT")));
        return;
    }
    Entry entry;
    if (ReadStart() && CheckContent() && Fill(entry)) {
        reading_.entries.push_back(std::move(entry));
    }
}

// What the scanned text alone decides, before the parsed event is looked up by its UID.
bool EventReader::CheckText(std::set<QString>& seen) {
    if (scanned_.uid.isEmpty()) {
        return Skip(QStringLiteral("skipped %1: it has no UID").arg(where_));
    }
    if (Has(scanned_, "RECURRENCE-ID")) {
        return Skip(QStringLiteral("skipped %1: a changed occurrence of a recurring event "
                                   "(RECURRENCE-ID) is not supported")
                        .arg(where_));
    }
    if (!seen.insert(scanned_.uid).second) {
        return Skip(QStringLiteral("skipped %1: its UID is used by an earlier event").arg(where_));
    }
    return true;
}

bool EventReader::ReadStart() {
    if (!Has(scanned_, "DTSTART")) {
        return Skip(QStringLiteral("skipped %1: it has no DTSTART").arg(where_));
    }
    // A start in a gap is read as an invalid QDateTime that keeps its fields and zone.
    const QDateTime start = event_->dtStart();
    if (!start.date().isValid() || !start.time().isValid()) {
        return Refuse(
            QStringLiteral("line %1: DTSTART could not be read").arg(LineOf(scanned_, "DTSTART")));
    }
    wall_ = QDateTime(start.date(), start.time(), Qt::UTC);
    zone_ = ZoneOf(start);
    return true;
}

bool EventReader::CheckContent() {
    title_ = event_->summary().trimmed();
    // As `add` checks it; before any line that quotes the title.
    const int appended = Has(scanned_, "RRULE") ? OCCURRENCE_STAMP_BYTES : 0;
    if (!title_.isEmpty()) {
        if (const QString problem = TitleProblem(title_, appended); !problem.isEmpty()) {
            return Skip(QStringLiteral("skipped %1: %2").arg(where_, problem));
        }
    }
    if (event_->allDay()) {
        return Skip(
            QStringLiteral("skipped %1 (\"%2\"): it has no time of day").arg(where_, title_));
    }
    if (title_.isEmpty()) {
        return Skip(QStringLiteral("skipped %1: it has no SUMMARY").arg(where_));
    }
    const KCalendarCore::Recurrence* recurrence = event_->recurrence();
    if (Has(scanned_, "RRULE") && recurrence->rRules().size() != 1) {
        return Refuse(
            QStringLiteral("line %1: RRULE could not be read").arg(LineOf(scanned_, "RRULE")));
    }
    NoteLeftOut(*recurrence);
    if (!zone_.isEmpty() && !QTimeZone(zone_.toUtf8()).isValid()) {
        return Skip(QStringLiteral("skipped %1 (\"%2\"): time zone %3 is unknown")
                        .arg(where_, title_, zone_));
    }
    return true;
}

// The event is kept without what it holds that is not carried out; the line says what.
void EventReader::NoteLeftOut(const KCalendarCore::Recurrence& recurrence) {
    QStringList unused;
    std::set<QString> named;  // a hostile event may hold many thousand names
    for (const Property& property : scanned_.properties) {
        if (!USED.count(property.name) && named.insert(property.name).second) {
            unused << property.name;
        }
    }
    unused += scanned_.components;
    if (!recurrence.exDates().isEmpty()) {
        unused << QStringLiteral("EXDATE given as dates");
    }
    if (!unused.isEmpty()) {
        reading_.skipped
            << QStringLiteral("%1 (\"%2\"): left out %3").arg(where_, title_, unused.join(", "));
    }
}

bool EventReader::Fill(Entry& entry) {
    entry.uid = scanned_.uid;
    entry.record.startTime = ResolveWallTime(wall_, zone_);
    const long long seconds = LengthSeconds(*event_, entry.record.startTime);
    if (seconds < 0) {
        return Refuse(QStringLiteral("line %1: the event ends before it starts")
                          .arg(LineOf(scanned_, "DTEND")));
    }
    entry.record.title = title_;
    entry.record.duration = Time::Microseconds(seconds * 1000000);
    entry.record.tag = event_->nonKDECustomProperty(TAG_PROPERTY).toInt();
    if (event_->nonKDECustomProperty(TAG_PROPERTY).isEmpty()) {
        entry.record.tag = -1;
    }
    entry.record.mode = static_cast<QK::RecordMode>(
        std::clamp(event_->nonKDECustomProperty(MODE_PROPERTY).toInt(), 0, 2));
    return event_->recurrence()->rRules().isEmpty() || ReadPlan(entry);
}

// A recurring event becomes a plan with the record's length, tag and mode.
bool EventReader::ReadPlan(Entry& entry) {
    const KCalendarCore::Recurrence* recurrence = event_->recurrence();
    Plan plan;
    plan.title = title_;
    QString error;
    const auto rule = ParseRule(recurrence->rRules().front()->rrule(), error);
    if (!rule) {
        return Refuse(QStringLiteral("line %1: %2").arg(LineOf(scanned_, "RRULE")).arg(error));
    }
    plan.rule = *rule;
    plan.start = wall_;
    plan.zone = zone_;
    for (const QDateTime& exception : recurrence->exDateTimes()) {
        const long long instant = exception.toSecsSinceEpoch();
        plan.exceptions << WallTimeAt(Time::TimePoint(Time::Microseconds(instant * 1000000)),
                                      zone_);
    }
    plan.duration = entry.record.duration;
    plan.tag = entry.record.tag;
    plan.mode = static_cast<int>(entry.record.mode);
    plan.uid = scanned_.uid;
    entry.plan = plan;
    return true;
}

}  // namespace

Reading ReadEvents(const QByteArray& bytes) {
    Reading reading;
    const Scan scan = ScanCalendar(bytes);
    if (!scan.error.isEmpty()) {
        reading.error = scan.error;
        return reading;
    }
    for (const QString& other : scan.otherComponents) {
        reading.skipped << QStringLiteral("skipped %1: only events are imported").arg(other);
    }
    auto calendar = KCalendarCore::MemoryCalendar::Ptr::create(QTimeZone::utc());
    KCalendarCore::ICalFormat format;
    if (!format.fromRawString(calendar, bytes)) {
        reading.error = QStringLiteral("the file is not an iCalendar document");
        return reading;
    }
    std::set<QString> seen;
    for (const ScannedEvent& scanned : scan.events) {
        EventReader(reading, scanned).Read(*calendar, seen);
        if (!reading.error.isEmpty()) {
            break;
        }
    }
    return reading;
}

}  // namespace Vexlor::ScheduleTool::Ics
