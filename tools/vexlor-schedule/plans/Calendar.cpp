#include "plans/Calendar.h"

#include <algorithm>
#include <map>
#include <set>

#include <KCalendarCore/Event>
#include <KCalendarCore/ICalFormat>
#include <KCalendarCore/MemoryCalendar>
#include <KCalendarCore/Recurrence>
#include <KCalendarCore/RecurrenceRule>
#include <QCryptographicHash>
#include <QRegularExpression>
#include <QTimeZone>

#include "base/RecordText.h"
#include "base/WallTime.h"
#include "plans/Occurrences.h"
#include "plans/Rules.h"
#include "plans/TopUp.h"

namespace Vexlor::ScheduleTool {

namespace {

const QByteArray TAG_PROPERTY = "X-VEXLOR-TAG";
const QByteArray MODE_PROPERTY = "X-VEXLOR-MODE";
// Qt has no valid QDateTime for a wall time the clocks skip, so the library cannot write a
// DTSTART in a gap, which RFC 5545 3.3.5 allows. Such a start is given to the library as the
// instant it stands for, with the wall time in this property, and put back into the text
// after the library has written it.
const QByteArray WALL_START_PROPERTY = "X-VEXLOR-WALL-START";
const QString WALL_FORMAT = QStringLiteral("yyyyMMddTHHmmss");

// What an event may hold: carried out, or bookkeeping that changes nothing here.
const std::set<QString> USED = {
    "UID",          "SUMMARY",       "DTSTART", "DTEND",   "DURATION",      "RRULE",   "EXDATE",
    "X-VEXLOR-TAG", "X-VEXLOR-MODE", "DTSTAMP", "CREATED", "LAST-MODIFIED", "SEQUENCE"};

struct Property {
    QString name;  // upper case
    int line = 0;
};

// A VEVENT as the file holds it, for line numbers and for what it holds beyond what is used.
struct ScannedEvent {
    int line = 0;
    QString uid;
    std::vector<Property> properties;
    QStringList components;  // nested ones, VALARM say
};

struct Scan {
    QString error;
    std::vector<ScannedEvent> events;
    QStringList otherComponents;  // "VTODO (line 12)"
};

QString LineError(int line, const QString& text) {
    return QStringLiteral("line %1 could not be read: %2").arg(line).arg(text.left(200));
}

// The values the parser would reject as a whole, without saying where.
bool ValueFits(const QString& name, const QString& value) {
    static const QRegularExpression dateTimes(
        QStringLiteral(R"(^\d{8}(T\d{6}Z?)?(,\d{8}(T\d{6}Z?)?)*$)"));
    static const QRegularExpression duration(
        QStringLiteral(R"(^[+-]?P(\d+W|\d+D(T(\d+H)?(\d+M)?(\d+S)?)?|T(\d+H)?(\d+M)?(\d+S)?)$)"));
    if (name == QLatin1String("DTSTART") || name == QLatin1String("DTEND") ||
        name == QLatin1String("EXDATE") || name == QLatin1String("RECURRENCE-ID")) {
        return dateTimes.match(value).hasMatch();
    }
    if (name == QLatin1String("DURATION")) {
        return duration.match(value).hasMatch() && value != QLatin1String("PT");
    }
    QString error;
    return name != QLatin1String("RRULE") || ParseRule(value, error).has_value();
}

// Checks the content lines (RFC 5545 section 3.1) and the nesting of the components, which
// the parser below would pass over silently, and notes where each event's properties are.
Scan ScanCalendar(const QByteArray& bytes) {
    static const QRegularExpression contentLine(QStringLiteral(
        R"(^([A-Za-z0-9-]+)(;[A-Za-z0-9-]+=("[^"]*"|[^";:,]*)(,("[^"]*"|[^";:,]*))*)*:(.*)$)"));
    Scan scan;
    const QString text = QString::fromUtf8(bytes);
    if (text.toUtf8() != bytes) {
        scan.error = QStringLiteral("the file is not UTF-8");
        return scan;
    }
    // Unfolded lines with the number of the line each begins on.
    std::vector<std::pair<int, QString>> lines;
    const QStringList raw = text.split(QLatin1Char('\n'));
    for (int i = 0; i < raw.size(); ++i) {
        QString line = raw[i];
        if (line.endsWith(QLatin1Char('\r'))) {
            line.chop(1);
        }
        if (!lines.empty() && (line.startsWith(QLatin1Char(' ')) || line.startsWith('\t'))) {
            lines.back().second += line.mid(1);
        } else if (!line.isEmpty()) {
            lines.emplace_back(i + 1, line);
        }
    }
    if (lines.empty()) {
        scan.error = QStringLiteral("the file is empty");
        return scan;
    }
    QStringList open;
    bool ended = false;
    for (const auto& [number, line] : lines) {
        const QRegularExpressionMatch match = contentLine.match(line);
        if (!match.hasMatch() || ended) {
            scan.error = LineError(number, line);
            return scan;
        }
        const QString name = match.captured(1).toUpper();
        const QString value = match.captured(6).trimmed().toUpper();
        if (open.isEmpty() && !(name == QLatin1String("BEGIN") && value == "VCALENDAR")) {
            scan.error = LineError(number, line);
            return scan;
        }
        if (name == QLatin1String("BEGIN")) {
            if (value.isEmpty()) {
                scan.error = LineError(number, line);
                return scan;
            }
            if (open.size() == 1 && value == QLatin1String("VEVENT")) {
                scan.events.push_back({number, {}, {}, {}});
            } else if (open.size() == 2 && open.back() == QLatin1String("VEVENT")) {
                scan.events.back().components << value;
            } else if (open.size() == 1 && value != QLatin1String("VTIMEZONE")) {
                scan.otherComponents << QStringLiteral("%1 (line %2)").arg(value).arg(number);
            }
            open << value;
        } else if (name == QLatin1String("END")) {
            if (value != open.back()) {
                scan.error = LineError(number, line);
                return scan;
            }
            open.removeLast();
            ended = open.isEmpty();
        } else if (open.size() == 2 && open.back() == QLatin1String("VEVENT")) {
            if (!ValueFits(name, match.captured(6).trimmed())) {
                scan.error = LineError(number, line);
                return scan;
            }
            scan.events.back().properties.push_back({name, number});
            if (name == QLatin1String("UID")) {
                scan.events.back().uid = match.captured(6);
            }
        }
    }
    if (!open.isEmpty()) {
        scan.error = QStringLiteral("the file ends inside %1").arg(open.back());
    }
    return scan;
}

int LineOf(const ScannedEvent& event, const char* name) {
    for (const Property& property : event.properties) {
        if (property.name == QLatin1String(name)) {
            return property.line;
        }
    }
    return event.line;
}

bool Has(const ScannedEvent& event, const char* name) {
    return std::any_of(event.properties.begin(), event.properties.end(),
                       [name](const Property& p) { return p.name == QLatin1String(name); });
}

// One event as it is to be kept: a plan, or a one-off record.
struct Entry {
    QString uid;
    std::optional<Plan> plan;
    QK::RecordTime record;
};

struct Reading {
    QString error;
    std::vector<Entry> entries;
    QStringList skipped;
};

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
        const QString where = QStringLiteral("the event on line %1").arg(scanned.line);
        if (scanned.uid.isEmpty()) {
            reading.skipped << QStringLiteral("skipped %1: it has no UID").arg(where);
            continue;
        }
        if (Has(scanned, "RECURRENCE-ID")) {
            reading.skipped << QStringLiteral(
                                   "skipped %1: a changed occurrence of a recurring event "
                                   "(RECURRENCE-ID) is not supported")
                                   .arg(where);
            continue;
        }
        if (!seen.insert(scanned.uid).second) {
            reading.skipped
                << QStringLiteral("skipped %1: its UID is used by an earlier event").arg(where);
            continue;
        }
        const KCalendarCore::Event::Ptr event = calendar->event(scanned.uid);
        if (!event) {
            reading.error = LineError(scanned.line, QStringLiteral("BEGIN:VEVENT"));
            return reading;
        }
        if (!Has(scanned, "DTSTART")) {
            reading.skipped << QStringLiteral("skipped %1: it has no DTSTART").arg(where);
            continue;
        }
        // A start in a gap is read as an invalid QDateTime that keeps its fields and zone.
        const QDateTime start = event->dtStart();
        if (!start.date().isValid() || !start.time().isValid()) {
            reading.error = QStringLiteral("line %1: DTSTART could not be read")
                                .arg(LineOf(scanned, "DTSTART"));
            return reading;
        }
        const QDateTime wall(start.date(), start.time(), Qt::UTC);
        const QString zone = ZoneOf(start);
        const QString title = event->summary().trimmed();
        if (event->allDay()) {
            reading.skipped
                << QStringLiteral("skipped %1 (\"%2\"): it has no time of day").arg(where, title);
            continue;
        }
        if (title.isEmpty()) {
            reading.skipped << QStringLiteral("skipped %1: it has no SUMMARY").arg(where);
            continue;
        }
        const KCalendarCore::Recurrence* recurrence = event->recurrence();
        if (Has(scanned, "RRULE") && recurrence->rRules().size() != 1) {
            reading.error =
                QStringLiteral("line %1: RRULE could not be read").arg(LineOf(scanned, "RRULE"));
            return reading;
        }
        QStringList unused;
        for (const Property& property : scanned.properties) {
            if (!USED.count(property.name) && !unused.contains(property.name)) {
                unused << property.name;
            }
        }
        unused += scanned.components;
        if (!recurrence->exDates().isEmpty()) {
            unused << QStringLiteral("EXDATE given as dates");
        }
        if (!unused.isEmpty()) {
            reading.skipped
                << QStringLiteral("%1 (\"%2\"): left out %3").arg(where, title, unused.join(", "));
        }
        if (!zone.isEmpty() && !QTimeZone(zone.toUtf8()).isValid()) {
            reading.skipped << QStringLiteral("skipped %1 (\"%2\"): time zone %3 is unknown")
                                   .arg(where, title, zone);
            continue;
        }
        Entry entry;
        entry.uid = scanned.uid;
        entry.record.startTime = ResolveWallTime(wall, zone);
        long long seconds = 0;
        if (event->hasDuration()) {
            seconds = event->duration().asSeconds();
        } else if (event->hasEndDate()) {
            // The end is read like the start, not as Qt picks in a gap or fold.
            const QDateTime end = event->dtEnd();
            seconds = (ResolveWallTime(QDateTime(end.date(), end.time(), Qt::UTC), ZoneOf(end)) -
                       entry.record.startTime) /
                      Time::Microseconds(1000000);
        }
        if (seconds < 0) {
            reading.error = QStringLiteral("line %1: the event ends before it starts")
                                .arg(LineOf(scanned, "DTEND"));
            return reading;
        }
        entry.record.title = title;
        entry.record.duration = Time::Microseconds(seconds * 1000000);
        entry.record.tag = event->nonKDECustomProperty(TAG_PROPERTY).toInt();
        if (event->nonKDECustomProperty(TAG_PROPERTY).isEmpty()) {
            entry.record.tag = -1;
        }
        entry.record.mode = static_cast<QK::RecordMode>(
            std::clamp(event->nonKDECustomProperty(MODE_PROPERTY).toInt(), 0, 2));
        if (!recurrence->rRules().isEmpty()) {
            Plan plan;
            plan.title = title;
            QString error;
            const auto rule = ParseRule(recurrence->rRules().front()->rrule(), error);
            if (!rule) {
                reading.error =
                    QStringLiteral("line %1: %2").arg(LineOf(scanned, "RRULE")).arg(error);
                return reading;
            }
            plan.rule = *rule;
            plan.start = wall;
            plan.zone = zone;
            for (const QDateTime& exception : recurrence->exDateTimes()) {
                const long long instant = exception.toSecsSinceEpoch();
                plan.exceptions << WallTimeAt(
                    Time::TimePoint(Time::Microseconds(instant * 1000000)), zone);
            }
            plan.duration = entry.record.duration;
            plan.tag = entry.record.tag;
            plan.mode = static_cast<int>(entry.record.mode);
            plan.uid = scanned.uid;
            entry.plan = plan;
        }
        reading.entries.push_back(std::move(entry));
    }
    return reading;
}

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

QString MadeUpUid(const QString& title, const QString& when) {
    const QByteArray hash = QCryptographicHash::hash((title + QLatin1Char('\n') + when).toUtf8(),
                                                     QCryptographicHash::Sha1)
                                .toHex()
                                .left(20);
    return QString::fromLatin1(hash) + QStringLiteral("@vexlor-schedule");
}

QTimeZone ZoneFor(const QString& zone) {
    return zone.isEmpty() ? QTimeZone::systemTimeZone() : QTimeZone(zone.toUtf8());
}

// Writes the wall starts marked by WriteCalendar into their events' DTSTART lines.
QString PutWallStarts(const QString& text) {
    static const QRegularExpression mark(
        QStringLiteral("\r\n%1:(\\d{8}T\\d{6})\r\n").arg(QString::fromLatin1(WALL_START_PROPERTY)));
    static const QRegularExpression start(
        QStringLiteral("(\r\nDTSTART;[^:\r\n]*:)\\d{8}T\\d{6}\r\n"));
    const QString separator = QStringLiteral("\r\nBEGIN:VEVENT\r\n");
    QStringList events = text.split(separator);
    for (QString& event : events) {
        const QRegularExpressionMatch wall = mark.match(event);
        if (wall.hasMatch()) {
            event.remove(wall.capturedStart() + 2, wall.capturedLength() - 2);
            event.replace(start, QStringLiteral("\\1%1\r\n").arg(wall.captured(1)));
        }
    }
    return events.join(separator);
}

}  // namespace

ImportResult ImportCalendar(const QK::RecordTimeList& schedule, const PlanBook& book,
                            const QByteArray& text, const QString& source, Time::TimePoint now) {
    ImportResult result{{}, schedule, book, {}, false};
    Reading reading = ReadEvents(text);
    if (!reading.error.isEmpty()) {
        result.error = reading.error;
        return result;
    }
    int added = 0;
    int updated = 0;
    int removed = 0;
    int unchanged = 0;
    std::set<QString> present;
    auto& plans = result.book.plans;
    auto& imported = result.book.imported;
    const auto findPlan = [&](const QString& uid) {
        return std::find_if(plans.begin(), plans.end(),
                            [&](const Plan& p) { return p.source == source && p.uid == uid; });
    };
    const auto findRecord = [&](const QString& uid) {
        return std::find_if(imported.begin(), imported.end(), [&](const ImportedRecord& r) {
            return r.source == source && r.uid == uid;
        });
    };
    for (Entry& entry : reading.entries) {
        present.insert(entry.uid);
        if (entry.plan) {
            entry.plan->source = source;
        }
        const auto oldPlan = findPlan(entry.uid);
        const auto oldRecord = findRecord(entry.uid);
        const bool same = entry.plan
                              ? oldPlan != plans.end() && SameDefinition(*oldPlan, *entry.plan)
                              : oldRecord != imported.end() && oldRecord->record == entry.record;
        if (same) {
            ++unchanged;
            continue;
        }
        const bool existed = oldPlan != plans.end() || oldRecord != imported.end();
        if (oldPlan != plans.end()) {
            RemovePlan(result.schedule, plans, oldPlan);
        }
        if (oldRecord != imported.end()) {
            RemoveTitle(result.schedule, oldRecord->record.title);
            imported.erase(oldRecord);
        }
        const QString& title = entry.plan ? entry.plan->title : entry.record.title;
        bool kept = false;
        if (TitleTaken(result.schedule, result.book, title)) {
            result.lines << QStringLiteral("skipped %1: the title is taken").arg(QuoteTitle(title));
        } else if (entry.plan) {
            plans.push_back(*entry.plan);
            kept = true;
        } else if (IsOver(entry.record, now)) {
            result.lines << QStringLiteral("skipped %1: it is already over")
                                .arg(DescribeRecord(entry.record));
        } else if (std::any_of(result.schedule.begin(), result.schedule.end(),
                               [&](const QK::RecordTime& r) {
                                   return r.startTime == entry.record.startTime;
                               })) {
            result.lines << QStringLiteral(
                                "skipped %1: another recording starts at the same moment")
                                .arg(DescribeRecord(entry.record));
        } else {
            result.schedule.push_back(entry.record);
            imported.push_back({source, entry.uid, entry.record});
            kept = true;
        }
        if (existed) {
            ++updated;
        } else if (kept) {
            ++added;
        }
    }
    // The events of this file that are gone from it.
    for (auto plan = plans.begin(); plan != plans.end();) {
        if (plan->source == source && !present.count(plan->uid)) {
            RemovePlan(result.schedule, plans, plan);
            plan = plans.begin();
            ++removed;
        } else {
            ++plan;
        }
    }
    for (auto record = imported.begin(); record != imported.end();) {
        if (record->source == source && !present.count(record->uid)) {
            RemoveTitle(result.schedule, record->record.title);
            record = imported.erase(record);
            ++removed;
        } else {
            ++record;
        }
    }
    TopUpResult topUp = TopUp(result.schedule, result.book, now);
    result.schedule = std::move(topUp.schedule);
    result.book = std::move(topUp.book);
    result.lines += reading.skipped;
    result.lines += topUp.notes;
    result.lines.prepend(
        QStringLiteral("imported %1: %2 added, %3 updated, %4 removed, %5 unchanged")
            .arg(source)
            .arg(added)
            .arg(updated)
            .arg(removed)
            .arg(unchanged));
    result.changed = result.schedule != schedule || result.book != book;
    return result;
}

QString WriteCalendar(const QK::RecordTimeList& schedule, const PlanBook& book) {
    auto calendar = KCalendarCore::MemoryCalendar::Ptr::create(QTimeZone::utc());
    KCalendarCore::ICalFormat format;
    const auto describe = [](const KCalendarCore::Event::Ptr& event, Time::Microseconds duration,
                             int tag, int mode) {
        if (duration.count() > 0) {
            event->setDuration(KCalendarCore::Duration(static_cast<int>(
                std::min<long long>(duration.count() / 1000000, std::numeric_limits<int>::max()))));
        }
        if (tag != -1) {
            event->setNonKDECustomProperty(TAG_PROPERTY, QString::number(tag));
        }
        if (mode != 0) {
            event->setNonKDECustomProperty(MODE_PROPERTY, QString::number(mode));
        }
    };
    for (const Plan& plan : book.plans) {
        const QTimeZone zone = ZoneFor(plan.zone);
        auto event = KCalendarCore::Event::Ptr::create();
        event->setUid(plan.uid.isEmpty() ? MadeUpUid(plan.title, plan.start.toString(Qt::ISODate))
                                         : plan.uid);
        event->setSummary(plan.title);
        const QDateTime start(plan.start.date(), plan.start.time(), zone);
        if (start.isValid()) {
            event->setDtStart(start);
        } else {
            const Time::TimePoint instant = ResolveWallTime(plan.start, plan.zone);
            event->setDtStart(
                QDateTime::fromSecsSinceEpoch(instant.time_since_epoch().count() / 1000000, zone));
            event->setNonKDECustomProperty(WALL_START_PROPERTY, plan.start.toString(WALL_FORMAT));
        }
        describe(event, plan.duration, plan.tag, plan.mode);
        auto* rule = new KCalendarCore::RecurrenceRule;
        if (format.fromString(rule, plan.rule)) {
            rule->setStartDt(event->dtStart());
            event->recurrence()->addRRule(rule);
        } else {
            delete rule;
        }
        for (const QDateTime& exception : plan.exceptions) {
            event->recurrence()->addExDateTime(QDateTime(exception.date(), exception.time(), zone));
        }
        calendar->addEvent(event);
    }
    for (const QK::RecordTime& record : schedule) {
        if (std::any_of(book.plans.begin(), book.plans.end(),
                        [&](const Plan& p) { return IsOccurrenceOf(p, record.title); })) {
            continue;  // the plan's RRULE stands for it
        }
        auto event = KCalendarCore::Event::Ptr::create();
        QString uid =
            MadeUpUid(record.title, QString::number(record.startTime.time_since_epoch().count()));
        for (const ImportedRecord& entry : book.imported) {
            if (entry.record.title == record.title) {
                uid = entry.uid;
            }
        }
        event->setUid(uid);
        event->setSummary(record.title);
        // The second of two equal wall times of a fold would be read back as the first.
        const long long seconds = record.startTime.time_since_epoch().count() / 1000000;
        const bool second = ResolveWallTime(WallTimeAt(record.startTime, QString()), QString()) !=
                            Time::TimePoint(Time::Microseconds(seconds * 1000000));
        event->setDtStart(QDateTime::fromSecsSinceEpoch(
            seconds, second ? QTimeZone::utc() : QTimeZone::systemTimeZone()));
        describe(event, record.duration, record.tag, static_cast<int>(record.mode));
        calendar->addEvent(event);
    }
    return PutWallStarts(format.toString(calendar));
}

}  // namespace Vexlor::ScheduleTool
