#include "Plans.h"

#include <time.h>

#include <algorithm>
#include <memory>

#include <KCalendarCore/ICalFormat>
#include <KCalendarCore/Recurrence>
#include <KCalendarCore/RecurrenceRule>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QTimeZone>

#include "core/Saturating.h"

namespace Vexlor::ScheduleTool {

namespace {

constexpr long long DAY = 86400;
constexpr long long MICROS = 1000000;
const QString WALL_FORMAT = QStringLiteral("yyyy-MM-ddTHH:mm:ss");

long long FloorSeconds(Time::TimePoint instant) {
    const long long micros = instant.time_since_epoch().count();
    return micros / MICROS - (micros % MICROS < 0 ? 1 : 0);
}

// The clock's offset from UTC, in seconds, at `seconds` after the epoch.
long long OffsetAt(long long seconds, const QString& zone) {
    if (zone.isEmpty()) {
        const time_t instant = static_cast<time_t>(seconds);
        tm fields{};
        return ::localtime_r(&instant, &fields) ? fields.tm_gmtoff : 0;
    }
    return QTimeZone(zone.toUtf8()).offsetFromUtc(QDateTime::fromSecsSinceEpoch(seconds, Qt::UTC));
}

QDateTime Carrier(const QDate& date, const QTime& time) {
    return QDateTime(date, QTime(time.hour(), time.minute(), time.second()), Qt::UTC);
}

QString WallText(const QDateTime& wall) {
    return wall.toString(WALL_FORMAT);
}

QString Micros(Time::TimePoint instant) {
    return QString::number(instant.time_since_epoch().count());
}

std::optional<long long> MicrosFrom(const QJsonValue& value) {
    bool ok = false;
    const long long micros = value.toString().toLongLong(&ok);
    return ok ? std::optional<long long>(micros) : std::nullopt;
}

QJsonObject RecordJson(const QK::RecordTime& record) {
    return {{QStringLiteral("title"), record.title},
            {QStringLiteral("start"), Micros(record.startTime)},
            {QStringLiteral("duration"), QString::number(record.duration.count())},
            {QStringLiteral("tag"), record.tag},
            {QStringLiteral("mode"), static_cast<int>(record.mode)}};
}

std::optional<QK::RecordTime> RecordFrom(const QJsonObject& json) {
    const auto start = MicrosFrom(json.value(QStringLiteral("start")));
    const auto duration = MicrosFrom(json.value(QStringLiteral("duration")));
    const int mode = json.value(QStringLiteral("mode")).toInt(-1);
    if (!start || !duration || mode < 0 || mode > 2) {
        return std::nullopt;
    }
    QK::RecordTime record;
    record.title = json.value(QStringLiteral("title")).toString();
    record.startTime = Time::TimePoint(Time::Microseconds(*start));
    record.duration = Time::Microseconds(*duration);
    record.tag = json.value(QStringLiteral("tag")).toInt(-1);
    record.mode = static_cast<QK::RecordMode>(mode);
    return record;
}

QJsonObject PlanJson(const Plan& plan) {
    QJsonArray exceptions;
    for (const QDateTime& exception : plan.exceptions) {
        exceptions.append(WallText(exception));
    }
    return {{QStringLiteral("title"), plan.title},
            {QStringLiteral("rule"), plan.rule},
            {QStringLiteral("start"), WallText(plan.start)},
            {QStringLiteral("zone"), plan.zone},
            {QStringLiteral("exceptions"), exceptions},
            {QStringLiteral("duration"), QString::number(plan.duration.count())},
            {QStringLiteral("tag"), plan.tag},
            {QStringLiteral("mode"), plan.mode},
            {QStringLiteral("uid"), plan.uid},
            {QStringLiteral("source"), plan.source},
            {QStringLiteral("placedUntil"), Micros(plan.placedUntil)}};
}

std::optional<Plan> PlanFrom(const QJsonObject& json) {
    Plan plan;
    plan.title = json.value(QStringLiteral("title")).toString();
    QString error;
    const auto rule = ParseRule(json.value(QStringLiteral("rule")).toString(), error);
    plan.start = WallFromText(json.value(QStringLiteral("start")).toString());
    plan.zone = json.value(QStringLiteral("zone")).toString();
    const auto duration = MicrosFrom(json.value(QStringLiteral("duration")));
    const auto placed = MicrosFrom(json.value(QStringLiteral("placedUntil")));
    plan.mode = json.value(QStringLiteral("mode")).toInt(-1);
    if (plan.title.isEmpty() || !rule || !plan.start.isValid() || !duration || !placed ||
        plan.mode < 0 || plan.mode > 2 ||
        (!plan.zone.isEmpty() && !QTimeZone(plan.zone.toUtf8()).isValid())) {
        return std::nullopt;
    }
    plan.rule = *rule;
    for (const QJsonValue& exception : json.value(QStringLiteral("exceptions")).toArray()) {
        plan.exceptions << WallFromText(exception.toString());
        if (!plan.exceptions.back().isValid()) {
            return std::nullopt;
        }
    }
    plan.duration = Time::Microseconds(*duration);
    plan.tag = json.value(QStringLiteral("tag")).toInt(-1);
    plan.uid = json.value(QStringLiteral("uid")).toString();
    plan.source = json.value(QStringLiteral("source")).toString();
    plan.placedUntil = Time::TimePoint(Time::Microseconds(*placed));
    return plan;
}

// The plan's recurrence on its wall clock. Expanding on the wall clock (carried as UTC,
// which has no daylight-saving changes) keeps each occurrence at its time of day; the wall
// times are turned into instants afterwards, each gap and fold resolved the same way.
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
        rule->setEndDt(
            until.timeSpec() == Qt::LocalTime
                ? Carrier(until.date(), until.time())
                : WallTimeAt(Time::TimePoint(Time::Microseconds(until.toSecsSinceEpoch() * MICROS)),
                             plan.zone));
    }
    recurrence->addRRule(rule.release());
    for (const QDateTime& exception : plan.exceptions) {
        recurrence->addExDateTime(exception);
    }
    return recurrence;
}

