#include "ScheduleRequests.h"

#include <algorithm>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

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

EditOutcome Add(const ScheduleState& state, const EditRequest& request,
                const EditContext& context) {
    const QK::RecordTime& record = request.record;
    if (record.duration.count() != 0 && EndOf(record) < context.now) {
        return Refused(QStringLiteral("%1 is already over").arg(DescribeRecord(record)));
    }
    QK::SchedulerHelper helper;
    LoadInto(helper, state.schedule);
    const QK::RecordTimeList planned = helper.GetPreparedSchedule();
    if (context.recording && context.recording->title == record.title) {
        return Refused(QStringLiteral("the title is taken by %1, which is being recorded now")
                           .arg(DescribeRecord(*context.recording)));
    }
    for (const QK::RecordTime& existing : planned) {
        if (existing.title == record.title) {
            return Refused(
                QStringLiteral("the title is taken by %1").arg(DescribeRecord(existing)));
        }
    }
    for (const QK::RecordTime& existing : planned) {
        // The scheduler keeps one record per start time; the other would vanish unrun.
        if (existing.startTime == record.startTime) {
            return Refused(QStringLiteral("%1 starts at the same moment as %2; only one of them "
                                          "could run")
                               .arg(DescribeRecord(record), DescribeRecord(existing)));
        }
    }
    if (!request.allowOverlap) {
        if (context.recording && Meets(*context.recording, record)) {
            return Refused(QStringLiteral("%1 overlaps %2, which is being recorded now (use "
                                          "--allow-overlap to keep both)")
                               .arg(DescribeRecord(record), DescribeRecord(*context.recording)));
        }
        for (const QK::RecordTime& existing : planned) {
            if (Meets(existing, record)) {
                return Refused(QStringLiteral("%1 overlaps %2 (use --allow-overlap to keep both)")
                                   .arg(DescribeRecord(record), DescribeRecord(existing)));
            }
        }
    }
    if (helper.AddRecord(record) < 0) {
        return Refused(QStringLiteral("%1 is already over").arg(DescribeRecord(record)));
    }
    EditOutcome outcome;
    outcome.changed = ScheduleState{helper.GetPreparedSchedule(), state.enabled || request.enable};
    outcome.out = Line(QStringLiteral("added %1").arg(DescribeRecord(record)));
    if (record.startTime < context.now) {
        outcome.out +=
            Line(QStringLiteral("it has begun: it is recorded from now to its planned end"));
    }
    if (!outcome.changed->enabled) {
        outcome.out += Line(QStringLiteral(
            "scheduling is off, so it will not run: switch it on with \"vexlor-schedule enable\" "
            "(or add with --enable)"));
    }
    return outcome;
}

EditOutcome Remove(const ScheduleState& state, const QString& title) {
    QK::SchedulerHelper helper;
    LoadInto(helper, state.schedule);
    if (!helper.DoesTitleAlreadyExists(title)) {
        return Refused(QStringLiteral("no planned recording is titled %1").arg(QuoteTitle(title)));
    }
    helper.RemoveRecord(title);
    EditOutcome outcome;
    outcome.changed = ScheduleState{helper.GetPreparedSchedule(), state.enabled};
    outcome.out = Line(QStringLiteral("removed %1").arg(QuoteTitle(title)));
    return outcome;
}

EditOutcome Status(const ScheduleState& state, const EditContext& context) {
    EditOutcome outcome;
    outcome.out =
        Line(QStringLiteral("scheduling: %1")
                 .arg(state.enabled ? QStringLiteral("enabled") : QStringLiteral("disabled")));
    if (context.recording) {
        outcome.out +=
            Line(QStringLiteral("recording now: %1").arg(DescribeRecord(*context.recording)));
    }
    const QK::RecordTime* next = nullptr;
    for (const QK::RecordTime& record : state.schedule) {
        if (record.startTime >= context.now && (!next || record.startTime < next->startTime)) {
            next = &record;
        }
    }
    if (!next) {
        outcome.out += Line(QStringLiteral("next: none"));
        return outcome;
    }
    const Time::Microseconds until = Core::SaturatingDiff(next->startTime, context.now);
    // Whole seconds, rounded up: "in 0s" would read as "now".
    const Time::Microseconds roundedUp((until.count() + 999999) / 1000000 * 1000000);
    outcome.out += Line(
        QStringLiteral("next: %1, in %2").arg(DescribeRecord(*next), FormatDuration(roundedUp)));
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
    }
    request.title = invocation.removeTitle;
    return request;
}

QByteArray EncodeRequest(const EditRequest& request) {
    const QJsonObject json{{QStringLiteral("command"), static_cast<int>(request.command)},
                           {QStringLiteral("record"), RecordToJson(request.record)},
                           {QStringLiteral("allowOverlap"), request.allowOverlap},
                           {QStringLiteral("enable"), request.enable},
                           {QStringLiteral("title"), request.title}};
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
        command > static_cast<int>(CommandName::Status)) {
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
            return Add(state, request, context);
        case CommandName::Remove:
            return Remove(state, request.title);
        case CommandName::Clear:
            return {EXIT_DONE, {}, {}, ScheduleState{{}, state.enabled}};
        case CommandName::Enable:
        case CommandName::Disable:
            return {EXIT_DONE,
                    {},
                    {},
                    ScheduleState{state.schedule, request.command == CommandName::Enable}};
        case CommandName::List: {
            EditOutcome outcome;
            for (const QK::RecordTime& record : state.schedule) {
                outcome.out += Line(FormatRecordLine(record));
            }
            return outcome;
        }
        case CommandName::Status:
            return Status(state, context);
        case CommandName::Run:
        case CommandName::Help:
            break;
    }
    return Refused(QStringLiteral("not an editing command"));
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
