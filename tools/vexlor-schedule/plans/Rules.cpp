#include "plans/Rules.h"

#include <KCalendarCore/ICalFormat>
#include <KCalendarCore/Recurrence>
#include <KCalendarCore/RecurrenceRule>

#include "base/WallTime.h"

namespace Vexlor::ScheduleTool {

std::optional<QString> ParseRule(const QString& text, QString& error) {
    QString rrule = text.trimmed();
    if (rrule == QLatin1String("daily")) {
        rrule = QStringLiteral("FREQ=DAILY");
    } else if (rrule == QLatin1String("weekdays")) {
        rrule = QStringLiteral("FREQ=WEEKLY;BYDAY=MO,TU,WE,TH,FR");
    } else if (rrule == QLatin1String("weekly")) {
        rrule = QStringLiteral("FREQ=WEEKLY");
    }
    if (rrule.startsWith(QLatin1String("RRULE:"), Qt::CaseInsensitive)) {
        rrule = rrule.mid(6);
    }
    KCalendarCore::RecurrenceRule rule;
    KCalendarCore::ICalFormat format;
    if (rrule.isEmpty() || !format.fromString(&rule, rrule) ||
        rule.recurrenceType() == KCalendarCore::RecurrenceRule::rNone) {
        error = QStringLiteral(
                    "\"%1\" is not a rule: write daily, weekdays, weekly or an RFC 5545 RRULE "
                    "like FREQ=WEEKLY;BYDAY=MO,WE;COUNT=10")
                    .arg(text);
        return std::nullopt;
    }
    return rule.rrule();
}

std::unique_ptr<KCalendarCore::Recurrence> WallRecurrence(const Plan& plan) {
    auto recurrence = std::make_unique<KCalendarCore::Recurrence>();
    recurrence->setStartDateTime(plan.start, false);
    auto rule = std::make_unique<KCalendarCore::RecurrenceRule>();
    KCalendarCore::ICalFormat format;
    if (!format.fromString(rule.get(), plan.rule)) {
        return nullptr;
    }
    rule->setStartDt(plan.start);
    const QDateTime until = rule->endDt();
    if (until.isValid() && rule->duration() == 0) {
        // UNTIL is an instant (written in UTC) unless it is written as a local time.
        rule->setEndDt(until.timeSpec() == Qt::LocalTime
                           ? QDateTime(until.date(), until.time(), Qt::UTC)
                           : WallTimeAt(Time::TimePoint(
                                            Time::Microseconds(until.toSecsSinceEpoch() * 1000000)),
                                        plan.zone));
    }
    recurrence->addRRule(rule.release());
    for (const QDateTime& exception : plan.exceptions) {
        recurrence->addExDateTime(exception);
    }
    return recurrence;
}

}  // namespace Vexlor::ScheduleTool