int PendingOccurrences(const Plan& plan, const QK::RecordTimeList& schedule) {
    return static_cast<int>(std::count_if(
        schedule.begin(), schedule.end(),
        [&plan](const QK::RecordTime& record) { return IsOccurrenceOf(plan, record.title); }));
}

// Why `record` cannot join `schedule`, or nothing.
QString Collision(const QK::RecordTimeList& schedule, const QK::RecordTime& record) {
    for (const QK::RecordTime& existing : schedule) {
        if (existing.title == record.title) {
            return QStringLiteral("its title is taken");
        }
        if (existing.startTime == record.startTime) {
            // The scheduler keeps one record per start time.
            return QStringLiteral("it would start at the same moment as \"%1\"")
                .arg(existing.title);
        }
    }
    return {};
}

}  // namespace

QDateTime WallFromText(const QString& text) {
    // Read as UTC from the start: read as local time, one in a gap would be invalid.
    const QStringList parts = text.split(QLatin1Char('T'));
    return parts.size() != 2 ? QDateTime()
                             : QDateTime(QDate::fromString(parts[0], Qt::ISODate),
                                         QTime::fromString(parts[1], Qt::ISODate), Qt::UTC);
}

bool SameDefinition(const Plan& a, const Plan& b) {
    return a.title == b.title && a.rule == b.rule && a.start == b.start && a.zone == b.zone &&
           a.exceptions == b.exceptions && a.duration == b.duration && a.tag == b.tag &&
           a.mode == b.mode && a.uid == b.uid && a.source == b.source;
}

bool operator==(const PlanBook& a, const PlanBook& b) {
    return EncodePlans(a) == EncodePlans(b);
}

QByteArray EncodePlans(const PlanBook& book) {
    QJsonArray plans;
    for (const Plan& plan : book.plans) {
        plans.append(PlanJson(plan));
    }
    QJsonArray imported;
    for (const ImportedRecord& entry : book.imported) {
        QJsonObject json = RecordJson(entry.record);
        json.insert(QStringLiteral("source"), entry.source);
        json.insert(QStringLiteral("uid"), entry.uid);
        imported.append(json);
    }
    return QJsonDocument(QJsonObject{{QStringLiteral("plans"), plans},
                                     {QStringLiteral("imported"), imported}})
        .toJson(QJsonDocument::Compact);
}

std::optional<PlanBook> DecodePlans(const QByteArray& bytes) {
    if (bytes.isEmpty()) {
        return PlanBook{};
    }
    const QJsonDocument document = QJsonDocument::fromJson(bytes);
    if (!document.isObject()) {
        return std::nullopt;
    }
    PlanBook book;
    for (const QJsonValue& value : document.object().value(QStringLiteral("plans")).toArray()) {
        auto plan = PlanFrom(value.toObject());
        if (!plan) {
            return std::nullopt;
        }
        book.plans.push_back(std::move(*plan));
    }
    for (const QJsonValue& value : document.object().value(QStringLiteral("imported")).toArray()) {
        const QJsonObject json = value.toObject();
        const auto record = RecordFrom(json);
        if (!record) {
            return std::nullopt;
        }
        book.imported.push_back({json.value(QStringLiteral("source")).toString(),
                                 json.value(QStringLiteral("uid")).toString(), *record});
    }
    return book;
}

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

Time::TimePoint ResolveWallTime(const QDateTime& wall, const QString& zone) {
    if (zone.isEmpty()) {
        ::tzset();  // localtime_r need not notice a changed TZ by itself
    }
    const long long fields = wall.toSecsSinceEpoch();
    // An offset fits when it is in force at the instant it gives: none fits in a gap, two in a
    // fold, where the earlier instant is the first of the two.
    std::optional<long long> first;
    for (const long long probe : {fields - DAY, fields, fields + DAY}) {
        const long long candidate = fields - OffsetAt(probe, zone);
        if (OffsetAt(candidate, zone) == fields - candidate && (!first || candidate < *first)) {
            first = candidate;
        }
    }
    const long long seconds = first ? *first : fields - OffsetAt(fields - DAY, zone);
    return Time::TimePoint(Time::Microseconds(seconds * MICROS));
}

