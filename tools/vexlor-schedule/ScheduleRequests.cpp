#include "ScheduleRequests.h"

#include <algorithm>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include "Calendar.h"
#include "Commands.h"
#include "Duration.h"
#include "RecordText.h"
#include "Scheduler/SchedulerHelper.h"
#include "core/Saturating.h"

namespace Vexlor::ScheduleTool {

namespace {

// The stored schedule as the editor sees it: put in record by record, so records that are
// already over stay out.
void LoadInto(QK::SchedulerHelper& helper, const QK::RecordTimeList& schedule) {
    for (const QK::RecordTime& record : schedule) {
        helper.AddRecord(record);
    }
}

QString Line(const QString& text) {
    return text + QLatin1Char('\n');
}

EditOutcome Refused(const QString& message) {
    EditOutcome outcome;
    outcome.exitCode = EXIT_REFUSED;
    outcome.err = Line(message);
    return outcome;
}

Time::TimePoint EndOf(const QK::RecordTime& record) {
    return Core::SaturatingAdd(record.startTime, record.duration);
}

bool Meets(const QK::RecordTime& a, const QK::RecordTime& b) {
    QK::SchedulerHelper single;
    single.AddRecord(a);
    return single.DoesCaptureTimeIntersected(b);
}

// Why `record` cannot join `planned`, or nothing.
QString Conflict(const QK::RecordTimeList& planned, const QK::RecordTime& record, bool allowOverlap,
                 const EditContext& context) {
    if (context.recording && context.recording->title == record.title) {
        return QStringLiteral("the title is taken by %1, which is being recorded now")
            .arg(DescribeRecord(*context.recording));
    }
    for (const QK::RecordTime& existing : planned) {
        if (existing.title == record.title) {
            return QStringLiteral("the title is taken by %1").arg(DescribeRecord(existing));
        }
    }
    for (const QK::RecordTime& existing : planned) {
        // The scheduler keeps one record per start time; the other would vanish unrun.
        if (existing.startTime == record.startTime) {
            return QStringLiteral("%1 starts at the same moment as %2; only one of them could run")
                .arg(DescribeRecord(record), DescribeRecord(existing));
        }
    }
    if (allowOverlap) {
        return {};
    }
    if (context.recording && Meets(*context.recording, record)) {
        return QStringLiteral(
                   "%1 overlaps %2, which is being recorded now (use --allow-overlap to "
                   "keep both)")
            .arg(DescribeRecord(record), DescribeRecord(*context.recording));
    }
    for (const QK::RecordTime& existing : planned) {
        if (Meets(existing, record)) {
            return QStringLiteral("%1 overlaps %2 (use --allow-overlap to keep both)")
                .arg(DescribeRecord(record), DescribeRecord(existing));
        }
    }
    return {};
}

const Plan* PlanTitled(const PlanBook& book, const QString& title) {
    for (const Plan& plan : book.plans) {
        if (plan.title == title) {
            return &plan;
        }
    }
    return nullptr;
}

QString OffNote(bool enabled) {
    return enabled ? QString()
                   : Line(QStringLiteral("scheduling is off, so it will not run: switch it on with "
                                         "\"vexlor-schedule enable\" (or add with --enable)"));
}

// The occurrences of plans not in the schedule yet that could meet `record`.
QK::RecordTimeList UnplacedNear(const PlanBook& book, const QK::RecordTime& record) {
    QK::RecordTimeList near;
    for (const Plan& plan : book.plans) {
        const Time::TimePoint after =
            std::max(plan.placedUntil,
                     Core::SaturatingSub(record.startTime, plan.duration) - Time::Microseconds(1));
        for (const Time::TimePoint start : Occurrences(plan, after, 2)) {
            near.push_back(OccurrenceRecord(plan, start));
        }
    }
    return near;
}

EditOutcome Add(const ScheduleState& state, const EditRequest& request,
                const EditContext& context) {
    const QK::RecordTime& record = request.record;
    if (record.duration.count() != 0 && EndOf(record) < context.now) {
        return Refused(QStringLiteral("%1 is already over").arg(DescribeRecord(record)));
    }
    QK::SchedulerHelper helper;
    LoadInto(helper, state.schedule);
    if (PlanTitled(state.plans, record.title)) {
        return Refused(
            QStringLiteral("the title is taken by the plan %1").arg(QuoteTitle(record.title)));
    }
    QK::RecordTimeList planned = helper.GetPreparedSchedule();
    const QK::RecordTimeList near = UnplacedNear(state.plans, record);
    planned.insert(planned.end(), near.begin(), near.end());
    const QString conflict = Conflict(planned, record, request.allowOverlap, context);
    if (!conflict.isEmpty()) {
        return Refused(conflict);
    }
    if (helper.AddRecord(record) < 0) {
        return Refused(QStringLiteral("%1 is already over").arg(DescribeRecord(record)));
    }
    EditOutcome outcome;
    outcome.changed =
        ScheduleState{helper.GetPreparedSchedule(), state.enabled || request.enable, state.plans};
    outcome.out = Line(QStringLiteral("added %1").arg(DescribeRecord(record)));
    if (record.startTime < context.now) {
        outcome.out +=
            Line(QStringLiteral("it has begun: it is recorded from now to its planned end"));
    }
    outcome.out += OffNote(outcome.changed->enabled);
    return outcome;
}

// A plan is checked by its occurrences within the horizon, as each would be by `add`.
EditOutcome AddPlan(const ScheduleState& state, const EditRequest& request,
                    const EditContext& context) {
    QString error;
    const auto rule = ParseRule(request.rule, error);
    if (!rule) {
        return Refused(error);
    }
    const QString& title = request.record.title;
    if (PlanTitled(state.plans, title)) {
        return Refused(QStringLiteral("the title is taken by the plan %1").arg(QuoteTitle(title)));
    }
    Plan plan;
    plan.title = title;
    plan.rule = *rule;
    plan.start = request.wallStart;
    plan.duration = request.record.duration;
    plan.tag = request.record.tag;
    plan.mode = static_cast<int>(request.record.mode);
    const TopUpResult alone = TopUp({}, PlanBook{{plan}, {}}, context.now);
    if (alone.added.empty()) {
        return Refused(QStringLiteral("the plan %1 (%2) has no recording from now on")
                           .arg(QuoteTitle(title), plan.rule));
    }
    QK::SchedulerHelper helper;
    LoadInto(helper, state.schedule);
    for (const QK::RecordTime& record : state.schedule) {
        if (record.title == title) {
            return Refused(QStringLiteral("the title is taken by %1").arg(DescribeRecord(record)));
        }
    }
    for (const QK::RecordTime& occurrence : alone.added) {
        const QString conflict =
            Conflict(helper.GetPreparedSchedule(), occurrence, request.allowOverlap, context);
        if (!conflict.isEmpty()) {
            return Refused(conflict);
        }
        helper.AddRecord(occurrence);
    }
    EditOutcome outcome;
    PlanBook book = state.plans;
    book.plans.push_back(alone.book.plans.front());
    outcome.changed =
        ScheduleState{helper.GetPreparedSchedule(), state.enabled || request.enable, book};
    outcome.out = Line(QStringLiteral("added the plan %1 (%2), in the schedule: %3, the first %4")
                           .arg(QuoteTitle(title), plan.rule)
                           .arg(alone.added.size())
                           .arg(DescribeRecord(alone.added.front())));
    outcome.out += OffNote(outcome.changed->enabled);
    return outcome;
}

EditOutcome Remove(const ScheduleState& state, const QString& title) {
    if (const Plan* plan = PlanTitled(state.plans, title)) {
        ScheduleState changed = state;
        auto& schedule = changed.schedule;
        const auto removed = std::remove_if(
            schedule.begin(), schedule.end(),
            [plan](const QK::RecordTime& record) { return IsOccurrenceOf(*plan, record.title); });
        const long count = static_cast<long>(schedule.end() - removed);
        schedule.erase(removed, schedule.end());
        changed.plans.plans.erase(changed.plans.plans.begin() + (plan - state.plans.plans.data()));
        EditOutcome outcome;
        outcome.changed = changed;
        outcome.out =
            Line(QStringLiteral("removed the plan %1 and its %2 recordings in the schedule")
                     .arg(QuoteTitle(title))
                     .arg(count));
        return outcome;
    }
    QK::SchedulerHelper helper;
    LoadInto(helper, state.schedule);
    if (!helper.DoesTitleAlreadyExists(title)) {
        return Refused(QStringLiteral("no planned recording is titled %1").arg(QuoteTitle(title)));
    }
    helper.RemoveRecord(title);
    EditOutcome outcome;
    outcome.changed = ScheduleState{helper.GetPreparedSchedule(), state.enabled, state.plans};
    outcome.out = Line(QStringLiteral("removed %1").arg(QuoteTitle(title)));
    return outcome;
}

EditOutcome Upcoming(const ScheduleState& state, const EditRequest& request,
                     const EditContext& context) {
    const std::size_t count = static_cast<std::size_t>(std::max(request.count, 0));
    QK::RecordTimeList coming = state.schedule;
    for (const Plan& plan : state.plans.plans) {
        const Time::TimePoint after =
            std::max(plan.placedUntil, context.now - Time::Microseconds(1));
        for (const Time::TimePoint start : Occurrences(plan, after, count)) {
            coming.push_back(OccurrenceRecord(plan, start));
        }
    }
    std::stable_sort(
        coming.begin(), coming.end(),
        [](const QK::RecordTime& a, const QK::RecordTime& b) { return a.startTime < b.startTime; });
    EditOutcome outcome;
    for (std::size_t i = 0; i < std::min(count, coming.size()); ++i) {
        outcome.out += Line(FormatRecordLine(coming[i]));
    }
    return outcome;
}

EditOutcome Import(const ScheduleState& state, const EditRequest& request,
                   const EditContext& context) {
    const ImportResult result =
        ImportCalendar(state.schedule, state.plans, request.calendar, request.source, context.now);
    if (!result.error.isEmpty()) {
        return Refused(
            QStringLiteral("%1: %2; nothing was imported").arg(request.source, result.error));
    }
    EditOutcome outcome;
    for (const QString& line : result.lines) {
        outcome.out += Line(line);
    }
    if (result.changed) {
        outcome.changed = ScheduleState{result.schedule, state.enabled, result.book};
    }
    return outcome;
}

// Whole seconds, rounded up: "in 0s" would read as "now".
QString Until(Time::TimePoint time, Time::TimePoint now) {
    const Time::Microseconds until = Core::SaturatingDiff(time, now);
    return FormatDuration(Time::Microseconds((until.count() + 999999) / 1000000 * 1000000));
}

const QK::RecordTime* NextOf(const ScheduleState& state, Time::TimePoint now) {
    const QK::RecordTime* next = nullptr;
    for (const QK::RecordTime& record : state.schedule) {
        if (record.startTime >= now && (!next || record.startTime < next->startTime)) {
            next = &record;
        }
    }
    return next;
}

// How the capture that the active run records now goes, under "recording now".
QString CaptureLine(const LiveCapture& capture, Time::TimePoint now) {
    const QString left = capture.plannedEnd
                             ? QStringLiteral("%1 left").arg(Until(*capture.plannedEnd, now))
                             : QStringLiteral("no planned end");
    const QString how = !capture.file.isEmpty() ? QStringLiteral("saved to %1").arg(capture.file)
                        : capture.command ? QStringLiteral("command: %1").arg(*capture.command)
                                          : QStringLiteral("simulated");
    return Line(
        QStringLiteral("  began %1, %2, %3").arg(FormatLocalTime(capture.began), left, how));
}

// What else the active run knows: notices on the screen, and its next capture.
QString LiveLines(const LiveState& live, Time::TimePoint now) {
    QString lines;
    for (const LiveNotice& notice : live.notices) {
        lines += Line(QStringLiteral("notice shown: %1: %2").arg(notice.title, notice.text));
    }
    if (live.nextRecord) {
        lines += Line(QStringLiteral("next capture begins: %1, in %2, for %3")
                          .arg(FormatLocalTime(live.nextCaptureAt), Until(live.nextCaptureAt, now),
                               QuoteTitle(live.nextRecord->title)));
    }
    return lines;
}

QJsonValue Milliseconds(Time::Microseconds duration) {
    return static_cast<double>(duration.count() / 1000);
}

// A moment as local time with its offset and as UTC.
void PutTime(QJsonObject& json, const QString& name, Time::TimePoint time) {
    json.insert(name, FormatIsoTime(time));
    json.insert(name + QStringLiteral("Utc"), FormatUtcTime(time));
}

QJsonObject RecordJson(const QK::RecordTime& record) {
    QJsonObject json{{QStringLiteral("title"), record.title},
                     {QStringLiteral("durationMs"), Milliseconds(record.duration)},
                     {QStringLiteral("tag"), record.tag},
                     {QStringLiteral("mode"), static_cast<int>(record.mode)}};
    PutTime(json, QStringLiteral("start"), record.startTime);
    return json;
}

QJsonObject LiveJson(const LiveState& live, Time::TimePoint now) {
    QJsonObject json;
    QJsonValue recording;  // null: nothing is being recorded
    if (const auto& capture = live.capture) {
        QJsonObject object = RecordJson(capture->record);
        PutTime(object, QStringLiteral("began"), capture->began);
        object.insert(QStringLiteral("durationMs"),
                      capture->plannedEnd ? Milliseconds(Core::SaturatingDiff(
                                                *capture->plannedEnd, capture->record.startTime))
                                          : QJsonValue(0));
        object.insert(QStringLiteral("timeLeftMs"),
                      capture->plannedEnd
                          ? Milliseconds(std::max(Core::SaturatingDiff(*capture->plannedEnd, now),
                                                  Time::Microseconds(0)))
                          : QJsonValue());
        object.insert(QStringLiteral("file"),
                      capture->file.isEmpty() ? QJsonValue() : QJsonValue(capture->file));
        object.insert(QStringLiteral("command"),
                      capture->command ? QJsonValue(*capture->command) : QJsonValue());
        recording = object;
    }
    json.insert(QStringLiteral("recording"), recording);
    QJsonArray notices;
    for (const LiveNotice& notice : live.notices) {
        notices.append(QJsonObject{{QStringLiteral("title"), notice.title},
                                   {QStringLiteral("text"), notice.text}});
    }
    json.insert(QStringLiteral("notices"), notices);
    QJsonValue nextCapture;
    if (live.nextRecord) {
        QJsonObject object{
            {QStringLiteral("title"), live.nextRecord->title},
            {QStringLiteral("inMs"), Milliseconds(Core::SaturatingDiff(live.nextCaptureAt, now))}};
        PutTime(object, QStringLiteral("at"), live.nextCaptureAt);
        nextCapture = object;
    }
    json.insert(QStringLiteral("nextCapture"), nextCapture);
    return json;
}

QString Document(const QJsonObject& json) {
    return QString::fromUtf8(QJsonDocument(json).toJson(QJsonDocument::Indented));
}

int FromPlans(const ScheduleState& state) {
    return static_cast<int>(std::count_if(
        state.schedule.begin(), state.schedule.end(), [&state](const QK::RecordTime& record) {
            return std::any_of(
                state.plans.plans.begin(), state.plans.plans.end(),
                [&record](const Plan& p) { return IsOccurrenceOf(p, record.title); });
        }));
}

EditOutcome Status(const ScheduleState& state, const EditContext& context, bool json) {
    const QK::RecordTime* next = NextOf(state, context.now);
    const int fromPlans = FromPlans(state);
    EditOutcome outcome;
    if (json) {
        QJsonValue nextJson;
        if (next) {
            QJsonObject object = RecordJson(*next);
            object.insert(QStringLiteral("inMs"),
                          Milliseconds(Core::SaturatingDiff(next->startTime, context.now)));
            nextJson = object;
        }
        outcome.out = Document(
            {{QStringLiteral("enabled"), state.enabled},
             {QStringLiteral("recordings"), static_cast<int>(state.schedule.size())},
             {QStringLiteral("recordingsFromPlans"), fromPlans},
             {QStringLiteral("plans"), static_cast<int>(state.plans.plans.size())},
             {QStringLiteral("next"), nextJson},
             {QStringLiteral("run"),
              context.live ? QJsonValue(LiveJson(*context.live, context.now)) : QJsonValue()}});
        return outcome;
    }
    outcome.out =
        Line(QStringLiteral("scheduling: %1")
                 .arg(state.enabled ? QStringLiteral("enabled") : QStringLiteral("disabled")));
    if (context.recording) {
        outcome.out +=
            Line(QStringLiteral("recording now: %1").arg(DescribeRecord(*context.recording)));
        if (context.live && context.live->capture) {
            outcome.out += CaptureLine(*context.live->capture, context.now);
        }
    }
    outcome.out +=
        Line(QStringLiteral("planned: %1 recording(s) (%2 of them from plans), %3 plan(s)")
                 .arg(state.schedule.size())
                 .arg(fromPlans)
                 .arg(state.plans.plans.size()));
    const QString live = context.live ? LiveLines(*context.live, context.now) : QString();
    if (!next) {
        outcome.out += Line(QStringLiteral("next: none")) + live;
        return outcome;
    }
    outcome.out += Line(QStringLiteral("next: %1, in %2")
                            .arg(DescribeRecord(*next), Until(next->startTime, context.now))) +
                   live;
    return outcome;
}

EditOutcome List(const ScheduleState& state, bool json) {
    EditOutcome outcome;
    if (json) {
        QJsonArray records;
        for (const QK::RecordTime& record : state.schedule) {
            records.append(RecordJson(record));
        }
        QJsonArray plans;
        for (const Plan& plan : state.plans.plans) {
            QJsonObject object{{QStringLiteral("title"), plan.title},
                               {QStringLiteral("rule"), plan.rule},
                               {QStringLiteral("durationMs"), Milliseconds(plan.duration)},
                               {QStringLiteral("tag"), plan.tag},
                               {QStringLiteral("mode"), plan.mode}};
            if (const auto next = NextOccurrence(plan, state.schedule)) {
                PutTime(object, QStringLiteral("next"), *next);
            }
            plans.append(object);
        }
        outcome.out =
            Document({{QStringLiteral("records"), records}, {QStringLiteral("plans"), plans}});
        return outcome;
    }
    for (const QK::RecordTime& record : state.schedule) {
        outcome.out += Line(FormatRecordLine(record));
    }
    for (const Plan& plan : state.plans.plans) {
        const auto next = NextOccurrence(plan, state.schedule);
        outcome.out +=
            Line(QStringLiteral("plan %1  %2  %3  next %4")
                     .arg(QuoteTitle(plan.title), plan.rule, FormatDuration(plan.duration),
                          next ? FormatLocalTime(*next) : QStringLiteral("none")));
    }
    return outcome;
}

QJsonObject RecordToJson(const QK::RecordTime& record) {
    return {{QStringLiteral("title"), record.title},
            {QStringLiteral("start"), QString::number(record.startTime.time_since_epoch().count())},
            {QStringLiteral("duration"), QString::number(record.duration.count())},
            {QStringLiteral("tag"), record.tag},
            {QStringLiteral("mode"), static_cast<int>(record.mode)}};
}

std::optional<QK::RecordTime> RecordFromJson(const QJsonObject& json) {
    bool startOk = false;
    bool durationOk = false;
    QK::RecordTime record;
    record.title = json.value(QStringLiteral("title")).toString();
    record.startTime = Time::TimePoint(
        Time::Microseconds(json.value(QStringLiteral("start")).toString().toLongLong(&startOk)));
    record.duration = Time::Microseconds(
        json.value(QStringLiteral("duration")).toString().toLongLong(&durationOk));
    record.tag = json.value(QStringLiteral("tag")).toInt(-1);
    const int mode = json.value(QStringLiteral("mode")).toInt(-1);
    if (!startOk || !durationOk || mode < 0 || mode > 2) {
        return std::nullopt;
    }
    record.mode = static_cast<QK::RecordMode>(mode);
    return record;
}

}  // namespace

EditRequest MakeEditRequest(const Invocation& invocation, Time::TimePoint now) {
    EditRequest request;
    request.command = invocation.command;
    if (invocation.command == CommandName::Add) {
        const AddOptions& add = invocation.add;
        request.record.title = add.title;
        request.record.startTime = add.at ? *add.at : Core::SaturatingAdd(now, *add.in);
        request.record.duration = add.duration;
        request.record.tag = add.tag;
        request.record.mode = static_cast<QK::RecordMode>(add.mode);
        request.allowOverlap = add.allowOverlap;
        request.enable = add.enable;
        if (add.repeat) {
            request.rule = *add.repeat;
            // Whole seconds on the local clock, not before the moment asked for.
            request.wallStart = add.at ? add.atWall
                                       : WallTimeAt(Core::SaturatingAdd(request.record.startTime,
                                                                        Time::Microseconds(999999)),
                                                    QString());
        }
    }
    request.title = invocation.removeTitle;
    request.count = invocation.count;
    request.json = invocation.json;
    return request;
}

QByteArray EncodeRequest(const EditRequest& request) {
    const QJsonObject json{
        {QStringLiteral("command"), static_cast<int>(request.command)},
        {QStringLiteral("record"), RecordToJson(request.record)},
        {QStringLiteral("allowOverlap"), request.allowOverlap},
        {QStringLiteral("enable"), request.enable},
        {QStringLiteral("title"), request.title},
        {QStringLiteral("rule"), request.rule},
        {QStringLiteral("wallStart"),
         request.wallStart.toString(QStringLiteral("yyyy-MM-ddTHH:mm:ss"))},
        {QStringLiteral("calendar"), QString::fromLatin1(request.calendar.toBase64())},
        {QStringLiteral("source"), request.source},
        {QStringLiteral("count"), request.count},
        {QStringLiteral("json"), request.json}};
    return QJsonDocument(json).toJson(QJsonDocument::Compact);
}

std::optional<EditRequest> DecodeRequest(const QByteArray& bytes) {
    const QJsonDocument document = QJsonDocument::fromJson(bytes);
    if (!document.isObject()) {
        return std::nullopt;
    }
    const QJsonObject json = document.object();
    const int command = json.value(QStringLiteral("command")).toInt(-1);
    if (command < static_cast<int>(CommandName::Add) ||
        command > static_cast<int>(CommandName::Upcoming) ||
        command == static_cast<int>(CommandName::Run) ||
        command == static_cast<int>(CommandName::Help)) {
        return std::nullopt;
    }
    const auto record = RecordFromJson(json.value(QStringLiteral("record")).toObject());
    if (!record) {
        return std::nullopt;
    }
    EditRequest request;
    request.command = static_cast<CommandName>(command);
    request.record = *record;
    request.allowOverlap = json.value(QStringLiteral("allowOverlap")).toBool();
    request.enable = json.value(QStringLiteral("enable")).toBool();
    request.title = json.value(QStringLiteral("title")).toString();
    request.rule = json.value(QStringLiteral("rule")).toString();
    request.wallStart = WallFromText(json.value(QStringLiteral("wallStart")).toString());
    request.calendar =
        QByteArray::fromBase64(json.value(QStringLiteral("calendar")).toString().toLatin1());
    request.source = json.value(QStringLiteral("source")).toString();
    request.count = json.value(QStringLiteral("count")).toInt(10);
    request.json = json.value(QStringLiteral("json")).toBool();
    return request;
}

QByteArray EncodeOutcome(const EditOutcome& outcome) {
    const QJsonObject json{{QStringLiteral("exit"), outcome.exitCode},
                           {QStringLiteral("out"), outcome.out},
                           {QStringLiteral("err"), outcome.err}};
    return QJsonDocument(json).toJson(QJsonDocument::Compact);
}

std::optional<EditOutcome> DecodeOutcome(const QByteArray& bytes) {
    const QJsonDocument document = QJsonDocument::fromJson(bytes);
    if (!document.isObject() || !document.object().value(QStringLiteral("exit")).isDouble()) {
        return std::nullopt;
    }
    const QJsonObject json = document.object();
    EditOutcome outcome;
    outcome.exitCode = json.value(QStringLiteral("exit")).toInt();
    outcome.out = json.value(QStringLiteral("out")).toString();
    outcome.err = json.value(QStringLiteral("err")).toString();
    return outcome;
}

EditOutcome ApplyEdit(const ScheduleState& state, const EditRequest& request,
                      const EditContext& context) {
    switch (request.command) {
        case CommandName::Add:
            return request.rule.isEmpty() ? Add(state, request, context)
                                          : AddPlan(state, request, context);
        case CommandName::Remove:
            return Remove(state, request.title);
        case CommandName::Clear:
            return {EXIT_DONE, {}, {}, ScheduleState{{}, state.enabled, {}}};
        case CommandName::Enable:
        case CommandName::Disable:
            return {
                EXIT_DONE,
                {},
                {},
                ScheduleState{state.schedule, request.command == CommandName::Enable, state.plans}};
        case CommandName::List:
            return List(state, request.json);
        case CommandName::Status:
            return Status(state, context, request.json);
        case CommandName::Import:
            return Import(state, request, context);
        case CommandName::Export:
            return {EXIT_DONE, WriteCalendar(state.schedule, state.plans), {}, std::nullopt};
        case CommandName::Upcoming:
            return Upcoming(state, request, context);
        case CommandName::Stop:  // the active run's own business
        case CommandName::Run:
        case CommandName::Help:
        case CommandName::Complete:
            break;
    }
    return Refused(QStringLiteral("not an editing command"));
}

std::optional<ScheduleState> TopUpPlans(const ScheduleState& state, Time::TimePoint now,
                                        QStringList& notes) {
    if (state.plans.plans.empty()) {
        return std::nullopt;
    }
    TopUpResult result = TopUp(state.schedule, state.plans, now);
    notes = result.notes;
    if (!result.changed) {
        return std::nullopt;
    }
    return ScheduleState{std::move(result.schedule), state.enabled, std::move(result.book)};
}

QK::RecordTimeList CatchUp(QK::RecordTimeList schedule, Time::TimePoint now,
                           Time::Microseconds margin) {
    std::stable_sort(
        schedule.begin(), schedule.end(),
        [](const QK::RecordTime& a, const QK::RecordTime& b) { return a.startTime < b.startTime; });
    const Time::TimePoint earliest = Core::SaturatingAdd(now, margin);
    Time::TimePoint next = earliest;
    for (QK::RecordTime& record : schedule) {
        if (record.startTime >= next) {
            break;  // sorted: the rest start later still
        }
        const bool endless = record.duration.count() == 0;
        const Time::TimePoint end = EndOf(record);
        if (!endless && end <= next) {
            continue;  // over: the scheduler drops it, and that is reported
        }
        record.startTime = next;
        if (!endless) {
            record.duration = end - next;
        }
        next += Time::Microseconds(1);
    }
    return schedule;
}

}  // namespace Vexlor::ScheduleTool
