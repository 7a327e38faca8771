#include "plans/Calendar.h"

#include <algorithm>
#include <limits>

#include <KCalendarCore/Event>
#include <KCalendarCore/ICalFormat>
#include <KCalendarCore/MemoryCalendar>
#include <KCalendarCore/Recurrence>
#include <KCalendarCore/RecurrenceRule>
#include <QCryptographicHash>
#include <QHash>
#include <QRegularExpression>
#include <QSet>
#include <QTimeZone>

#include "base/WallTime.h"
#include "plans/CalendarProperties.h"
#include "plans/Occurrences.h"

namespace Vexlor::ScheduleTool {

namespace {

using Ics::MODE_PROPERTY;
using Ics::TAG_PROPERTY;

// Qt has no valid QDateTime for a wall time the clocks skip, so the library cannot write a
// DTSTART in a gap, which RFC 5545 3.3.5 allows. Such a start is given to the library as the
// instant it stands for, with the wall time in this property, and put back into the text
// after the library has written it.
const QByteArray WALL_START_PROPERTY = "X-VEXLOR-WALL-START";
const QString WALL_FORMAT = QStringLiteral("yyyyMMddTHHmmss");

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

// Writes the wall starts marked by PlanEvent into their events' DTSTART lines.
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

// The length, tag and mode, each only where it differs from what an event without it means.
void Describe(const KCalendarCore::Event::Ptr& event, Time::Microseconds duration, int tag,
              int mode) {
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
}

KCalendarCore::Event::Ptr PlanEvent(const Plan& plan, KCalendarCore::ICalFormat& format) {
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
    Describe(event, plan.duration, plan.tag, plan.mode);
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
    return event;
}

// `imported`: the UIDs of the imported records, by title.
KCalendarCore::Event::Ptr RecordEvent(const QK::RecordTime& record,
                                      const QHash<QString, QString>& imported) {
    auto event = KCalendarCore::Event::Ptr::create();
    event->setUid(imported.value(
        record.title,
        MadeUpUid(record.title, QString::number(record.startTime.time_since_epoch().count()))));
    event->setSummary(record.title);
    // The second of two equal wall times of a fold would be read back as the first.
    const long long seconds = record.startTime.time_since_epoch().count() / 1000000;
    const bool second = ResolveWallTime(WallTimeAt(record.startTime, QString()), QString()) !=
                        Time::TimePoint(Time::Microseconds(seconds * 1000000));
    event->setDtStart(QDateTime::fromSecsSinceEpoch(
        seconds, second ? QTimeZone::utc() : QTimeZone::systemTimeZone()));
    Describe(event, record.duration, record.tag, static_cast<int>(record.mode));
    return event;
}

}  // namespace

QString WriteCalendar(const QK::RecordTimeList& schedule, const PlanBook& book) {
    auto calendar = KCalendarCore::MemoryCalendar::Ptr::create(QTimeZone::utc());
    KCalendarCore::ICalFormat format;
    QSet<QString> plans;
    for (const Plan& plan : book.plans) {
        calendar->addEvent(PlanEvent(plan, format));
        plans.insert(plan.title);
    }
    // Looked up by title, not searched for each record: the later of two entries counts.
    QHash<QString, QString> imported;
    for (const ImportedRecord& entry : book.imported) {
        imported.insert(entry.record.title, entry.uid);
    }
    for (const QK::RecordTime& record : schedule) {
        const auto plan = OccurrenceOf(record.title);
        if (plan && plans.contains(*plan)) {
            continue;  // the plan's RRULE stands for it
        }
        calendar->addEvent(RecordEvent(record, imported));
    }
    return PutWallStarts(format.toString(calendar));
}

}  // namespace Vexlor::ScheduleTool