QDateTime WallTimeAt(Time::TimePoint instant, const QString& zone) {
    const long long seconds = FloorSeconds(instant);
    return QDateTime::fromSecsSinceEpoch(seconds + OffsetAt(seconds, zone), Qt::UTC);
}

std::vector<Time::TimePoint> Occurrences(const Plan& plan, Time::TimePoint after,
                                         std::size_t limit) {
    std::vector<Time::TimePoint> starts;
    const auto recurrence = WallRecurrence(plan);
    if (!recurrence || limit == 0) {
        return starts;
    }
    // A day back covers any offset change; what resolves to `after` or earlier is skipped.
    QDateTime cursor = std::max(WallTimeAt(after, plan.zone).addDays(-1), plan.start.addSecs(-1));
    while (starts.size() < limit) {
        const QDateTime next = recurrence->getNextDateTime(cursor);
        if (!next.isValid() || next <= cursor) {
            break;
        }
        cursor = next;
        const Time::TimePoint start = ResolveWallTime(Carrier(next.date(), next.time()), plan.zone);
        // A time in a gap can land on a later one's instant; each instant runs once.
        if (start > after && (starts.empty() || start > starts.back())) {
            starts.push_back(start);
        }
    }
    return starts;
}

QString OccurrenceTitle(const Plan& plan, Time::TimePoint start) {
    const QDateTime wall = WallTimeAt(start, plan.zone);
    const QString format = wall.time().second() == 0 ? QStringLiteral("yyyy-MM-dd HH:mm")
                                                     : QStringLiteral("yyyy-MM-dd HH:mm:ss");
    return QStringLiteral("%1 (%2)").arg(plan.title, wall.toString(format));
}

bool IsOccurrenceOf(const Plan& plan, const QString& title) {
    static const QRegularExpression stamp(
        QStringLiteral("^ \\(\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d(:\\d\\d)?\\)$"));
    return title.startsWith(plan.title) && stamp.match(title.mid(plan.title.size())).hasMatch();
}

QK::RecordTime OccurrenceRecord(const Plan& plan, Time::TimePoint start) {
    QK::RecordTime record;
    record.title = OccurrenceTitle(plan, start);
    record.startTime = start;
    record.duration = plan.duration;
    record.tag = plan.tag;
    record.mode = static_cast<QK::RecordMode>(plan.mode);
    return record;
}

TopUpResult TopUp(const QK::RecordTimeList& schedule, const PlanBook& book, Time::TimePoint now) {
    TopUpResult result{schedule, book, {}, {}, false};
    const Time::TimePoint horizonEnd = Core::SaturatingAdd(now, PLAN_HORIZON);
    std::vector<Plan> kept;
    for (Plan plan : book.plans) {
        std::size_t pending = PendingOccurrences(plan, result.schedule);
        // Occurrences that start before this are over.
        const Time::TimePoint overUntil =
            Core::SaturatingSub(now, std::max(plan.duration, Time::Microseconds(1)));
        const std::vector<Time::TimePoint> starts =
            Occurrences(plan, std::max(plan.placedUntil, overUntil), MAX_PLACED_PER_PLAN + 1);
        for (const Time::TimePoint start : starts) {
            const bool beyond = start > horizonEnd;
            if ((beyond && pending > 0 && plan.placedUntil > horizonEnd) ||
                pending >= MAX_PLACED_PER_PLAN) {
                break;
            }
            plan.placedUntil = start;
            const QK::RecordTime record = OccurrenceRecord(plan, start);
            const QString collision = Collision(result.schedule, record);
            if (!collision.isEmpty()) {
                result.notes << QStringLiteral("left out \"%1\": %2").arg(record.title, collision);
                continue;
            }
            result.schedule.push_back(record);
            result.added.push_back(record);
            ++pending;
            if (beyond) {
                break;
            }
        }
        if (plan.source.isEmpty() && pending == 0 && starts.empty()) {
            continue;  // finished
        }
        kept.push_back(std::move(plan));
    }
    result.book.plans = std::move(kept);
    std::stable_sort(
        result.schedule.begin(), result.schedule.end(),
        [](const QK::RecordTime& a, const QK::RecordTime& b) { return a.startTime < b.startTime; });
    result.changed = !result.added.empty() || result.book != book;
    return result;
}

std::optional<Time::TimePoint> NextOccurrence(const Plan& plan,
                                              const QK::RecordTimeList& schedule) {
    std::optional<Time::TimePoint> next;
    for (const QK::RecordTime& record : schedule) {
        if (IsOccurrenceOf(plan, record.title) && (!next || record.startTime < *next)) {
            next = record.startTime;
        }
    }
    if (!next) {
        const auto starts = Occurrences(plan, plan.placedUntil, 1);
        if (!starts.empty()) {
            next = starts.front();
        }
    }
    return next;
}

}  // namespace Vexlor::ScheduleTool
